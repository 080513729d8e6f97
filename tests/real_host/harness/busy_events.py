"""Keeps the host's thread that delivers events busy, so that events arrive late."""

import contextlib

SUBCLASS = "suite::busy"

# A subscriber's filter that does not match, which takes the host some hundredths of a second to
# find out: each of the letters may belong to the inner or to the outer repetition.
SLOW_FILTER = "/^(a+)+$/"
SLOW_VALUE = "a" * 19 + "b"


@contextlib.contextmanager
def busy_events(host, slow_events: int = 60):
    """For some seconds, events that are fired in this context wait behind slow ones."""
    with contextlib.closing(host.new_connection()) as subscriber, \
            contextlib.closing(host.new_connection()) as sender:
        subscriber.command(f"filter slow {SLOW_FILTER}")
        subscriber.command(f"event plain CUSTOM {SUBCLASS}")
        for _ in range(slow_events):
            sender.post(f"sendevent CUSTOM\nEvent-Subclass: {SUBCLASS}\nslow: {SLOW_VALUE}")
        for _ in range(slow_events):
            sender.read_answer()
        yield
