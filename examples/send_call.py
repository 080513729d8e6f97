#!/usr/bin/env python3
"""Sends a call to a media node without a switch: two tones, one per side, in real time.

Needs only Python 3. docs/protocol.md describes the packets.
"""

import argparse
import math
import socket
import struct
import sys
import time
import uuid

START, TERMINATE, DATA, CONTROL = 0x81, 0x82, 0x83, 0x84
READ_ORIGINATOR, WRITE_TERMINATOR = 0x0000, 0x8001  # An inbound call.
RULE_ID_GIVEN, CONTROL_LEG_WORD = 0x8000, 0x0080
RATE, FRAME = 8000, 160  # Samples per second, samples per frame of 20 ms.


def call_key(data):
    key = 0
    for byte in data:
        key ^= byte << 56
        for _ in range(8):
            key = (key << 1) ^ (0x142F0E1EBA9EA3693 if key >> 63 else 0)
    return key


def steady():
    return time.monotonic_ns() // 1000


def packet(kind, leg_word, call, body=b""):
    return struct.pack("<IBBHQ16sq", 0x00FF00FF, kind, 1, leg_word, call_key(call.bytes),
                       call.bytes, steady()) + body


def start(call, reference):
    now = time.time_ns() // 1000
    text = reference.encode() + b"\0"
    fixed = struct.pack("<QQqQ4s2s2BH", now, now, steady(), 1, bytes(4), bytes(2), 0xC0, 0xC0,
                        len(text))
    return packet(START, RULE_ID_GIVEN, call, fixed + text)


def tone(frequency, first):
    samples = [int(8000 * math.sin(2 * math.pi * frequency * (first + i) / RATE))
               for i in range(FRAME)]
    return struct.pack(f"<{FRAME}h", *samples)


def data(leg_word, call, index, frequency):
    fixed = struct.pack("<IIH", index + 1, index * FRAME, FRAME)
    return packet(DATA, leg_word, call, fixed + tone(frequency, index * FRAME))


def address_and_port(text):
    address, _, port = text.rpartition(":")
    if not port.isdecimal() or not 0 < int(port) < 65536:
        raise argparse.ArgumentTypeError(f"'{text}' is no address and port")
    return address, int(port)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--to", default="127.0.0.1:5090", type=address_and_port,
                        metavar="ADDRESS:PORT", help="media node to send to (%(default)s)")
    parser.add_argument("--seconds", default=2.0, type=float,
                        help="length of the call (%(default)s)")
    parser.add_argument("--lose", default=[], type=int, nargs="*", metavar="N",
                        help="leave out these sequence numbers of the read leg")
    options = parser.parse_args()
    try:
        print(send_call(options))
    except OSError as error:
        sys.exit("cannot send to %s:%d: %s" % (*options.to, error.strerror or error))


def send_call(options):
    call = uuid.uuid4()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.connect(options.to)
        sock.send(start(call, "send_call.py"))
        begin = time.monotonic()
        for index in range(int(options.seconds * RATE / FRAME)):
            time.sleep(max(0.0, begin + index * FRAME / RATE - time.monotonic()))
            if index + 1 not in options.lose:
                sock.send(data(READ_ORIGINATOR, call, index, 440))
            sock.send(data(WRITE_TERMINATOR, call, index, 660))
        sock.send(packet(CONTROL, CONTROL_LEG_WORD, call, bytes([0xC0, 0x00])))
        sock.send(packet(TERMINATE, 0, call))
    return call


if __name__ == "__main__":
    main()
