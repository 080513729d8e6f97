"""Ends of calls: from either side, in storms, and during other work of the host."""

import random
import threading
import time
import uuid

from harness import own_network
from harness.media_node import READ, START, TERMINATE, WRITE
from harness.suite import Skipped, check, check_equal, check_gap_free, scenario


@scenario
def hanging_up_the_tapped_leg_ends_its_stream(s):
    uuid = s.tap()
    s.hear(uuid, 0.5)
    check_equal(len(s.end(uuid).of_kind(TERMINATE)), 1, "terminate packets")


@scenario
def hanging_up_the_far_side_ends_the_stream(s):
    uuid, partner = s.tap_bridge("hangup_after_bridge=true")
    s.hear(uuid, 0.5)
    s.host.kill(partner)
    stream = s.ended(uuid)
    check_equal(len(stream.of_kind(TERMINATE)), 1, "terminate packets")
    check_gap_free(stream, READ)


def storm(s, calls: int, seed: int, host) -> list:
    """Starts calls from several connections and kills each at a random moment."""
    generator = random.Random(seed)
    started, lock = [], threading.Lock()

    def caller(delays):
        connection = host.new_connection()
        for delay in delays:
            answer = connection.api("originate {loopback_bowout=false}loopback/far/scenarios "
                                    "tap XML scenarios").strip()
            if answer.startswith("+OK "):
                with lock:
                    started.append(answer[4:])
                time.sleep(delay)
                connection.api(f"quorvane {answer[4:]} features")
                connection.api(f"uuid_kill {answer[4:]}")
                connection.api(f"quorvane {answer[4:]} audio_activity start")
        connection.close()

    threads = [threading.Thread(target=caller, args=(
        [generator.choice((0, 0.001, 0.005, 0.02, 0.1)) for _ in range(calls // 4)],))
        for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return started


@scenario
def a_storm_of_kills_leaves_every_stream_ended(s):
    mark = s.host.log_mark()
    uuids = storm(s, 200, seed=7, host=s.host)
    s.host.hang_up_everything()
    time.sleep(1)
    streams = [s.node.stream(uuid) for uuid in uuids]
    starts = sum(len(stream.of_kind(START)) for stream in streams)
    ends = sum(len(stream.of_kind(TERMINATE)) for stream in streams)
    check(starts > 20, f"only {starts} calls were tapped")
    check_equal(ends, starts, "terminate packets against start packets")
    check(all(not stream.gaps(leg) for stream in streams for leg in (0, 1)), "gaps")
    check(not [line for line in s.host.module_lines(mark) if "MAGIC" in line], "MAGIC lines")
    check_equal(s.node.malformed, [], "malformed datagrams")


@scenario
def calls_killed_before_they_are_up_leave_nothing_behind(s):
    mark = s.host.log_mark()
    connection = s.host.new_connection()
    uuids = [str(uuid.UUID(int=random.Random(9 + i).getrandbits(128), version=4))
             for i in range(60)]
    for position, call in enumerate(uuids):
        connection.command(f"bgapi originate {{loopback_bowout=false,origination_uuid={call}}}"
                           "loopback/far/scenarios tap XML scenarios")
        time.sleep(position % 12 * 0.002)
        connection.api(f"uuid_kill {call}")
    connection.close()
    s.host.hang_up_everything()
    time.sleep(1)
    streams = [s.node.stream(call) for call in uuids]
    check_equal(sum(len(stream.of_kind(TERMINATE)) for stream in streams),
                sum(len(stream.of_kind(START)) for stream in streams), "terminates and starts")
    check(not [line for line in s.host.module_lines(mark) if "MAGIC" in line], "MAGIC lines")


@scenario
def hanging_up_all_at_once_ends_every_stream(s):
    uuids = [s.tap() for _ in range(30)]
    for uuid in uuids:
        s.node.wait_for(uuid, START)
    s.host.hang_up_everything()
    for uuid in uuids:
        check_equal(len(s.ended(uuid).of_kind(TERMINATE)), 1, "terminate packets")


@scenario
def a_media_node_that_does_not_listen_costs_nothing(s):
    mark = s.host.log_mark()
    uuid = s.tap("quorvane_media_node=127.0.0.1:9,sip_call_id=x")
    time.sleep(1)
    check("ACTIVE" in s.host.api("show calls"), "the call is gone")
    s.host.kill(uuid)
    s.host.events.wait_for("CHANNEL_DESTROY", uuid)
    check(not [line for line in s.host.module_lines(mark) if line.startswith("ERR")], "errors")


@scenario
def media_nodes_that_do_not_answer_hold_no_other_call_up(s):
    if not own_network.is_there():
        raise Skipped("the suite may not have a network of its own")
    mark = s.host.log_mark()
    other = s.tap()  # Before the buffer is full: a start that finds no room for long fails.
    silent = (2, 3, 4, 5)  # Together they fill the send buffer within a second.
    for number in silent:
        own_network.silence(number)
        s.tap(f"quorvane_media_node=10.9.0.{number}:4000,sip_call_id=x")
    stream = s.hear(other, 7)
    full = [line for line in s.host.module_lines(mark) if "error (11)" in line]
    s.host.hang_up_everything()
    for number in silent:
        own_network.answer_from(number)
    for leg in (READ, WRITE):
        packets = stream.data(leg)
        # Lost packets have numbers, too, so a packet's number shows when it was due.
        late = max(packet.sent_us - packets[0].sent_us
                   - 20000 * (packet.fields["sequence"] - packets[0].fields["sequence"])
                   for packet in packets)
        check(late < 500000, f"leg {leg}: frames were {late / 1e6:.1f} s late")
    check(full, "the send buffer was never full")
    uuid = s.tap()  # The buffer has room again, so calls are tapped as usual.
    s.hear(uuid, 0.5)
    check_gap_free(s.end(uuid), READ, WRITE)


@scenario
def a_media_node_that_cannot_be_sent_to_leaves_the_call_untapped(s):
    mark = s.host.log_mark()
    uuid = s.tap("quorvane_media_node=127.0.0.1:0,sip_call_id=x")
    time.sleep(1)
    check("ACTIVE" in s.host.api("show calls"), "the call is gone")
    s.host.kill(uuid)
    s.host.wait_for_line(mark, f"{uuid}: found configured app context on channel destroy")
    errors = [line for line in s.host.module_lines(mark) if line.startswith("ERR")]
    check("ERR media transfer start failed" in errors, f"error lines: {errors}")
    check("ERR failed to add new media bug" in errors[-1], f"error lines: {errors}")
