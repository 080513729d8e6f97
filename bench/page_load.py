#!/usr/bin/env python3
"""Measures what the page costs the receiver: runs it under the calls of node_load without --http,
with it, and with pages open, in turn, and compares the processor time per packet. Each page watches
100 calls and has one open; one page listens. The receiver has one core, the sender another. The
time is taken while the calls go on, without their beginning and end.

  bench/page_load.py [--build FOLDER] [--calls 1000] [--seconds 10] [--rounds 3] [--pages 3]
                     [--short]
"""
import argparse
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import threading
import time

PACKETS_PER_SECOND = 100  # Of a call.
BEGINNING, END = 1.5, 0.5  # Seconds that are not counted.
ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "node"))
from web_client import Page  # pylint: disable=wrong-import-position


def cpu_ns(path):
    """The time that a thread has run."""
    return int(pathlib.Path(path, "schedstat").read_text().split()[0])


def times(process):
    """The processor time of the thread that receives, and of the whole program, in ns."""
    tasks = pathlib.Path(f"/proc/{process.pid}/task")
    return cpu_ns(tasks / str(process.pid)), sum(map(cpu_ns, tasks.iterdir()))


def look(port, number, over, received):
    with Page(port) as page:
        calls = page.wait_for(lambda message: isinstance(message, dict) and message.get("calls"))
        ids = [call["id"] for call in calls["calls"]][:100]
        page.send(type="watch", calls=ids)
        page.send(type="open", call=ids[number])
        if number == 0:
            page.send(type="listen", call=ids[0], sides="both")
        page.socket.settimeout(1)
        while not over.is_set():
            try:
                received[number] += len(page.socket.recv(1 << 20))
            except TimeoutError:
                pass


def run(arguments, kind):
    """Returns the time per packet of the thread and of the program, in us, and what the pages got
    in bytes per second."""
    build = arguments.build
    with tempfile.TemporaryDirectory(dir="/dev/shm") as home:
        log = pathlib.Path(home, "log")
        options = ["--http", "0"] if kind != "without" else []
        with open(log, "w", encoding="utf-8") as out:
            node = subprocess.Popen(
                ["taskset", "-c", "0", build / "quorvane-node", "--listen", "127.0.0.1:0",
                 "--output", home + "/wav", "--quiet", "--calls", str(arguments.calls),
                 "--idle-exit", "30", *options], stdout=out, stderr=subprocess.STDOUT)
        while "writing to" not in log.read_text() or (options and "page" not in log.read_text()):
            time.sleep(0.05)
        port = re.search(r"listening on (\S+)", log.read_text())[1]
        over, threads, received = threading.Event(), [], [0] * arguments.pages
        sender = subprocess.Popen(
            ["taskset", "-c", "1", build / "bench" / "node_load", "send", port,
             str(arguments.calls), str(arguments.seconds)], stdout=subprocess.DEVNULL)
        began = time.monotonic()
        if kind == "pages":
            page_port = int(re.search(r"page +http://[\d.]+:(\d+)", log.read_text())[1])
            time.sleep(0.3)
            threads = [threading.Thread(target=look, args=(page_port, number, over, received))
                       for number in range(arguments.pages)]
            for thread in threads:
                thread.start()
        time.sleep(began + BEGINNING - time.monotonic())
        first, first_at = times(node), time.monotonic()
        time.sleep(began + arguments.seconds - END - time.monotonic())
        last, last_at = times(node), time.monotonic()
        sender.wait()
        over.set()
        for thread in threads:
            thread.join()
        node.wait(60)
        if "receive buffer full" in log.read_text():
            sys.exit("the socket dropped packets")
        subprocess.run([build / "bench" / "node_load", "check", home + "/wav",
                        str(arguments.calls)], check=True, stdout=subprocess.DEVNULL)
    packets = arguments.calls * PACKETS_PER_SECOND * (last_at - first_at)
    return [(after - before) / packets / 1000 for before, after in zip(first, last)] + [
        sum(received) / arguments.seconds]


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "release")
    parser.add_argument("--calls", type=int, default=1000)
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--pages", type=int, default=3)
    parser.add_argument("--short", action="store_true", help="leave out a page that nobody opens")
    arguments = parser.parse_args()
    kinds = ["without", "pages"] if arguments.short else ["without", "served", "pages"]
    if arguments.seconds < 4:
        parser.error("--seconds: at least 4")
    results = {kind: [] for kind in kinds}
    for number in range(arguments.rounds):
        for kind in kinds[number % len(kinds):] + kinds[:number % len(kinds)]:
            results[kind].append(run(arguments, kind))
            thread, program, received = results[kind][-1]
            print(f"{kind:8} {thread:.3f} us of the thread, {program:.3f} us of the program, "
                  f"{received / 1e6:.2f} MB/s to pages", flush=True)
    first = [statistics.median(values) for values in zip(*results["without"])]
    for kind in kinds[1:]:
        medians = [statistics.median(values) for values in zip(*results[kind])]
        print(f"{kind}: thread {100 * (medians[0] / first[0] - 1):+.1f} %, program "
              f"{100 * (medians[1] / first[1] - 1):+.1f} % (medians)")


if __name__ == "__main__":
    main()
