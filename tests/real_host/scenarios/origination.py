"""Taps that begin before the answer, and legs that end while a call is set up."""

import time

from harness.media_node import READ, WRITE
from harness.suite import (check, check_equal, check_heard, check_one_life, eventually,
                           scenario)

ON_MEDIA = "execute_on_media=quorvane"


def originate(s, settings: str, targets: str, run: str = "&park") -> str:
    """Places a call; returns the host's answer when the call is answered or has failed."""
    return s.host.api(f"originate {{absolute_codec_string=PCMU,{settings}}}{targets} {run}").strip()


def streams_ended(s, count: int) -> dict:
    check(eventually(lambda: len(s.node.streams()) == count), f"{len(s.node.streams())} streams")
    streams = {uuid: s.ended(uuid) for uuid in s.node.streams()}
    for stream in streams.values():
        check_one_life(stream)
        check(not stream.gaps(READ) and not stream.gaps(WRITE), "gaps")
    return streams


@scenario
def execute_on_media_taps_a_leg_from_its_early_media_on(s):
    uuid = originate(s, f"ignore_early_media=true,{ON_MEDIA}", s.sip_address("late_far"))[4:]
    s.hear(uuid, 0.7)
    s.host.kill(uuid)
    stream = streams_ended(s, 1)[uuid]
    check_heard(stream, READ, s.far, 0.3)


@scenario
def an_originate_that_fails_after_the_application_ends_its_stream(s):
    mark = s.host.log_mark()
    answer = originate(s, f"ignore_early_media=true,{ON_MEDIA}", s.sip_address("early_busy"))
    check_equal(answer, "-ERR USER_BUSY", "answer")
    streams_ended(s, 1)
    check("possible memory leak" not in "".join(s.host.module_lines(mark)), "a context was left")


@scenario
def a_call_to_several_telephones_is_one_stream_for_each_that_had_media(s):
    legs = ",".join(f"[{ON_MEDIA}]{s.sip_address(name)}"
                    for name in ("early_busy", "late_far", "early_long"))
    uuid = originate(s, "ignore_early_media=true", legs)[4:]
    s.hear(uuid, 0.7)
    s.host.kill(uuid)
    check_heard(streams_ended(s, 3)[uuid], READ, s.far, 0.3)


@scenario
def a_caller_tapped_before_several_telephones_ring_is_one_stream(s):
    s.host.api("global_setvar far_end=" + ",".join(
        s.sip_address(name) for name in ("early_busy", "late_far", "early_long")))
    uuid = s.host.originate(f"{{absolute_codec_string=PCMU,ignore_early_media=true}}"
                            f"{s.sip_address('third')} tap_bridge XML scenarios")
    s.host.events.wait_for("CHANNEL_BRIDGE", uuid)
    s.hear(uuid, 0.7)
    s.host.kill(uuid)
    check_heard(streams_ended(s, 1)[uuid], WRITE, s.far, 0.3)


@scenario
def a_picked_up_telephone_ends_its_stream_and_the_caller_goes_on(s):
    targets = f"[{ON_MEDIA}]{s.sip_address('early_long')},pickup/suite"
    connection = s.host.new_connection()
    connection.post(f"api originate {{absolute_codec_string=PCMU,ignore_early_media=true}}"
                    f"{targets} third XML scenarios")
    s.node.wait_until(lambda: s.node.streams(), what="the ringing leg's start")
    time.sleep(0.5)
    picker = s.host.originate("{absolute_codec_string=PCMU}"
                              f"{s.sip_address('near_far_end')} 'pickup:suite' inline")
    _, answer = connection.read_answer()
    connection.close()
    check(answer.startswith(b"+OK"), f"the call was not picked up: {answer.decode()}")
    streams_ended(s, 1)
    s.host.kill(picker)


@scenario
def a_loopback_leg_that_bows_out_ends_its_stream_and_not_the_call(s):
    s.host.api(f"global_setvar far_end={s.sip_address('third')}")
    uuid = s.host.originate(f"{{absolute_codec_string=PCMU}}{s.sip_address('far')} "
                            "bow_out XML scenarios")
    stream, = streams_ended(s, 1).values()
    check(stream.data(READ) and stream.data(WRITE), "nothing was heard before the leg bowed out")
    time.sleep(0.5)
    channels = s.host.api("show channels")
    check(uuid in channels and "loopback" not in channels, "the call did not go on by itself")
