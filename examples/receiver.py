#!/usr/bin/env python3
"""A media node to start from: a WAV file per side of each call, a JSON line per event.

Needs only Python 3.10. docs/protocol.md describes the packets and the rules. The events have the
names and fields of quorvane-node's, except `dropped`, which reports a data packet that is not used.
Each call is held in memory until it ends; for permanent use there is quorvane-node.
"""
import argparse, datetime, json, pathlib, select, signal, socket, struct, sys, time, uuid, wave

HEADER = ("<IBBHQ16sq", "magic packet_type protocol_version leg_word call_key call_uuid send_time")
TYPES = {0x81: "start", 0x82: "terminate", 0x83: "data", 0x84: "control"}
BODIES = {"start": ("<QQqQ4s2s2sH", "created_time configured_time configured_clock rule_id "
                    "report_node_address report_node_port features call_reference_length"),
          "data": ("<IIH", "sequence_number sample_offset sample_count"),
          "control": ("<2s", "features"), "terminate": ("<", "")}
FORMS = {  # How to show a field that is not a plain number.
    "packet_type": TYPES.get, "call_key": "0x{:016x}".format, "rule_id": str,
    "call_uuid": lambda raw: str(uuid.UUID(bytes=raw)), "report_node_address": socket.inet_ntoa,
    "report_node_port": lambda raw: int.from_bytes(raw, "big"),
    "features": lambda raw: {"supported": raw[0], "active": raw[1]}}
SIDES = ("originator", "terminator")
LATE_TIME, IDLE_TIME = 1, 60  # Seconds that a call is kept: after its end, without packets.
LONGEST_GAP = 4800000  # Samples; an offset further ahead is implausible.

def refuse_if(is_bad, reason):
    if is_bad:
        raise ValueError(reason)

def take(packet, layout, datagram):
    """Reads the fields of a layout into the packet; returns the bytes after them."""
    size = struct.calcsize(layout[0])
    refuse_if(len(datagram) < size, "too short for its packet type")
    for name, value in zip(layout[1].split(), struct.unpack_from(layout[0], datagram)):
        packet[name] = FORMS.get(name, int)(value)
    return datagram[size:]

def decode(datagram):
    """Returns the fields of a packet, named as in docs/protocol.md, and the audio as bytes."""
    packet = {}
    rest = take(packet, HEADER, datagram)
    refuse_if(packet["magic"] != 0x00FF00FF, "bad magic")
    refuse_if(packet["protocol_version"] != 1, "unknown protocol version")
    refuse_if(packet["packet_type"] is None, "unknown packet type")
    refuse_if(len(datagram) > 1376, "longer than any packet")
    rest = take(packet, BODIES[packet["packet_type"]], rest)
    samples = packet.get("sample_count", 0)
    refuse_if(samples > 661, "more samples than a packet can hold")
    refuse_if(len(rest) != packet.get("call_reference_length", 2 * samples),
              "length differs from what its fields say")
    if packet["packet_type"] == "start":
        refuse_if(not rest, "call reference of length zero")
        refuse_if(rest[-1] != 0, "call reference without its final zero")
        packet["call_reference"] = rest[:-1].decode("utf-8", "replace")
    return packet, rest

def difference(a, b):
    """a - b of two counters that wrap at 2^32."""
    return (a - b + 2**31) % 2**32 - 2**31

