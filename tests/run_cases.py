#!/usr/bin/env python3
"""Runs a GoogleTest program and reports each of its cases.

All cases run in one process, one after the other. A case that ends the process, or does not end
in time, has failed; the cases after it run in a new process. The output of a case is shown only
if it failed, followed by the command that runs just this case again.

    run_cases.py [--results FILE] [--timeout SECONDS] PROGRAM

It runs once for each test program, so it imports only what starts fast.

--results writes an object for each case: name, status (passed, failed or skipped), seconds,
text, command. Exits with 1 if a case failed.
"""
import argparse
import json
import os
import re
import selectors
import shlex
import signal
import subprocess
import sys
import time

# GoogleTest's line at the start and the end of a case. Other output may precede it on the line.
MARK = re.compile(r"\[ +(RUN|OK|FAILED|SKIPPED) +\] ([^\s,]+)(?:,.*)?(?: \(\d+ ms\))?$")
STATUS = {"OK": "passed", "FAILED": "failed", "SKIPPED": "skipped"}
AT_END = "after the last case"


def list_cases(program):
    """The cases of the program, as GoogleTest names them in a filter."""
    listing = subprocess.run([program, "--gtest_list_tests"], capture_output=True, text=True,
                             timeout=60, check=True).stdout
    cases, suite = [], ""
    for line in listing.splitlines():
        name = line.split("#")[0].rstrip()
        if line.startswith("  "):
            cases.append(suite + name.strip())
        elif name.endswith("."):
            suite = name
    return [case for case in cases if not re.search(r"(^|[./])DISABLED_", case)]


class Case:
    def __init__(self, program, name):
        self.name = name
        self.status = None
        self.lines = []
        self.began = time.monotonic()
        self.seconds = 0.0
        self.command = rerun_command(program, name)

    def end(self, status, line=None):
        self.status = status
        self.seconds = time.monotonic() - self.began
        if line:
            self.lines.append(line)

    def as_object(self):
        return {"name": self.name, "status": self.status, "seconds": round(self.seconds, 3),
                "text": "\n".join(self.lines), "command": self.command}


def rerun_command(program, name):
    """The command for this case alone, from the source folder if the program is below it."""
    source = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
    path = os.path.relpath(program, source)
    path = program if path.startswith("..") else path
    return path if name == AT_END else f"{path} --gtest_filter={shlex.quote(name)}"


class Run:
    """One process that runs cases in their order."""

    def __init__(self, program, cases, timeout):
        self.program = program
        self.timeout = timeout
        self.left = list(cases)
        self.done = []
        self.current = None
        self.outside = []  # The output before, between and after the cases.

    def execute(self):
        """Returns when the process has ended; self.left has the cases that it did not reach."""
        # In a file, because they may be longer than an argument can be.
        with open(os.memfd_create("flags"), "w", encoding="utf-8") as flags:
            flags.write("--gtest_filter=" + ":".join(self.left) + "\n--gtest_color=no\n")
            flags.flush()
            process = subprocess.Popen(
                [self.program, f"--gtest_flagfile=/proc/{os.getpid()}/fd/{flags.fileno()}"],
                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                start_new_session=True)
            in_time = self.read(process)
            if not in_time:
                os.killpg(process.pid, signal.SIGKILL)
            status = process.wait()
            process.stdout.close()
        if self.current and in_time:
            self.finish("failed", f"The case ended the program: {describe(status)}.")
        elif self.current:
            self.finish("failed", f"The case did not end within {self.timeout} s.")
        elif status != any(case.status == "failed" for case in self.done):
            case = Case(self.program, AT_END)
            case.lines = self.outside[-60:]
            case.end("failed", f"The program ended with {describe(status)}.")
            self.done.append(case)
            if not in_time:
                self.left = []

    def read(self, process):
        """Reads the output; returns False if no next case is reported for too long."""
        rest = b""
        with selectors.DefaultSelector() as selector:
            selector.register(process.stdout, selectors.EVENT_READ)
            deadline = time.monotonic() + self.timeout
            while True:
                wait = deadline - time.monotonic()
                if wait <= 0 or not selector.select(wait):
                    return False
                data = os.read(process.stdout.fileno(), 65536)
                if not data:
                    break
                *lines, rest = (rest + data).split(b"\n")
                for line in lines:
                    if self.take(line.decode("utf-8", "replace")):
                        deadline = time.monotonic() + self.timeout
        if rest:
            self.take(rest.decode("utf-8", "replace"))
        return True

    def take(self, line):
        """Handles a line of output; returns True if it begins or ends a case."""
        mark = MARK.search(line)
        word, name = mark.groups() if mark else (None, None)
        if word == "RUN" and name in self.left:
            self.left.remove(name)
            self.current = Case(self.program, name)
            return True
        if self.current and name == self.current.name and word in STATUS:
            self.finish(STATUS[word], line[:mark.start()] or None)
            return True
        (self.current.lines if self.current else self.outside).append(line)
        return False

    def finish(self, status, line):
        self.current.end(status, line)
        self.done.append(self.current)
        self.current = None


def describe(status):
    if status >= 0:
        return f"exit code {status}"
    return f"signal {-status} ({signal.Signals(-status).name})"


def run_all(program, timeout):
    cases, left = [], list_cases(program)
    while left:
        run = Run(program, left, timeout)
        run.execute()
        if not run.done:
            case = Case(program, left[0])
            case.lines = run.outside
            case.end("failed", "The program did not begin the case.")
            run.done, run.left = [case], left[1:]
        cases += run.done
        # A process that ended by itself has started all of its cases, unless a case ended it.
        left = run.left
    return cases


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--results", metavar="FILE",
                        help="write the result of each case to this JSON file")
    parser.add_argument("--timeout", type=float, default=120, metavar="SECONDS",
                        help="longest time that a case may take (%(default)s)")
    parser.add_argument("program", help="the test program")
    options = parser.parse_args()

    # The results of an earlier run must not be mistaken for those of this one.
    if options.results and os.path.exists(options.results):
        os.remove(options.results)
    cases = run_all(os.path.realpath(options.program), options.timeout)
    if options.results:
        os.makedirs(os.path.dirname(os.path.realpath(options.results)), exist_ok=True)
        with open(options.results, "w", encoding="utf-8") as file:
            json.dump([case.as_object() for case in cases], file, indent=1)

    failed = [case for case in cases if case.status == "failed"]
    for case in failed:
        print("\n".join(case.lines))
        print(f"FAILED   {case.name}\n         {case.command}\n", flush=True)
    counts = {status: sum(case.status == status for case in cases)
              for status in STATUS.values()}
    print(", ".join(f"{count} {status}" for status, count in counts.items()))
    sys.exit(1 if failed or not cases else 0)


if __name__ == "__main__":
    main()
