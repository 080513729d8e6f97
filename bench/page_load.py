#!/usr/bin/env python3
"""Measures what the page costs the receiver: the processor time per packet under the calls of
node_load, without --http and with it, in turn. With --http, pages are open for every second part of
the run, because two parts of one run differ less than two runs. Each page watches 100 calls and has
one open; one page listens. The receiver has one core, the sender another. The beginning and the end
of the calls are not counted.

  bench/page_load.py [--build FOLDER] [--calls 1000] [--rounds 3] [--parts 8] [--pages 3]
"""
import argparse
import contextlib
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import threading
import time

PACKETS_PER_SECOND = 100  # Of a call.
BEGINNING, PART, SETTLING = 5, 3, 0.5  # Seconds.
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


def price(arguments, node):
    """The time per packet of the thread and of the program, in us, during one part of a run. The
    page's threads may end meanwhile; the time of those is not counted."""
    time.sleep(SETTLING)
    begin, begun = times(node), time.monotonic()
    time.sleep(PART - 2 * SETTLING)
    end, ended = times(node), time.monotonic()
    packets = arguments.calls * PACKETS_PER_SECOND * (ended - begun)
    return [(after - before) / packets / 1000 for before, after in zip(begin, end)]


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
            with contextlib.suppress(TimeoutError):
                received[number] += len(page.socket.recv(1 << 20))


@contextlib.contextmanager
def open_pages(arguments, port):
    """Yields what the pages have got, in bytes."""
    over, received = threading.Event(), [0] * arguments.pages
    threads = [threading.Thread(target=look, args=(port, number, over, received))
               for number in range(arguments.pages)]
    for thread in threads:
        thread.start()
    try:
        yield received
    finally:
        over.set()
        for thread in threads:
            thread.join()


def run(arguments, with_pages):
    """Returns the prices of the parts without and of those with open pages."""
    build, parts = arguments.build, arguments.parts
    seconds = BEGINNING + parts * (PART + 0.5) + 2
    with tempfile.TemporaryDirectory(dir="/dev/shm") as home:
        log = pathlib.Path(home, "log")
        options = ["--http", "0"] if with_pages else []
        with open(log, "w", encoding="utf-8") as out:
            node = subprocess.Popen(
                ["taskset", "-c", "0", build / "quorvane-node", "--listen", "127.0.0.1:0",
                 "--output", home + "/wav", "--quiet", "--calls", str(arguments.calls),
                 "--idle-exit", "30", *options], stdout=out, stderr=subprocess.STDOUT)
        while "writing to" not in log.read_text() or (options and "page" not in log.read_text()):
            time.sleep(0.05)
        port = re.search(r"listening on (\S+)", log.read_text())[1]
        sender = subprocess.Popen(
            ["taskset", "-c", "1", build / "bench" / "node_load", "send", port,
             str(arguments.calls), str(round(seconds))], stdout=subprocess.DEVNULL)
        time.sleep(BEGINNING)
        closed, opened = [], []
        for part in range(parts):
            if with_pages and part % 2 == 1:
                page_port = int(re.search(r"page +http://[\d.]+:(\d+)", log.read_text())[1])
                with open_pages(arguments, page_port) as received:
                    opened.append(price(arguments, node))
                if min(received) == 0:
                    sys.exit("a page got nothing")
            else:
                closed.append(price(arguments, node))
        if sender.poll() is not None:
            sys.exit("the calls ended too early")
        sender.wait()
        node.wait(60)
        if "receive buffer full" in log.read_text():
            sys.exit("the socket dropped packets")
        subprocess.run([build / "bench" / "node_load", "check", home + "/wav",
                        str(arguments.calls)], check=True, stdout=subprocess.DEVNULL)
    return closed, opened


def medians(prices):
    return [statistics.median(values) for values in zip(*prices)]


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "release")
    parser.add_argument("--calls", type=int, default=1000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--parts", type=int, default=8, help=f"of {PART} s each, in a run")
    parser.add_argument("--pages", type=int, default=3)
    arguments = parser.parse_args()
    without, closed, opened = [], [], []
    for _ in range(arguments.rounds):
        runs = run(arguments, False)[0], *run(arguments, True)
        for prices, into, kind in zip(runs, (without, closed, opened),
                                      ("without --http", "no page open", "pages open")):
            into += prices
            print(f"{kind:14} us of the thread: "
                  + " ".join(f"{thread:.3f}" for thread, _ in prices), flush=True)
    first = medians(without)
    print(f"without --http: {first[0]:.3f} us of the thread, {first[1]:.3f} us of the program "
          "(medians)")
    for kind, prices in ("no page open", closed), ("pages open", opened):
        thread, program = medians(prices)
        print(f"{kind}: thread {thread:.3f} us ({100 * (thread / first[0] - 1):+.1f} %), program "
              f"{program:.3f} us ({100 * (program / first[1] - 1):+.1f} %)")
    pairs = [100 * (after[0] / before[0] - 1) for before, after in zip(closed, opened)]
    print("thread, pages open against no page open just before: "
          + " ".join(f"{pair:+.1f}" for pair in pairs)
          + f" %, median {statistics.median(pairs):+.1f} %")


if __name__ == "__main__":
    main()