class Side:
    """The audio of one side of a call; each packet is put at its place."""
    def __init__(self, packet):
        self.leg = packet["leg_word"] >> 15
        self.audio, self.packets, self.missing = bytearray(), 0, set()
        self.number, self.offset = 1, 0  # Those of the next packet.
        if packet["sequence_number"] > 1000:  # The receiver joins a running call.
            self.number, self.offset = packet["sequence_number"], packet["sample_offset"]

    def add(self, packet, audio):
        """Adds a packet; returns the event for a gap before it or for its refusal, or None."""
        number = packet["sequence_number"]
        ahead = difference(number, self.number)
        gap = difference(packet["sample_offset"], self.offset)
        place = len(self.audio) + 2 * gap
        is_copy = ahead < 0 and number not in self.missing
        if is_copy or place < 0 or gap > LONGEST_GAP:
            fields = {name: packet[name] for name in BODIES["data"][1].split()}
            reason = "duplicate data packet" if is_copy else "implausible sample offset"
            return {"event": "dropped", **fields, "reason": reason}
        self.packets += 1
        self.audio.extend(bytes(max(0, place - len(self.audio))))
        self.audio[place:place + len(audio)] = audio
        if ahead < 0:
            return self.missing.remove(number)
        begin = {"sequence_number": self.number, "sample_offset": self.offset}
        self.missing.update((self.number + i) % 2**32 for i in range(min(ahead, 10000)))
        self.number = (number + 1) % 2**32
        self.offset = (packet["sample_offset"] + packet["sample_count"]) % 2**32
        lost = {"lost_packets": ahead, "missing_samples": gap}
        return {"event": "gap", **begin, **lost} if ahead or gap else None

    def write(self, path, rate):
        with path.open("wb") as raw, wave.open(raw, "wb") as file:
            file.setparams((1, 2, rate, 0, "NONE", ""))
            file.writeframes(self.audio)

    def summary(self, rate):
        return {"leg": self.leg, "sample_rate": rate, "packets": self.packets,
                "samples": len(self.audio) // 2, "lost_packets": len(self.missing)}

class Call:
    def __init__(self, packet):
        self.names = {name: packet[name] for name in ("call_key", "call_uuid")}
        self.clock, self.controls, self.sides = None, 0, {}
        self.reason, self.stays = "timed_out", IDLE_TIME  # The end if no further packet comes.

    def tell(self, event, **more):
        tell(event, **self.names, **more)

    def paths(self, folder):
        """The sides and their files; the files of a second tap on a call have a number."""
        number = 1
        while True:
            stem = self.names["call_uuid"] + (f"-{number}" if number > 1 else "")
            paths = {name: folder / f"{stem}-{name}.wav" for name in SIDES}
            if not any(path.exists() for path in paths.values()):
                return [(side, paths[name]) for name, side in self.sides.items()]
            number += 1

    def write(self, folder, rate):
        """Writes the files. One that cannot be written is reported; the program goes on."""
        files = []
        for side, path in self.paths(folder):
            files.append({"path": str(path), "error": ""})
            try:
                side.write(path, rate)
            except (OSError, struct.error) as error:  # struct.error: too long for a WAV file.
                files[-1]["error"] = getattr(error, "strerror", None) or str(error)
                self.tell("file_error", **files[-1])
        return files

    def end(self, reason, folder, rate):
        files = self.write(folder, rate)
        sides = {name: side.summary(rate) for name, side in self.sides.items()}
        self.tell("end", reason=reason, start_seen=self.clock is not None,
                  control_packets=self.controls, sides=sides, files=files)

def tell(event, **more):
    now = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%S.%fZ")
    print(json.dumps({"event": event, "time": now, **more}), flush=True)

def receive(datagram, calls, close):
    try:
        packet, rest = decode(datagram)
    except ValueError as reason:
        return tell("malformed", reason=str(reason), size=len(datagram))
    key, kind, clock = packet["call_uuid"], packet["packet_type"], packet.get("configured_clock")
    if kind == "start" and key in calls and calls[key].clock not in (None, clock):
        close(key, "replaced")  # The channel is tapped a second time.
    call = calls.setdefault(key, Call(packet))
    call.clock = call.clock if clock is None else clock
    call.controls += kind == "control"
    if kind == "terminate":
        call.reason, call.stays = "terminated", LATE_TIME
    call.deadline = time.monotonic() + call.stays
    if kind != "data":
        return tell(kind, **packet)
    name = SIDES[packet["leg_word"] & 0x0001]
    side = call.sides.setdefault(name, Side(packet))
    event = side.add(packet, rest)
    return event and call.tell(event.pop("event"), call_side=name, leg=side.leg, **event)

def address_and_port(text):
    address, _, port = text.rpartition(":")
    if not port.isdecimal() or int(port) > 65535:
        raise argparse.ArgumentTypeError(f"'{text}' is no address and port")
    return address, int(port)

def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--listen", default="127.0.0.1:5090", type=address_and_port,
                        metavar="ADDRESS:PORT", help="UDP address to receive on (%(default)s)")
    parser.add_argument("--output", default=".", type=pathlib.Path, help="folder of the WAV files")
    parser.add_argument("--rate", default=8000, type=int, help="sample rate (%(default)s)")
    parser.add_argument("--calls", default=-1, type=int, help="end after this number of calls")
    options = parser.parse_args()
    try:
        options.output.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        sys.exit(f"cannot write to folder {options.output}: {error.strerror}")
    calls = {}

    def close(key, reason):
        options.calls -= 1
        calls.pop(key).end(reason, options.output, options.rate)

    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: sys.exit())
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        try:
            sock.bind(options.listen)
        except OSError as error:
            sys.exit("cannot listen on %s:%d: %s" % (*options.listen, error.strerror))
        try:
            tell("listening", address="%s:%d" % sock.getsockname())
            while options.calls != 0:
                if select.select([sock], [], [], 0.2)[0]:
                    receive(sock.recv(65536), calls, close)
                for key in [k for k in calls if calls[k].deadline < time.monotonic()]:
                    close(key, calls[key].reason)
        finally:
            for key in list(calls):
                close(key, "shutdown")

if __name__ == "__main__":
    main()
