"""Writes a capture file of UDP datagrams over IPv4, as a switch on the same machine sends them."""

import struct

LINKTYPE_IPV4 = 228
MICROSECONDS = 0xA1B2C3D4


def checksum(header):
    total = sum(struct.unpack(f">{len(header) // 2}H", header))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def ipv4_udp(payload, source_port, port):
    """A datagram from 127.0.0.1 to 127.0.0.1; its UDP checksum is 0, that is, not computed."""
    udp = struct.pack(">HHHH", source_port, port, 8 + len(payload), 0) + payload
    address = bytes([127, 0, 0, 1])
    fields = [0x45, 0, 20 + len(udp), 0, 0, 64, 17]
    head = struct.pack(">BBHHHBB", *fields)
    total = checksum(head + b"\0\0" + address + address)
    return head + struct.pack(">H", total) + address + address + udp


def write(path, datagrams, source_port=40000, port=5090, cut_to=None):
    """Writes (time in microseconds, payload) pairs as a pcap file.

    With `cut_to`, only as many bytes of each IP packet are kept, as a capture with a small
    snapshot length does.
    """
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", MICROSECONDS, 2, 4, 0, 0, 65535, LINKTYPE_IPV4))
        for time, payload in datagrams:
            frame = ipv4_udp(payload, source_port, port)
            kept = frame[:cut_to]
            times = time // 1000000, time % 1000000
            file.write(struct.pack("<IIII", *times, len(kept), len(frame)))
            file.write(kept)
