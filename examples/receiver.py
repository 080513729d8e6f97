#!/usr/bin/env python3
"""A media node to start from: one WAV file a side of each call, one JSON line an event.

Needs Python 3.10 and nothing else; docs/protocol.md describes the packets and the rules. A call
is held in memory until it ends; quorvane-node is the receiver that one can leave running.
"""

import argparse
import json
import pathlib
import signal
import socket
import struct
import time
import uuid
import wave

TYPES = {0x81: "start", 0x82: "terminate", 0x83: "data", 0x84: "control"}
HEADER = "<IBBHQ16sq", ("magic", "packet_type", "protocol_version", "leg_word", "call_key",
                        "call_uuid", "send_time")
BODIES = {
    "start": ("<QQqQ4s2s2sH", ("created_time", "configured_time", "configured_clock", "rule_id",
                               "report_node_address", "report_node_port", "features",
                               "call_reference_length")),
    "data": ("<IIH", ("sequence_number", "sample_offset", "sample_count")),
    "control": ("<2s", ("features",)),
    "terminate": ("<", ()),
}
FORMS = {  # How a field is shown, where it is not a plain number.
    "packet_type": TYPES.get, "call_key": "0x{:016x}".format, "rule_id": str,
    "call_uuid": lambda raw: str(uuid.UUID(bytes=raw)), "report_node_address": socket.inet_ntoa,
    "report_node_port": lambda raw: int.from_bytes(raw, "big"),
    "features": lambda raw: {"supported": raw[0], "active": raw[1]},
}
LATE_TIME, IDLE_TIME = 1, 60  # Seconds that a call stays open after its end, without packets.
LONGEST_GAP = 600  # Seconds; a sample offset further ahead is not to be believed.


class Malformed(Exception):
    """A datagram that is not a packet; the text says why."""


def take(packet, layout, datagram):
    """Takes the fields of a layout into the packet; returns the bytes behind them."""
    size = struct.calcsize(layout[0])
    if len(datagram) < size:
        raise Malformed("too short for its packet type")
    for name, value in zip(layout[1], struct.unpack_from(layout[0], datagram)):
        packet[name] = FORMS[name](value) if name in FORMS else value
    return datagram[size:]


def decode(datagram):
    """The fields of a packet under the names of docs/protocol.md; the audio stays bytes."""
    packet = {}
    rest = take(packet, HEADER, datagram)
    for is_bad, reason in ((packet["magic"] != 0x00FF00FF, "bad magic"),
                           (packet["protocol_version"] != 1, "unknown protocol version"),
                           (packet["packet_type"] is None, "unknown packet type"),
                           (len(datagram) > 1376, "longer than any packet")):
        if is_bad:
            raise Malformed(reason)
    rest = take(packet, BODIES[packet["packet_type"]], rest)
    if packet.get("sample_count", 0) > 661:
        raise Malformed("more samples than a packet can hold")
    if len(rest) != packet.get("call_reference_length", 2 * packet.get("sample_count", 0)):
        raise Malformed("length differs from what its fields say")
    if packet["packet_type"] == "start":
        if rest[-1:] != b"\0":
            raise Malformed("call reference " + (
                "without its final zero" if rest else "of length zero"))
        packet["call_reference"] = rest[:-1].decode("utf-8", "replace")
    elif packet["packet_type"] == "data":
        packet["audio"] = rest
    return packet


def difference(a, b):
    """a - b of two counters that wrap at 2^32."""
    return (a - b + 2**31) % 2**32 - 2**31


