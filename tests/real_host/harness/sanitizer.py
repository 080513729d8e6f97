"""A host that runs the module under a sanitizer of gcc.

Only the module is compiled for it: the host and its other modules stay as they are installed.
The sanitizer's library is loaded before the host's, so it also sees the host's allocations,
locks and threads.
"""

import pathlib
import subprocess
from dataclasses import dataclass

# For each kind: the argument of -fsanitize=, the library that must be loaded first, the options of
# the sanitizer, and the options of the host's command line.
KINDS = {
    # The host does not free much of its memory at its end, so leaks are not detected. The host's
    # memory is also checked where the C library compares or copies it.
    "address": ("address,undefined", "libasan.so", ("detect_leaks=0",), ()),
    # With real-time priority the host's threads would starve the sanitizer's own, hence -lp. The
    # deadlock detector has room for fewer locks than the host takes, and would end the process.
    # Code that is not compiled for the sanitizer is not checked.
    "thread": ("thread", "libtsan.so", ("detect_deadlocks=0", "ignore_noninstrumented_modules=1"),
               ("-lp",)),
}


@dataclass(frozen=True)
class Sanitizer:
    name: str

    @property
    def compiled_with(self) -> str:
        return KINDS[self.name][0]

    @property
    def host_options(self) -> list:
        return list(KINDS[self.name][3])

    def command_prefix(self, folder: pathlib.Path) -> list:
        """The words before the host's program on its command line. Reports go to `folder`."""
        options = ":".join((f"log_path={folder / 'sanitizer'}", "print_stacktrace=1",
                            *KINDS[self.name][2]))
        first = f"{library(KINDS[self.name][1])}:{early_lookup(folder)}"
        return ["env", f"LD_PRELOAD={first}", f"ASAN_OPTIONS={options}",
                f"UBSAN_OPTIONS={options}", f"TSAN_OPTIONS={options}"]


def library(name: str) -> str:
    found = subprocess.run(["g++", f"-print-file-name={name}"], capture_output=True, text=True,
                           check=True).stdout.strip()
    if not pathlib.Path(found).is_absolute():
        raise FileNotFoundError(f"g++ has no {name}")
    return str(pathlib.Path(found).resolve())


def early_lookup(folder: pathlib.Path) -> pathlib.Path:
    """Builds early_lookup.c, which explains its purpose."""
    built = folder / "early_lookup.so"
    source = pathlib.Path(__file__).with_name("early_lookup.c")
    subprocess.run(["g++", "-x", "c", "-shared", "-fPIC", "-o", str(built), str(source)],
                   check=True)
    return built


class Reports:
    """The reports that hosts below a folder have written; each is returned once."""

    def __init__(self, folder: pathlib.Path):
        self._folder = folder
        self._told = {}

    def take_new(self) -> str:
        """The summaries of the reports since the last call; empty if there were none."""
        summaries = []
        for path in sorted(self._folder.glob("*/sanitizer.*")):
            text = path.read_text(errors="replace")
            new = text[self._told.get(path, 0):]
            self._told[path] = len(text)
            lines = [line.strip() for line in new.splitlines()]
            found = [line for line in lines if line.startswith("SUMMARY:")]
            found = found or [line for line in lines if "runtime error:" in line]
            if new.strip():
                summaries.append(f"{found[0] if found else lines[0]} ({path})")
        return "; ".join(summaries)
