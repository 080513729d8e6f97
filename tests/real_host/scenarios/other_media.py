"""Calls with video or text beside their audio: only the audio is tapped."""

import socket
import struct

from harness.media_node import READ, WRITE
from harness.suite import (Skipped, check, check_gap_free, check_heard, check_one_life, scenario)

VIDEO_FRAME = b"\x10" + bytes(200)


def send_video(port: int, payload_type: int, frames: int) -> None:
    """Sends RTP packets to the video port of a leg, each a frame of its own."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for number in range(frames):
            header = struct.pack(">BBHII", 0x80, 0x80 | payload_type, number, number * 3000, 1)
            sender.sendto(header + VIDEO_FRAME, ("127.0.0.1", port))


def check_only_audio(s, uuid: str) -> dict:
    """Ends the call and checks its stream; returns the host's event about the end."""
    stream = s.end(uuid)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, READ, s.far, 0.3)
    check({packet.size for packet in stream.data(READ)} == {370}, "other frames than of audio")
    return s.host.events.wait_for("CHANNEL_HANGUP_COMPLETE", uuid)


@scenario
def a_call_with_video_is_tapped_as_one_without(s):
    uuid = s.host.originate("{absolute_codec_string=^^:PCMU:VP8:H264}"
                            f"{s.sip_address('far')} tap XML scenarios")
    if s.host.variable(uuid, "video_media_flow") != "sendrecv":
        raise Skipped("the host has no video codec")
    port = int(s.host.variable(uuid, "local_video_port"))
    payload_type = int(s.host.variable(uuid, "rtp_use_video_pt") or 0)
    s.hear(uuid, 0.7)
    send_video(port, payload_type, 50)
    s.hear(uuid, 0.7)
    end = check_only_audio(s, uuid)
    check(int(end["variable_rtp_video_in_packet_count"]) > 0, "no video was received")


@scenario
def a_call_with_text_is_tapped_as_one_without(s):
    uuid = s.host.originate(f"{{absolute_codec_string=PCMU,rtp_enable_text=true}}"
                            f"{s.sip_address('far')} tap XML scenarios")
    check(s.host.variable(uuid, "text_possible") == "true", "the call has no text")
    for number in range(10):
        s.host.api(f"uuid_send_text {uuid} line {number}")
        s.hear(uuid, 0.1)
    check_only_audio(s, uuid)
