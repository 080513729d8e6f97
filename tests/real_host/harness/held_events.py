"""Holds up the delivery of the host's events, so that they arrive late."""

import contextlib
import pathlib
import subprocess

from harness.module_build import environment_for


def built(installation, folder: pathlib.Path) -> pathlib.Path:
    """Builds held_events.c, which explains how it works, for this installation."""
    module = folder / "held_events.so"
    if not module.exists():
        environment = environment_for(installation)
        flags = subprocess.run(["pkg-config", "--cflags", "freeswitch"], check=True,
                               capture_output=True, text=True, env=environment).stdout.split()
        source = pathlib.Path(__file__).with_name("held_events.c")
        subprocess.run(["gcc", "-shared", "-fPIC", *flags, "-o", str(module), str(source)],
                       check=True)
    return module


@contextlib.contextmanager
def held_events(s):
    """Events that are fired in this context arrive only after its end."""
    s.host.api(f"load {built(s.installation, s.folder)}")
    answer = s.host.api("held_events hold").strip()
    if answer != "+OK":
        raise RuntimeError(f"events cannot be held up: {answer}")
    try:
        yield
    finally:
        answer = s.host.api("held_events release").strip()
    if answer != "+OK":
        raise RuntimeError(f"events were not held up to the end: {answer}")
