"""The project's own receiver, quorvane-node, at the other end."""

import socket
import subprocess
import wave

from harness.host_files import free_port
from harness.media_node import DATA
from harness.suite import Skipped, check, check_equal, scenario


class Receiver:
    """quorvane-node in a folder of its own; it ends by itself after one call."""

    def __init__(self, s):
        if s.node_program is None:
            raise Skipped("quorvane-node is not built")
        self.address = f"127.0.0.1:{free_port(socket.SOCK_DGRAM)}"
        self._folder = s.folder / "received"
        self._process = subprocess.Popen(
            [s.node_program, "--listen", self.address, "--output", self._folder, "--quiet",
             "--calls", "1", "--idle-exit", "20"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self._process.stdout.readline()  # It prints this line once it listens.

    def finish(self) -> None:
        try:
            check_equal(self._process.wait(30), 0, "exit status of quorvane-node")
        finally:
            self._process.kill()

    def sound(self, uuid: str, side: str) -> bytes:
        with wave.open(str(self._folder / f"{uuid}-{side}.wav"), "rb") as recording:
            check_equal((recording.getframerate(), recording.getnchannels()), (8000, 1), "format")
            return recording.readframes(recording.getnframes())


@scenario
def the_projects_receiver_writes_both_sides_to_the_bit(s):
    receiver = Receiver(s)
    mark = s.host.log_mark()
    uuid = s.tap(f"quorvane_media_node={receiver.address}")
    s.hear(uuid, 3)
    s.host.kill(uuid)
    receiver.finish()
    heard, said = receiver.sound(uuid, "terminator"), receiver.sound(uuid, "originator")
    check(f"INFO transfered {len(heard)}/{len(said)} bytes of media" in s.host.module_lines(mark),
          "the module counted other numbers of bytes")
    check(s.far.longest_match(heard) > 2 * 8000, "the read side is not what was played")
    check(s.near.longest_match(said) > 2 * 8000, "the write side is not what was played")
    check(not s.node.stream(uuid).of_kind(DATA), "packets at the module's own media node")
