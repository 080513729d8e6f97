"""A channel-destroy event names a UUID whose context belongs to a call that continues.

The module erases the context's registry entry, as for every ended channel, and logs that. The
call that continues keeps the context and is tapped to its end.
"""

import contextlib
import threading
import uuid as uuids

from harness import sipp
from harness.held_events import held_events
from harness.media_node import READ, WRITE
from harness.suite import (Skipped, check, check_equal, check_gap_free, check_heard,
                           check_one_life, scenario)

TAKEN = "found configured app context on channel destroy: possible memory leak or logic error!"
NOT_FOUND = "ERR MAGIC: app context is not found on media transfer termination"

# The generator polynomial of the call key's CRC-64. UUIDs that differ by a multiple of it have the
# same key.
KEY_GENERATOR = 0x142F0E1EBA9EA3693


def same_key(uuid: str) -> str:
    """Another UUID of the same form that has the same call key."""
    digits = f"{int(uuid.replace('-', ''), 16) ^ KEY_GENERATOR:032x}"
    return "-".join((digits[:8], digits[8:12], digits[12:16], digits[16:20], digits[20:]))


def check_outlived(s, uuid: str, mark: int, end=None) -> None:
    """Checks that the context's entry was erased, and that the call is tapped to its end."""
    s.host.wait_for_line(mark, TAKEN)
    before = len(s.node.stream(uuid).packets)
    s.hear(uuid, 1)
    stream = (end or s.end)(uuid)
    check(len(stream.packets) > before + 20, "the tap stopped when the context was taken")
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, READ, s.far, 0.5)
    check_equal({packet.uuid for packet in stream.packets}, {uuid}, "UUIDs")
    check_equal(len({packet.key for packet in stream.packets}), 1, "call keys")
    check(NOT_FOUND in s.host.module_lines(mark), "no line about the missing entry")
    check_equal(s.node.malformed, [], "malformed datagrams")


def end_of_another(s, twin_of) -> None:
    """Taps a call; then ends an untapped channel with the UUID `twin_of(uuid)`."""
    mark = s.host.log_mark()
    uuid = s.tap()
    s.hear(uuid, 0.5)
    twin = twin_of(uuid)
    s.host.originate(f"{{origination_uuid={twin}}}loopback/park/scenarios &park")
    s.host.kill(twin)
    check_outlived(s, uuid, mark)


@scenario
def a_call_outlives_another_whose_uuid_is_the_same_in_capitals(s):
    end_of_another(s, str.upper)


@scenario
def a_call_outlives_another_whose_uuid_is_the_same_without_dashes(s):
    end_of_another(s, lambda uuid: uuid.replace("-", ""))


@scenario
def a_call_outlives_another_whose_uuid_goes_on_behind_the_32nd_digit(s):
    end_of_another(s, lambda uuid: uuid + "-and-more")


@scenario
def a_call_outlives_another_whose_uuid_has_the_same_key(s):
    end_of_another(s, same_key)


@scenario
def a_call_outlives_another_sip_caller_with_the_same_call_id_in_capitals(s):
    if not sipp.is_installed():
        raise Skipped("sipp is not installed")
    s.sip_address("tap")  # Skips the scenario if the host has no SIP.
    uuid = "5e1f0c2a-9b7d-4e83-a6c4-d01b2f3e4a5c"
    media = s.folder / "twin_media"
    media.write_bytes(s.far.codes)
    mark = s.host.log_mark()

    def call(call_id: str, seconds: float, extension: str) -> None:
        folder = s.folder / f"sipp-{call_id}"
        folder.mkdir()
        sipp.Caller(folder, 0, "PCMU/8000", media, seconds).call(
            extension, s.host.ports.sip_callid, call_id=call_id)

    long_call = threading.Thread(target=call, args=(uuid, 3, "tap"))
    long_call.start()
    s.node.wait_for(uuid, 0x83, count=10)
    call(uuid.upper(), 0.3, "far")
    check_outlived(s, uuid, mark, end=s.ended)
    long_call.join()


@scenario
def a_call_outlives_a_destroy_event_that_its_own_dialplan_fires(s):
    mark = s.host.log_mark()
    uuid = s.tap(run="tap_event")
    check_outlives = check_outlived
    check_outlives(s, uuid, mark)


@scenario
def a_call_outlives_a_destroy_event_sent_on_the_event_socket(s):
    mark = s.host.log_mark()
    uuid = s.tap()
    s.hear(uuid, 0.5)
    # The UUID is spelled in upper case, because the host would hand an event with a UUID that it
    # knows to that channel.
    with contextlib.closing(s.host.new_connection()) as connection:
        connection.command(f"sendevent CHANNEL_DESTROY\nUnique-ID: {uuid.upper()}")
    check_outlived(s, uuid, mark)


@scenario
def a_call_outlives_the_late_destroy_event_of_one_before_it_with_its_uuid(s):
    mark = s.host.log_mark()
    uuid = str(uuids.uuid4())
    s.tap(f"origination_uuid={uuid}")
    s.hear(uuid, 0.3)
    with held_events(s):
        s.host.kill(uuid)
        s.host.wait_for_line(mark, "(loopback/far-a) State DESTROY going to sleep")
        s.node.forget()
        check_equal(s.tap(f"origination_uuid={uuid}"), uuid, "UUID of the second call")
        check(s.node.wait_for(uuid, 0x83), "the second call is not tapped")
        check(not [event for event in s.host.events.events("CHANNEL_DESTROY")
                   if event["Unique-ID"] == uuid], "the first call's event came too early")
    check_outlived(s, uuid, mark)