class Leg:
    """The audio of one side of a call; every packet is put at its place."""

    def __init__(self, packet):
        self.audio, self.packets, self.missing = bytearray(), 0, set()
        self.number, self.offset = 1, 0  # Those of the packet to come next.
        if packet["sequence_number"] > 1000:  # The call is joined in its middle.
            self.number, self.offset = packet["sequence_number"], packet["sample_offset"]

    def add(self, packet, rate):
        """Takes a packet; returns the event of a gap before it or of its refusal, or None."""
        ahead = difference(packet["sequence_number"], self.number)
        gap = difference(packet["sample_offset"], self.offset)
        place = len(self.audio) + 2 * gap
        is_copy = ahead < 0 and packet["sequence_number"] not in self.missing
        if is_copy or place < 0 or gap > LONGEST_GAP * rate:
            return {"event": "dropped", "sequence_number": packet["sequence_number"]}
        self.packets += 1
        self.audio.extend(bytes(max(0, place - len(self.audio))))
        self.audio[place:place + len(packet["audio"])] = packet["audio"]
        if ahead < 0:
            self.missing.remove(packet["sequence_number"])
            return None
        self.missing.update((self.number + i) % 2**32 for i in range(min(ahead, 10000)))
        self.number = (packet["sequence_number"] + 1) % 2**32
        self.offset = (packet["sample_offset"] + packet["sample_count"]) % 2**32
        return {"event": "gap", "packets": ahead, "samples": gap} if ahead or gap else None

    def write(self, folder, stem, rate):
        path = folder / f"{stem}.wav"
        while path.exists():  # An earlier tap on the same call.
            path = path.with_stem(path.stem + "-again")
        with wave.open(str(path), "wb") as file:
            file.setparams((1, 2, rate, 0, "NONE", ""))
            file.writeframes(self.audio)
        return {"file": path.name, "packets": self.packets, "samples": len(self.audio) // 2,
                "missing_packets": len(self.missing)}


class Receiver:
    def __init__(self, folder, rate):
        self.folder, self.rate, self.calls, self.closed = folder, rate, {}, 0

    def tell(self, event, **more):
        print(json.dumps({"event": event, **more}), flush=True)

    def close(self, key):
        legs = {side: leg.write(self.folder, f"{key}-{side}", self.rate)
                for side, leg in self.calls.pop(key)["legs"].items()}
        self.closed += 1
        self.tell("closed", call_uuid=key, legs=legs)

    def close_due(self):
        now = time.monotonic()
        for key in [key for key, call in self.calls.items() if call["deadline"] < now]:
            self.close(key)

    def receive(self, datagram):
        try:
            packet = decode(datagram)
        except Malformed as reason:
            return self.tell("refused", reason=str(reason), length=len(datagram))
        key, kind = packet["call_uuid"], packet["packet_type"]
        clock = packet.get("configured_clock")
        if kind == "start" and self.calls.get(key, {}).get("clock") not in (None, clock):
            self.close(key)  # The channel is tapped a second time.
        call = self.calls.setdefault(key, {"legs": {}, "clock": None, "over": False})
        call["clock"] = clock or call["clock"]
        call["over"] = call["over"] or kind == "terminate"
        call["deadline"] = time.monotonic() + (LATE_TIME if call["over"] else IDLE_TIME)
        if kind != "data":
            return self.tell(kind, **packet)
        side = "terminator" if packet["leg_word"] & 0x0001 else "originator"
        event = call["legs"].setdefault(side, Leg(packet)).add(packet, self.rate)
        return event and self.tell(call_uuid=key, side=side, **event)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--listen", default="127.0.0.1:5090", metavar="ADDRESS:PORT")
    parser.add_argument("--output", default=".", type=pathlib.Path, help="folder of the WAV files")
    parser.add_argument("--rate", default=8000, type=int, help="samples a second of the calls")
    parser.add_argument("--calls", default=0, type=int, help="end after so many calls")
    options = parser.parse_args()
    options.output.mkdir(parents=True, exist_ok=True)
    receiver = Receiver(options.output, options.rate)
    signal.signal(signal.SIGTERM, signal.default_int_handler)  # Ends like Ctrl-C.
    address, _, port = options.listen.rpartition(":")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        sock.bind((address, int(port)))
        sock.settimeout(0.2)
        try:
            receiver.tell("listening", address="%s:%d" % sock.getsockname())
            while not options.calls or receiver.closed < options.calls:
                try:
                    receiver.receive(sock.recv(65536))
                except TimeoutError:
                    pass
                receiver.close_due()
        except KeyboardInterrupt:
            pass
        for key in list(receiver.calls):
            receiver.close(key)


if __name__ == "__main__":
    main()
