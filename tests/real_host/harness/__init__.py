"""The harness of the scenarios: a private host, its event socket, a media node, known audio."""
