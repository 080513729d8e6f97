"""The tap beside other users of a call's media, and calls whose media bypasses the host."""

import time

from harness.media_node import READ, WRITE, MediaNode
from harness.suite import check, check_equal, check_gap_free, check_heard, scenario


def recorded_samples(path) -> bytes:
    """The samples of a WAV file that the host wrote; additional header chunks are skipped."""
    content = path.read_bytes()
    return content[content.index(b"data") + 8:]


@scenario
def a_recording_beside_the_tap_disturbs_neither(s):
    path = s.folder / "beside.wav"
    uuid = s.tap("RECORD_STEREO=false,RECORD_READ_ONLY=true")
    s.host.api(f"uuid_record {uuid} start {path}")
    s.hear(uuid, 2.5)
    s.host.api(f"uuid_record {uuid} stop {path}")
    stream = s.end(uuid)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, READ, s.far, 1.5)
    check(s.far.longest_match(recorded_samples(path)) > 8000, "the recording has gaps")


@scenario
def an_eavesdropper_beside_the_tap_hears_and_disturbs_nothing(s):
    uuid, _ = s.tap_bridge()
    spy = s.host.originate(f"{{loopback_bowout=false}}loopback/park/scenarios "
                           f"'eavesdrop:{uuid}' inline")
    s.hear(uuid, 2.5)
    stream = s.end(uuid)
    s.host.kill(spy)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, READ, s.far, 1)
    check_heard(stream, WRITE, s.third, 1)


def displaced(s, uuid: str) -> None:
    """Replaces what the leg says with the third sound, through another media bug of the host."""
    s.host.api(f"uuid_displace {uuid} start {s.third.path} 0 r")


@scenario
def what_replaces_audio_after_the_tap_is_not_in_the_stream(s):
    uuid = s.tap()
    displaced(s, uuid)
    stream = (s.hear(uuid, 2), s.end(uuid))[1]
    check_heard(stream, READ, s.far, 1)
    check_equal(s.third.longest_match(stream.audio(READ)), 0, "samples of the replacement")


@scenario
def what_replaces_audio_before_the_tap_is_in_the_stream(s):
    uuid = s.park()
    displaced(s, uuid)
    s.host.api(f"uuid_transfer {uuid} tap XML scenarios")
    stream = (s.hear(uuid, 2), s.end(uuid))[1]
    check_heard(stream, READ, s.third, 1)
    check_equal(s.far.longest_match(stream.audio(READ)), 0, "samples of the original")


@scenario
def media_that_bypasses_the_host_is_not_tapped(s):
    uuid, _ = s.tap_bridge("bypass_media_after_bridge=true")
    s.hear(uuid, 1.5)
    before = len(s.node.stream(uuid).data(READ))
    after = len(s.hear(uuid, 1).data(READ))
    s.end(uuid)
    check_equal(after - before, 0, "read packets in a second of bypassed media")


def data_packets(s) -> int:
    return sum(len(stream.data(leg)) for stream in s.node.streams().values() for leg in (0, 1))


@scenario
def media_that_is_proxied_is_not_tapped(s):
    mark = s.host.log_mark()
    s.host.api(f"global_setvar far_end={s.sip_address('third')}")
    outer = s.host.originate(f"{{absolute_codec_string=PCMU}}{s.sip_address('tap_proxy')} "
                             "far XML scenarios")
    s.host.wait_for_line(mark, "application execution started")
    time.sleep(0.5)
    before = data_packets(s)
    time.sleep(1)
    after = data_packets(s)
    s.host.kill(outer)
    check_equal(after - before, 0, "data packets in a second of proxied media")


@scenario
def the_dialplan_spreads_calls_over_two_media_nodes(s):
    others = {"even": MediaNode(), "odd": MediaNode()}
    try:
        s.host.api(f"global_setvar node_even={others['even'].address}")
        s.host.api(f"global_setvar node_odd={others['odd'].address}")
        uuids = [s.tap(run="tap_spread") for _ in range(10)]
        s.hear(uuids[-1], 0.5)
        for name, digits in (("even", "02468ace"), ("odd", "13579bdf")):
            expected = {uuid for uuid in uuids if uuid[-1] in digits}
            check_equal(set(others[name].streams()), expected, f"calls at the {name} node")
    finally:
        for node in others.values():
            node.close()
