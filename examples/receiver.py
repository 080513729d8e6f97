#!/usr/bin/env python3
"""A media node to start from: one WAV file a side of each call, one JSON line an event.

Needs Python 3.10 and nothing else; docs/protocol.md describes the packets and the rules. A call
is held in memory until it ends; quorvane-node is the receiver that one can leave running.
"""
import argparse, json, pathlib, select, signal, socket, struct, sys, time, uuid, wave

HEADER = ("<IBBHQ16sq", "magic packet_type protocol_version leg_word call_key call_uuid send_time")
TYPES = {0x81: "start", 0x82: "terminate", 0x83: "data", 0x84: "control"}
BODIES = {"start": ("<QQqQ4s2s2sH", "created_time configured_time configured_clock rule_id "
                    "report_node_address report_node_port features call_reference_length"),
          "data": ("<IIH", "sequence_number sample_offset sample_count"),
          "control": ("<2s", "features"), "terminate": ("<", "")}
FORMS = {  # How a field is shown, where it is not a plain number.
    "packet_type": TYPES.get, "call_key": "0x{:016x}".format, "rule_id": str,
    "call_uuid": lambda raw: str(uuid.UUID(bytes=raw)), "report_node_address": socket.inet_ntoa,
    "report_node_port": lambda raw: int.from_bytes(raw, "big"),
    "features": lambda raw: {"supported": raw[0], "active": raw[1]}}
LATE_TIME, IDLE_TIME = 1, 60  # Seconds that a call stays after its end, without packets.
LONGEST_GAP = 4800000  # Samples; an offset further ahead is not to be believed.

def refuse_if(is_bad, reason):
    if is_bad:
        raise ValueError(reason)

def take(packet, layout, datagram):
    """Takes the fields of a layout into the packet; returns the bytes behind them."""
    size = struct.calcsize(layout[0])
    refuse_if(len(datagram) < size, "too short for its packet type")
    for name, value in zip(layout[1].split(), struct.unpack_from(layout[0], datagram)):
        packet[name] = FORMS.get(name, int)(value)
    return datagram[size:]

def decode(datagram):
    """The fields of a packet under the names of docs/protocol.md; the audio stays bytes."""
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
    """The audio of one side of a call; every packet is put at its place."""
    def __init__(self, packet):
        self.audio, self.packets, self.missing = bytearray(), 0, set()
        self.number, self.offset = 1, 0  # Those of the packet to come next.
        if packet["sequence_number"] > 1000:  # The call is joined in its middle.
            self.number, self.offset = packet["sequence_number"], packet["sample_offset"]

    def add(self, packet, audio):
        """Takes a packet; returns the event of a gap before it or of its refusal, or None."""
        number = packet["sequence_number"]
        ahead = difference(number, self.number)
        gap = difference(packet["sample_offset"], self.offset)
        place = len(self.audio) + 2 * gap
        is_copy = ahead < 0 and number not in self.missing
        if is_copy or place < 0 or gap > LONGEST_GAP:
            return {"event": "dropped", "sequence_number": number}
        self.packets += 1
        self.audio.extend(bytes(max(0, place - len(self.audio))))
        self.audio[place:place + len(audio)] = audio
        if ahead < 0:
            return self.missing.remove(number)
        self.missing.update((self.number + i) % 2**32 for i in range(min(ahead, 10000)))
        self.number = (number + 1) % 2**32
        self.offset = (packet["sample_offset"] + packet["sample_count"]) % 2**32
        return {"event": "gap", "packets": ahead, "samples": gap} if ahead or gap else None

    def write(self, path, rate):
        while path.exists():  # An earlier tap on the same call.
            path = path.with_stem(path.stem + "-again")
        with wave.open(str(path), "wb") as file:
            file.setparams((1, 2, rate, 0, "NONE", ""))
            file.writeframes(self.audio)
        return {"file": path.name, "packets": self.packets, "samples": len(self.audio) // 2,
                "missing_packets": len(self.missing)}

def tell(event, **more):
    print(json.dumps({"event": event, **more}), flush=True)

def receive(datagram, calls, close):
    try:
        packet, rest = decode(datagram)
    except ValueError as reason:
        return tell("refused", reason=str(reason), length=len(datagram))
    key, kind, clock = packet["call_uuid"], packet["packet_type"], packet.get("configured_clock")
    if kind == "start" and key in calls and calls[key]["clock"] not in (None, clock):
        close(key)  # The channel is tapped a second time.
    call = calls.setdefault(key, {"sides": {}, "clock": None, "stays": IDLE_TIME})
    call["clock"] = clock or call["clock"]
    call["stays"] = LATE_TIME if kind == "terminate" else call["stays"]
    call["deadline"] = time.monotonic() + call["stays"]
    if kind != "data":
        return tell(kind, **packet)
    name = "terminator" if packet["leg_word"] & 0x0001 else "originator"
    event = call["sides"].setdefault(name, Side(packet)).add(packet, rest)
    return event and tell(call_uuid=key, side=name, **event)

def address_and_port(text):
    address, _, port = text.rpartition(":")
    if not port.isdecimal() or int(port) > 65535:
        raise argparse.ArgumentTypeError(f"'{text}' is no address and port")
    return address, int(port)

def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--listen", default="127.0.0.1:5090", type=address_and_port,
                        metavar="ADDRESS:PORT")
    parser.add_argument("--output", default=".", type=pathlib.Path, help="folder of the WAV files")
    parser.add_argument("--rate", default=8000, type=int, help="samples a second of the calls")
    parser.add_argument("--calls", default=-1, type=int, help="end after so many calls")
    options = parser.parse_args()
    try:
        options.output.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        sys.exit(f"cannot write to folder {options.output}: {error.strerror}")
    calls = {}

    def close(key):
        legs = {name: side.write(options.output / f"{key}-{name}.wav", options.rate)
                for name, side in calls.pop(key)["sides"].items()}
        options.calls -= 1
        tell("closed", call_uuid=key, legs=legs)

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
                for key in [k for k in calls if calls[k]["deadline"] < time.monotonic()]:
                    close(key)
        finally:
            for key in list(calls):
                close(key)

if __name__ == "__main__":
    main()
