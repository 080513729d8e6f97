"""What the host does to the media of a tapped call while the call goes on."""

import re
import time

from harness.media_node import READ, START, TERMINATE, WRITE, Stream
from harness.suite import (Skipped, check, check_equal, check_gap_free, check_heard,
                           check_one_life, eventually, scenario)

FRAME_8_KHZ, FRAME_16_KHZ = 370, 690
FRAME_48_KHZ = (1372, 648)


def sizes_in(packets) -> set:
    return {packet.size for packet in packets}


def has_only(s, uuid: str, sizes: set) -> bool:
    """Whether the last half second of both legs has packets of these sizes only."""
    stream = s.node.stream(uuid)
    return all(sizes_in(stream.data(leg)[-25:]) <= sizes for leg in (READ, WRITE))


def packets_of_a_second(s, uuid: str) -> tuple:
    """The numbers of data packets of the read and write side in the next second."""
    before = s.node.stream(uuid)
    after = s.hear(uuid, 1)
    return tuple(len(after.data(leg)) - len(before.data(leg)) for leg in (READ, WRITE))


@scenario
def removing_the_hosts_bugs_ends_the_stream_and_not_the_call(s):
    mark = s.host.log_mark()
    uuid, _ = s.tap_bridge()
    s.hear(uuid, 0.5)
    s.host.api(f"uuid_broadcast {uuid} remove_bugs::quorvane aleg")
    stream = s.node.wait_for(uuid, TERMINATE)
    check_gap_free(stream, READ, WRITE)
    check_equal(packets_of_a_second(s, uuid), (0, 0), "packets after the end of the stream")
    check(uuid in s.host.api("show calls"), "the call is gone")
    s.host.kill(uuid)
    s.host.events.wait_for("CHANNEL_DESTROY", uuid)
    check_one_life(s.node.stream(uuid))
    check("possible memory leak" not in "".join(s.host.module_lines(mark)), "a context was left")


@scenario
def after_its_bug_was_removed_the_application_starts_a_second_stream(s):
    uuid = s.tap()
    s.hear(uuid, 0.5)
    s.host.api(f"uuid_transfer {uuid} 'remove_bugs:quorvane,quorvane,"
               f"endless_playback:{s.near.path}' inline")
    s.node.wait_for(uuid, START, count=2)
    s.hear(uuid, 0.5)
    s.host.kill(uuid)
    packets = s.node.wait_for(uuid, TERMINATE, count=2).packets
    again = next(i for i, packet in enumerate(packets) if packet.kind == START and i > 0)
    for part in (packets[:again], packets[again:]):
        stream = Stream(part)
        check_one_life(stream)
        check_gap_free(stream, READ, WRITE)


def is_waiting(stack: str, *functions) -> bool:
    """Whether a thread with these functions on its stack, the innermost first, waits for a lock."""
    frames = ["pthread_mutex_lock", *functions]
    return re.search(".*".join(rf"{frame}\b" for frame in frames), stack, re.DOTALL) is not None


def is_deadlock_of_the_host(stacks: str) -> bool:
    """Whether the thread of `uuid_media` waits for the lock of the SIP session while it holds that
    of the read codec, and the thread of the SIP session waits for the lock of the read codec."""
    threads = stacks.split("\nThread ")
    return (any(is_waiting(thread, "sofia_receive_message", "switch_core_session_read_frame",
                           "switch_ivr_media") for thread in threads)
            and any(is_waiting(thread, "switch_core_session_lock_codec_read",
                               "switch_core_media_set_codec", "our_sofia_event_callback")
                    for thread in threads))


def move_media(s, words: str) -> None:
    try:
        s.host.api(f"uuid_media {words}")
    except TimeoutError:
        if not is_deadlock_of_the_host(s.host.write_stacks()):
            raise
        s.host.close()
        raise Skipped("uuid_media ran into a deadlock between two locks of the host") from None


@scenario
def media_that_leaves_the_host_and_comes_back_is_one_stream_with_a_pause(s):
    uuid, partner = s.tap_bridge()
    for leg in (uuid, partner):  # The command affects both legs' media, whichever it names.
        s.hear(uuid, 0.7)
        move_media(s, f"off {leg}")
        time.sleep(0.3)
        check_equal(packets_of_a_second(s, uuid), (0, 0), "packets while media is away")
        move_media(s, leg)
        check(eventually(lambda: min(packets_of_a_second(s, uuid)) > 30), "media does not return")
    stream = s.end(uuid)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)


@scenario
def a_call_that_cannot_be_put_to_proxied_media_ends_its_stream(s):
    uuid = s.host.originate(f"{{absolute_codec_string=PCMU}}{s.sip_address('far')} "
                            "tap_park XML scenarios")
    s.hear(uuid, 0.5)
    s.host.api(f"uuid_transfer {uuid} 'set:proxy_media=true,bridge:{s.sip_address('third')}' "
               "inline")
    stream = s.ended(uuid)
    check_one_life(stream)
    check_gap_free(stream, READ)


@scenario
def a_renegotiated_codec_changes_the_frames_and_not_the_stream(s):
    uuid, _ = s.tap_bridge()
    s.hear(uuid, 0.5)
    for codec, frames in (("G722", {FRAME_16_KHZ}), ("PCMA", {FRAME_8_KHZ}),
                          ("L16@48000h", set(FRAME_48_KHZ)), ("PCMU", {FRAME_8_KHZ})):
        s.host.api(f"uuid_media_reneg {uuid} ={codec}")
        # During the change, frames of both sizes alternate; a busy host needs its time.
        check(eventually(lambda: has_only(s, uuid, frames), 20), f"no frames in {codec}")
        done = len(s.node.stream(uuid).packets)
        stream = s.hear(uuid, 0.7)
        for leg in (READ, WRITE):
            check_equal(sizes_in(Stream(stream.packets[done:]).data(leg)), frames,
                        f"sizes of leg {leg} in {codec}")
    stream = s.end(uuid)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)


@scenario
def a_renegotiated_codec_of_the_partner_changes_nothing(s):
    uuid, partner = s.tap_bridge()
    s.hear(uuid, 0.5)
    s.host.api(f"uuid_media_reneg {partner} =G722")
    s.hear(uuid, 1)
    stream = s.end(uuid)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)
    check_equal(sizes_in(stream.data(READ) + stream.data(WRITE)), {FRAME_8_KHZ}, "sizes")
    check_heard(stream, READ, s.far, 0.3)


@scenario
def a_call_on_hold_is_one_stream_with_a_pause(s):
    uuid, _ = s.tap_bridge()
    s.hear(uuid, 0.7)
    s.host.api(f"uuid_hold {uuid}")
    time.sleep(0.3)
    check_equal(packets_of_a_second(s, uuid), (0, 0), "packets on hold")
    s.host.api(f"uuid_hold off {uuid}")
    check(eventually(lambda: min(packets_of_a_second(s, uuid)) > 30), "media does not return")
    stream = s.end(uuid)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)
