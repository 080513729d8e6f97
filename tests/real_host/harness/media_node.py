"""A media node for tests, which receives and decodes datagrams.

The decoder is written from the protocol document alone and shares no code with the module.
"""

import socket
import struct
import threading
import time
from collections import defaultdict
from dataclasses import dataclass, field

START, TERMINATE, DATA, CONTROL = 0x81, 0x82, 0x83, 0x84
READ, WRITE = 0, 1
CRC64_POLYNOMIAL = 0x42F0E1EBA9EA3693


def call_key_of(uuid: str) -> int:
    """CRC-64/ECMA-182 of the UUID's 16 bytes, bit by bit."""
    crc = 0
    for byte in bytes.fromhex(uuid.replace("-", "")):
        crc ^= byte << 56
        for _ in range(8):
            crc = (crc << 1) ^ (CRC64_POLYNOMIAL if crc >> 63 else 0)
            crc &= 0xFFFFFFFFFFFFFFFF
    return crc


def uuid_text(raw: bytes) -> str:
    digits = raw.hex()
    return "-".join((digits[:8], digits[8:12], digits[12:16], digits[16:20], digits[20:]))


@dataclass(frozen=True)
class Packet:
    """One datagram; `fields` has the fields that its kind adds to the common header."""

    kind: int
    word: int
    key: int
    uuid: str
    sent_us: int
    fields: dict
    size: int
    arrival: float


class Malformed(Exception):
    """The datagram does not conform to the protocol."""


def decode_start(datagram: bytes) -> dict:
    created, configured, configured_steady, rule_id = struct.unpack_from("<QQqQ", datagram, 40)
    address, port = struct.unpack_from(">4sH", datagram, 72)
    supported, active, length = struct.unpack_from("<BBH", datagram, 78)
    reference = datagram[82:]
    if length != len(reference) or not reference.endswith(b"\0"):
        raise Malformed(f"start packet: payload length {length}, {len(reference)} bytes present")
    return {"created": created, "configured": configured, "configured_steady": configured_steady,
            "rule_id": rule_id, "report_node": f"{socket.inet_ntoa(address)}:{port}",
            "supported": supported, "active": active, "reference": reference[:-1].decode()}


def decode_data(datagram: bytes) -> dict:
    sequence, offset, count = struct.unpack_from("<IIH", datagram, 40)
    audio = datagram[50:]
    if len(audio) != 2 * count:
        raise Malformed(f"data packet: {count} samples announced, {len(audio)} bytes present")
    return {"sequence": sequence, "offset": offset, "audio": audio}


def decode_control(datagram: bytes) -> dict:
    if len(datagram) != 42:
        raise Malformed(f"control packet of {len(datagram)} bytes")
    return {"supported": datagram[40], "active": datagram[41]}


def decode_terminate(datagram: bytes) -> dict:
    if len(datagram) != 40:
        raise Malformed(f"terminate packet of {len(datagram)} bytes")
    return {}


DECODERS = {START: decode_start, DATA: decode_data, CONTROL: decode_control,
            TERMINATE: decode_terminate}


def decode(datagram: bytes, arrival: float = 0.0) -> Packet:
    if len(datagram) < 40 or datagram[:4] != b"\xff\x00\xff\x00" or datagram[5] != 1:
        raise Malformed(f"no header of version 1: {datagram[:8].hex()}")
    kind, _, word, key = struct.unpack_from("<BBHQ", datagram, 4)
    if kind not in DECODERS:
        raise Malformed(f"packet type {kind:#x}")
    return Packet(kind, word, key, uuid_text(datagram[16:32]),
                  struct.unpack_from("<q", datagram, 32)[0], DECODERS[kind](datagram),
                  len(datagram), arrival)


@dataclass
class Stream:
    """The received packets of one call, in the order of arrival."""

    packets: list = field(default_factory=list)

    def of_kind(self, kind: int) -> list:
        return [packet for packet in self.packets if packet.kind == kind]

    def data(self, leg: int) -> list:
        return [packet for packet in self.of_kind(DATA) if packet.word >> 15 == leg]

    def audio(self, leg: int) -> bytes:
        return b"".join(packet.fields["audio"] for packet in self.data(leg))

    @property
    def start(self) -> Packet:
        return self.of_kind(START)[0]

    def gaps(self, leg: int) -> list:
        """The places where sequence numbers or sample offsets do not continue; empty if none."""
        found, offset = [], 0
        for position, packet in enumerate(self.data(leg), start=1):
            at = (packet.fields["sequence"], packet.fields["offset"])
            if at != (position, offset):
                found.append(f"expected {(position, offset)}, got {at}")
            offset += len(packet.fields["audio"]) // 2
        return found


class MediaNode:
    """Receives on a loopback port until closed; chooses a free port if none is given."""

    def __init__(self, port: int = 0):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self._socket.bind(("127.0.0.1", port))
        self._socket.settimeout(0.2)
        self.port = self._socket.getsockname()[1]
        self.sources = set()
        self.malformed = []
        self._streams = defaultdict(Stream)
        self._changed = threading.Condition()
        self._closing = False
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    @property
    def address(self) -> str:
        return f"127.0.0.1:{self.port}"

    def close(self) -> None:
        self._closing = True
        self._thread.join(5)
        self._socket.close()

    def stream(self, uuid: str) -> Stream:
        with self._changed:
            return Stream(list(self._streams[uuid].packets))

    def streams(self) -> dict:
        with self._changed:
            return {uuid: Stream(list(stream.packets)) for uuid, stream in self._streams.items()}

    def forget(self) -> None:
        with self._changed:
            self._streams.clear()

    def wait_until(self, condition, timeout: float = 10.0, what: str = "packets") -> None:
        """Waits until `condition()` holds; checks it after every datagram."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while not condition():
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError(f"the media node waited in vain for {what}")
                self._changed.wait(min(left, 0.5))

    def wait_for(self, uuid: str, kind: int, count: int = 1, timeout: float = 10.0) -> Stream:
        self.wait_until(lambda: len(self._streams[uuid].of_kind(kind)) >= count, timeout,
                        f"{count} packet(s) of type {kind:#x} of call {uuid}")
        return self.stream(uuid)

    def _run(self) -> None:
        while not self._closing:
            try:
                datagram, source = self._socket.recvfrom(4096)
            except socket.timeout:
                continue
            self._take(datagram, source)

    def _take(self, datagram: bytes, source) -> None:
        with self._changed:
            self.sources.add(source)
            try:
                packet = decode(datagram, time.time())
                self._streams[packet.uuid].packets.append(packet)
            except Malformed as fault:
                self.malformed.append(str(fault))
            self._changed.notify_all()
