#!/usr/bin/env python3
"""Prints the reports of quorvane-node --reports, one line per report.

Needs Python 3 and nothing else. A report is one UDP datagram with one JSON object; docs/node.md
lists the events and their fields. A call names this address as its report node:

    set quorvane_report_node=127.0.0.1:40100     in the dialplan
    quorvane-node --reports
"""
import argparse
import json
import socket
import sys


def place(report):
    return f"{report['position'] / report['sample_rate']:.3f} s of the {report['call_side']}"


def seconds(side):
    return f"{side['samples'] / (side['sample_rate'] or 8000):.1f} s"


def words(report):
    """What happened, in words."""
    kind = report["event"]
    if kind == "start":
        return f"begins, reference {report['call_reference']!r}"
    if kind == "activity":
        return f"activity {'begins' if report['active'] else 'ends'} at {place(report)}"
    if kind == "sample":
        return f"sample {report['sample']!r} at {place(report)}, score {report['score']:.2f}"
    if kind == "end":
        sides = report.get("sides", {})  # Left out where there is no room.
        heard = "".join(f", {name} {seconds(side)}" for name, side in sides.items())
        return f"ends: {report['reason']}{heard}"
    raise ValueError(f"unknown event {kind!r}")


def printable(text):
    """The text without characters that control a terminal: it came from the network."""
    return "".join(c if c.isprintable() else repr(c)[1:-1] for c in text)


def line_of(datagram, sender):
    try:
        report = json.loads(datagram)
        text = f"{report['time']}  {report['call_uuid']}  {words(report)}"
    except (ValueError, LookupError, TypeError, AttributeError, ArithmeticError,
            RecursionError) as error:
        text = f"not a report, from {sender}: {error or type(error).__name__}"
    return printable(text)


def address_and_port(text):
    address, _, port = text.rpartition(":")
    if not port.isdecimal() or int(port) > 65535:
        raise argparse.ArgumentTypeError(f"'{text}' is no address and port")
    return address, int(port)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--listen", default="127.0.0.1:40100", type=address_and_port,
                        metavar="ADDRESS:PORT", help="port 0 takes a free one")
    options = parser.parse_args()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        try:
            sock.bind(options.listen)
        except OSError as error:
            sys.exit("cannot listen on %s:%d: %s" % (*options.listen, error.strerror))
        print("listening on %s:%d" % sock.getsockname(), flush=True)
        while True:
            datagram, sender = sock.recvfrom(65536)
            print(line_of(datagram, "%s:%d" % sender), flush=True)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
