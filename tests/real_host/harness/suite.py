"""The environment of a scenario: a running host with the module, a media node, known sounds."""

import contextlib
import itertools
import pathlib
import time

from harness.audio import KnownSound
from harness.host import Host
from harness.host_files import extension
from harness.media_node import START, TERMINATE, MediaNode
from harness.sanitizer import Reports

SCENARIOS = []

# Divides the calls between two media nodes by the last digit of their UUID.
SPREAD = """
<extension name="spread"><condition field="destination_number" expression="^tap_spread$">
  <condition field="${uuid}" expression="[02468ace]$" break="never">
    <action application="set" data="quorvane_media_node=${node_even}"/>
    <anti-action application="set" data="quorvane_media_node=${node_odd}"/>
  </condition>
  <condition field="destination_number" expression=".">
    <action application="answer"/>
    <action application="quorvane"/>
    <action application="park"/>
  </condition>
</condition></extension>
"""


class Skipped(Exception):
    """The scenario cannot run here; the text says what is missing."""


def scenario(function):
    """Registers a scenario. The table shows its name as a sentence."""
    SCENARIOS.append(function)
    return function


def check(condition, complaint: str) -> None:
    if not condition:
        raise AssertionError(complaint)


def eventually(condition, timeout: float = 5.0) -> bool:
    """Whether `condition()` becomes true in time."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.1)
    return True


def check_equal(found, expected, what: str) -> None:
    check(found == expected, f"{what}: expected {expected!r}, found {found!r}")


class Suite:
    """Owns the host, the media node and the sounds. Scenarios run one after the other."""

    def __init__(self, installation, folder: pathlib.Path, module, sanitizer=None):
        self.installation = installation
        self.folder = folder
        self.module = module
        self.sanitizer = sanitizer
        self.reports = Reports(folder)
        self._numbers = itertools.count(1)
        # The far end plays `far`, the tapped leg itself `near`, a third party `third`.
        self.far = KnownSound(folder / "far.wav", seed=1, seconds=25)
        self.near = KnownSound(folder / "near.wav", seed=2, seconds=25)
        self.third = KnownSound(folder / "third.wav", seed=3, seconds=25)
        self.short = KnownSound(folder / "short.wav", seed=5, seconds=1)
        self.node = MediaNode()
        self.node_program = None  # The quorvane-node program, if it is built.
        self.host = self.make_host("host")

    def make_host(self, name: str) -> Host:
        host = Host(self.installation, self.folder / f"{name}{next(self._numbers)}",
                    self.module.shipped, self.module.relocated, self._dialplan(), self.sanitizer)
        host.write_module_configuration(media_node=self.node.address, log_level="DEBUG")
        return host

    @contextlib.contextmanager
    def own_host(self):
        """A second host with the module loaded, for scenarios that end it."""
        host = self.make_host("own")
        host.start()
        try:
            host.load_module()
            yield host
        finally:
            host.close()

    def close(self) -> None:
        self.host.close()
        self.node.close()

    def _dialplan(self) -> str:
        return "".join((
            # An answer while the near leg is still being routed can make the host run this
            # extension on that leg, too, instead of the one that the scenario asks for.
            extension("far", "sleep 100", "answer", f"endless_playback {self.far.path}"),
            extension("third", "answer", f"endless_playback {self.third.path}"),
            extension("park", "answer", "park"),
            extension("echo", "answer", "echo"),
            extension("near", f"endless_playback {self.near.path}"),
            extension("near_far_end", "answer", f"endless_playback {self.near.path}"),
            extension("tap", "answer", "quorvane", f"endless_playback {self.near.path}"),
            extension("tap_event", "answer", "quorvane", "sleep 500",
                      "event Event-Name=CHANNEL_DESTROY", f"endless_playback {self.near.path}"),
            extension("tap_park", "answer", "quorvane", "park"),
            extension("tap_twice", "answer", "quorvane", "quorvane", "park"),
            extension("tap_bridge", "answer", "quorvane", "bridge ${far_end}", "park"),
            extension("tap_early", "quorvane", "park"),
            extension("bow_out", "answer", "bridge loopback/behind_bow_out/scenarios"),
            extension("behind_bow_out", "answer", "quorvane", "bridge ${far_end}"),
            # Phones that send audio before they answer. The first one never answers, the second
            # refuses the call, the third answers it.
            extension("early_long", "pre_answer", f"playback {self.third.path}"),
            extension("early_busy", "pre_answer", f"playback {self.short.path}",
                      "hangup USER_BUSY"),
            extension("late_far", "pre_answer", f"playback {self.short.path}", "answer",
                      f"endless_playback {self.far.path}"),
            extension("tap_proxy", "set proxy_media=true", "set execute_on_answer=quorvane",
                      "bridge ${far_end}"),
            SPREAD))

    # ---- calls

    def tap(self, variables: str = "", far: str = "far", run: str = "tap", host=None) -> str:
        """A loopback call whose near leg runs the extension `run`; returns that leg's UUID."""
        settings = ",".join(filter(None, ("loopback_bowout=false", variables)))
        return (host or self.host).originate(
            f"{{{settings}}}loopback/{far}/scenarios {run} XML scenarios")

    def park(self) -> str:
        return self.tap(run="park")

    def sip_address(self, extension_name: str, host=None) -> str:
        if not self.installation.has_module("mod_sofia"):
            raise Skipped("the host has no mod_sofia")
        return f"sofia/suite/{extension_name}@127.0.0.1:{(host or self.host).ports.sip}"

    def tap_bridge(self, variables: str = "") -> tuple:
        """A SIP leg that is tapped and bridged to another leg; returns both UUIDs.

        The tapped leg hears `third` (its write direction) and says `far`.
        """
        settings = ",".join(filter(None, (f"far_end={self.sip_address('third')}",
                                          "absolute_codec_string=PCMU", variables)))
        tapped = self.host.originate(
            f"{{{settings}}}{self.sip_address('far')} tap_bridge XML scenarios")
        bridge = self.host.events.wait_for("CHANNEL_BRIDGE", tapped)
        return tapped, bridge["Other-Leg-Unique-ID"]

    def hear(self, uuid: str, seconds: float = 2.0):
        """Lets the call continue for a while; returns its stream so far."""
        time.sleep(seconds)
        return self.node.stream(uuid)

    def end(self, uuid: str):
        """Hangs up the call; returns its complete stream."""
        self.host.kill(uuid)
        return self.ended(uuid)

    def ended(self, uuid: str):
        stream = self.node.wait_for(uuid, TERMINATE)
        self.host.events.wait_for("CHANNEL_DESTROY", uuid)
        return stream

    def reload_module(self, **options) -> None:
        """Reloads the module with these options instead of the usual ones."""
        self.host.hang_up_everything()
        check_equal(self.host.unload_module(), "+OK", "unload")
        usual = {"media_node": self.node.address, "log_level": "DEBUG"}
        self.host.write_module_configuration(**{**usual, **options})
        check(self.host.load_module().endswith("+OK"), "the module does not load")


# ---- checks of streams

def check_one_life(stream) -> None:
    check_equal((len(stream.of_kind(START)), len(stream.of_kind(TERMINATE))), (1, 1),
                "start and terminate packets")


def check_gap_free(stream, *legs) -> None:
    for leg in legs:
        check(stream.data(leg), f"leg {leg}: no data")
        check(not stream.gaps(leg), f"leg {leg}: {stream.gaps(leg)[:3]}")


def is_heard(stream, leg: int, sound: KnownSound, seconds: float) -> bool:
    """Whether an unbroken stretch of the sound, bit for bit, of at least this length is heard."""
    return sound.longest_match(stream.audio(leg)) >= seconds * sound.rate


def check_heard(stream, leg: int, sound: KnownSound, seconds: float) -> None:
    """Checks for an unbroken stretch of the sound, bit for bit, of at least this length.

    Callers ask for less than was played, because a host on a busy machine skips frames.
    """
    samples = sound.longest_match(stream.audio(leg))
    check(samples >= seconds * sound.rate,
          f"leg {leg}: only {samples} consecutive samples are those of {sound.path.name}")
