"""What the scenarios stand on: a private host, its event socket, a media node, known audio."""
