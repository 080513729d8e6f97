"""Runs a program with a private folder at /etc/delmaren; the machine's own is not changed.

    private_etc.py FOLDER DELMAREN PROGRAM ARGUMENT...

Start it in a mount namespace of its own (`unshare --mount`). It makes a copy of /etc from links in
FOLDER, adds DELMAREN to it, and mounts it over the /etc of this namespace.
"""

import os
import pathlib
import subprocess
import sys


def bind(source: pathlib.Path, target: pathlib.Path) -> None:
    subprocess.run(["mount", "--bind", str(source), str(target)], check=True)


def link_entries(folder: pathlib.Path, etc: pathlib.Path) -> None:
    for entry in pathlib.Path("/etc").iterdir():
        if entry.name != "delmaren":
            target = os.readlink(entry) if entry.is_symlink() else folder / "host_etc" / entry.name
            os.symlink(target, etc / entry.name)


def main() -> None:
    folder, delmaren = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    etc, host_etc = folder / "etc", folder / "host_etc"
    etc.mkdir(parents=True)
    host_etc.mkdir()
    link_entries(folder, etc)
    os.symlink(delmaren, etc / "delmaren")
    bind(pathlib.Path("/etc"), host_etc)
    bind(etc, pathlib.Path("/etc"))
    os.execvp(sys.argv[3], sys.argv[3:])


main()
