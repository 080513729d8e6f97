"""Calls by SIPp: a caller that sends a file as RTP and hangs up."""

import itertools
import pathlib
import shutil
import socket
import subprocess

from harness.host_files import free_port

SCENARIO = """<?xml version="1.0" encoding="UTF-8"?>
<scenario name="caller">
  <send retrans="500"><![CDATA[
INVITE sip:[service]@[remote_ip]:[remote_port] SIP/2.0
Via: SIP/2.0/[transport] [local_ip]:[local_port];branch=[branch]
From: <sip:caller@[local_ip]:[local_port]>;tag=[call_number]
To: <sip:[service]@[remote_ip]:[remote_port]>
Call-ID: [call_id]
CSeq: 1 INVITE
Contact: <sip:caller@[local_ip]:[local_port]>
Max-Forwards: 70
Content-Type: application/sdp
Content-Length: [len]

v=0
o=caller 1 1 IN IP4 [local_ip]
s=-
c=IN IP4 [media_ip]
t=0 0
m=audio [auto_media_port] RTP/AVP PAYLOAD
a=rtpmap:PAYLOAD CODEC
a=ptime:20
]]></send>
  <recv response="100" optional="true"/>
  <recv response="180" optional="true"/>
  <recv response="183" optional="true"/>
  <recv response="200" rrs="true"/>
  <send><![CDATA[
ACK [next_url] SIP/2.0
Via: SIP/2.0/[transport] [local_ip]:[local_port];branch=[branch]
From: <sip:caller@[local_ip]:[local_port]>;tag=[call_number]
To: <sip:[service]@[remote_ip]:[remote_port]>[peer_tag_param]
Call-ID: [call_id]
CSeq: 1 ACK
Max-Forwards: 70
Content-Length: 0

]]></send>
  <nop><action><exec rtp_stream="FILE,1,PAYLOAD"/></action></nop>
  <pause milliseconds="DURATION"/>
  <send retrans="500"><![CDATA[
BYE [next_url] SIP/2.0
Via: SIP/2.0/[transport] [local_ip]:[local_port];branch=[branch]
From: <sip:caller@[local_ip]:[local_port]>;tag=[call_number]
To: <sip:[service]@[remote_ip]:[remote_port]>[peer_tag_param]
Call-ID: [call_id]
CSeq: 2 BYE
Max-Forwards: 70
Content-Length: 0

]]></send>
  <recv response="200"/>
</scenario>
"""


def is_installed() -> bool:
    return shutil.which("sipp") is not None


# Below the range from which the system chooses ports for unbound sockets, and below the hosts'
# RTP ports. Two callers may run at the same time.
MEDIA_PORTS = itertools.cycle(range(16000, 20000, 200))


class Caller:
    """Runs SIPp until all its calls have ended."""

    def __init__(self, folder: pathlib.Path, payload: int, codec: str, media: pathlib.Path,
                 seconds: float):
        self._folder = folder
        self._scenario = folder / f"caller_{payload}.xml"
        self._scenario.write_text(
            SCENARIO.replace("PAYLOAD", str(payload)).replace("CODEC", codec)
            .replace("FILE", str(media)).replace("DURATION", str(int(seconds * 1000))))

    def call(self, extension: str, sip_port: int, calls: int = 1, call_id: str = "") -> None:
        """Places the calls, one every 100 ms; raises if one fails."""
        command = ["sipp", f"127.0.0.1:{sip_port}", "-sf", str(self._scenario), "-s", extension,
                   "-i", "127.0.0.1", "-mi", "127.0.0.1", "-p", str(free_port(socket.SOCK_DGRAM)),
                   "-mp", str(next(MEDIA_PORTS)), *(["-cid_str", call_id] if call_id else []),
                   "-m", str(calls), "-l", str(calls), "-r", "10", "-nostdin",
                   "-timeout", "60", "-timeout_error"]
        done = subprocess.run(command, cwd=self._folder, capture_output=True, text=True,
                              timeout=90, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"sipp ended with {done.returncode}: {done.stderr[-400:]}")
