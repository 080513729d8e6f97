"""Calls with RTP: from SIPp, and from the host to itself in wideband codecs."""

import pathlib
import random
import re

from harness import sipp
from harness.audio import KnownSound
from harness.media_node import READ, WRITE
from harness.suite import Skipped, check, check_equal, check_gap_free, check_heard, scenario


def sipp_caller(s, payload: int, codec: str, media: bytes, seconds: float):
    if not sipp.is_installed():
        raise Skipped("sipp is not installed")
    s.sip_address("tap")
    path = pathlib.Path(s.folder / f"media_{payload}")
    path.write_bytes(media)
    return sipp.Caller(s.folder, payload, codec, path, seconds)


@scenario
def g711_mu_law_by_sipp_arrives_to_the_bit(s):
    sipp_caller(s, 0, "PCMU/8000", s.far.codes, 4).call("tap", s.host.ports.sip)
    (uuid, _), = s.node.streams().items()
    stream = s.ended(uuid)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, READ, s.far, 2)
    check_heard(stream, WRITE, s.near, 2)


@scenario
def g711_a_law_by_sipp_arrives_gap_free(s):
    codes = random.Random(5).randbytes(8000 * 5)
    sipp_caller(s, 8, "PCMA/8000", codes, 3).call("tap", s.host.ports.sip)
    (uuid, _), = s.node.streams().items()
    stream = s.ended(uuid)
    check_gap_free(stream, READ, WRITE)
    check(len(stream.audio(READ)) > 2 * 8000 * 2, "less than two seconds were read")


@scenario
def g722_by_sipp_gives_frames_of_320_samples(s):
    codes = random.Random(6).randbytes(8000 * 5)
    sipp_caller(s, 9, "G722/8000", codes, 3).call("tap", s.host.ports.sip)
    (uuid, _), = s.node.streams().items()
    stream = s.ended(uuid)
    check_gap_free(stream, READ, WRITE)
    check_equal({packet.size for packet in stream.data(READ)}, {50 + 640}, "sizes")
    check(len(stream.audio(READ)) > 2 * 16000 * 2, "less than two seconds were read")


@scenario
def the_call_reference_of_a_sip_call_is_its_call_id(s):
    sipp_caller(s, 0, "PCMU/8000", s.far.codes, 1).call("tap", s.host.ports.sip)
    (uuid, stream), = s.node.streams().items()
    answer = next(e for e in s.host.events.events("CHANNEL_ANSWER") if e["Unique-ID"] == uuid)
    check_equal(stream.start.fields["reference"], answer["variable_sip_call_id"], "reference")


@scenario
def a_party_that_falls_silent_is_heard_as_silence_without_a_gap(s):
    sipp_caller(s, 0, "PCMU/8000", s.far.codes[:8000], 3).call("tap", s.host.ports.sip)
    (uuid, _), = s.node.streams().items()
    stream = s.ended(uuid)
    check_gap_free(stream, READ, WRITE)
    check(len(stream.data(READ)) > 100, f"only {len(stream.data(READ))} packets were read")
    check_equal(set(stream.audio(READ)[-3200:]), {0xFF}, "bytes of the last frames (samples -1)")


@scenario
def a_leg_that_is_not_answered_is_tapped_from_its_early_media_on(s):
    outer = s.host.originate(f"{{absolute_codec_string=PCMU}}{s.sip_address('tap_early')} "
                             "far XML scenarios")
    s.node.wait_until(lambda: s.node.streams(), what="the unanswered leg's start")
    uuid = next(iter(s.node.streams()))
    stream = s.hear(uuid, 1.5)
    check("RINGING" in s.host.api("show calls") or "EARLY" in s.host.api("show calls"), "answered")
    s.host.kill(outer)
    check_gap_free(stream, READ)
    check_heard(stream, READ, s.far, 0.7)


@scenario
def twenty_sipp_calls_at_once_are_twenty_whole_streams(s):
    sipp_caller(s, 0, "PCMU/8000", s.far.codes, 4).call("tap", s.host.ports.sip, calls=20)
    streams = s.node.streams()
    check_equal(len(streams), 20, "streams")
    for uuid in streams:
        stream = s.ended(uuid)
        check_gap_free(stream, READ, WRITE)
        check_heard(stream, READ, s.far, 1)


def wideband(s, codec: str, rate: int, seconds: float = 2):
    """A SIP call of the host to itself in this codec; returns its stream and the module's lines."""
    mark = s.host.log_mark()
    arguments = f"{{absolute_codec_string={codec}}}{s.sip_address('far')} tap XML scenarios"
    answer = s.host.api(f"originate {arguments}").strip()
    if not answer.startswith("+OK"):
        raise Skipped(f"the host makes no call in {codec}: {answer}")
    uuid = answer[4:]
    s.hear(uuid, seconds)
    stream = s.end(uuid)
    check_gap_free(stream, READ, WRITE)
    check(len(stream.audio(WRITE)) > (seconds - 1) * rate * 2, f"too little audio for {rate} Hz")
    return stream, s.host.module_lines(mark)


def check_split_in_two(stream, lines) -> None:
    for leg, name in ((READ, "read"), (WRITE, "write")):
        sizes = [packet.size for packet in stream.data(leg)]
        check_equal(set(sizes), {1372, 50 + 1920 - 1322}, f"sizes of {name} packets")
        warnings = [line for line in lines if re.fullmatch(
            rf'WARNING MEDIA_TRANSFER: "[\w]+" {name} frame of 1920 byte\(s\) split for 2 chunks',
            line)]
        check_equal(len(warnings), sizes.count(1372), f"warnings about {name} frames")


@scenario
def a_g722_call_has_frames_of_640_bytes_and_no_warning(s):
    stream, lines = wideband(s, "G722", 16000)
    check_equal({packet.size for packet in stream.data(WRITE)}, {690}, "sizes")
    check(not [line for line in lines if "split" in line], "split warnings")


@scenario
def an_l16_call_at_16_khz_has_frames_of_640_bytes(s):
    stream, _ = wideband(s, "L16@16000h@20i", 16000)
    check_equal({packet.size for packet in stream.data(WRITE)}, {690}, "sizes")


@scenario
def an_opus_call_at_16_khz_splits_nothing(s):
    stream, lines = wideband(s, "OPUS@16000h", 16000)
    check_equal({packet.size for packet in stream.data(WRITE)}, {690}, "sizes")
    check(not [line for line in lines if "split" in line], "split warnings")


@scenario
def an_opus_call_at_48_khz_splits_every_frame_and_warns(s):
    check_split_in_two(*wideband(s, "OPUS@48000h", 48000))


@scenario
def an_l16_call_at_48_khz_splits_every_frame_and_warns(s):
    check_split_in_two(*wideband(s, "L16@48000h@20i", 48000))


@scenario
def split_frames_put_together_are_the_frames_to_the_bit(s):
    sound = KnownSound(s.folder / "near48.wav", seed=4, rate=48000, seconds=6)
    uuid = s.host.originate(f"{{absolute_codec_string=L16@48000h@20i}}{s.sip_address('park')} "
                            f"'answer,quorvane,playback:{sound.path}' inline")
    s.hear(uuid, 2)
    stream = s.end(uuid)
    check_gap_free(stream, WRITE)
    check_heard(stream, WRITE, sound, 1)
