"""Samples the resources of a process during a soak test, for scripts/soak.sh.

Runs the command, which loads MODULE, and exits with its status. Each line of FILE has seconds,
resident KiB, descriptors, threads, and calls in the module's registry. The size of the registry
is read from the memory of the running process; MODULE needs debug information (-g) for that.
"""

import argparse
import pathlib
import re
import subprocess
import sys
import time

PERIOD_S = 2
REGISTRY_SIZE = ("(unsigned long)&'qv::freeswitch::(anonymous namespace)::global'"
                 ".contexts._M_h._M_element_count")


def address_in_file(module: pathlib.Path) -> int:
    """The offset of the registry's size from the beginning of the module."""
    answer = subprocess.run(["gdb", "-batch", "-nx", "-ex", f"output/x {REGISTRY_SIZE}", module],
                            capture_output=True, text=True, check=True)
    if not re.fullmatch("0x[0-9a-f]+", answer.stdout):
        sys.exit(f"soak: gdb finds no registry in {module}: {answer.stderr.strip()}")
    return int(answer.stdout, 16)


class Samples:
    """Writes samples of one process to a file. `module` is the module file that it loads."""

    def __init__(self, path: pathlib.Path, pid: int, module: pathlib.Path):
        self._module = module
        self._process = pathlib.Path(f"/proc/{pid}")
        self._size_address = address_in_file(module)
        self._begin = time.monotonic()
        self._file = path.open("w")

    def close(self) -> None:
        self._file.close()

    def take(self) -> bool:
        """Writes one line. If the module is not loaded, writes nothing and returns False."""
        status = (self._process / "status").read_text()
        if (registered := self.registered()) is None or "VmRSS" not in status:
            return False
        resident = re.search(r"VmRSS:\s+(\d+)", status).group(1)
        threads = re.search(r"Threads:\s+(\d+)", status).group(1)
        descriptors = len(list((self._process / "fd").iterdir()))
        seconds = time.monotonic() - self._begin
        print(f"{seconds:.0f}", resident, descriptors, threads, registered,
              file=self._file, flush=True)
        return True

    def registered(self):
        """The number of calls in the module's registry; None if the module is not loaded."""
        for line in (self._process / "maps").read_text().splitlines():
            columns = line.split()
            if columns[2] == "00000000" and columns[-1].endswith("/" + self._module.name):
                base = int(columns[0].split("-")[0], 16)
                with (self._process / "mem").open("rb", buffering=0) as memory:
                    memory.seek(base + self._size_address)
                    return int.from_bytes(memory.read(8), "little")
        return None


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("file", metavar="FILE", type=pathlib.Path)
    parser.add_argument("module", metavar="MODULE", type=pathlib.Path)
    parser.add_argument("command", metavar="COMMAND", nargs=argparse.REMAINDER)
    arguments = parser.parse_args()
    command = subprocess.Popen(arguments.command)
    samples = Samples(arguments.file, command.pid, arguments.module)
    try:
        while command.poll() is None:
            try:
                samples.take()
            except (FileNotFoundError, ProcessLookupError):
                pass  # The process has just ended.
            try:
                command.wait(PERIOD_S)
            except subprocess.TimeoutExpired:
                pass
    finally:
        command.terminate()
        samples.close()
    sys.exit(command.wait())


if __name__ == "__main__":
    main()
