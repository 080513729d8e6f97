"""What is sent for a call: its audio bit for bit, the start packet, the channel variables."""

import re

from harness.media_node import READ, START, WRITE, call_key_of
from harness.suite import check, check_equal, check_gap_free, check_heard, scenario


@scenario
def both_legs_of_a_loopback_call_arrive_to_the_bit_without_a_gap(s):
    uuid = s.tap()
    s.hear(uuid, 5)
    stream = s.end(uuid)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, READ, s.far, 3)
    check_heard(stream, WRITE, s.near, 3)


@scenario
def a_20_ms_frame_at_8_khz_is_one_packet_of_370_bytes(s):
    uuid = s.tap()
    s.hear(uuid, 1)
    stream = s.end(uuid)
    sizes = {packet.size for leg in (READ, WRITE) for packet in stream.data(leg)}
    check_equal(sizes, {370}, "sizes of data packets")


@scenario
def packets_come_in_order_start_first_terminate_last(s):
    uuid = s.tap()
    s.hear(uuid, 0.5)
    s.end(uuid)
    kinds = [packet.kind for packet in s.hear(uuid, 0.3).packets]
    check_equal((kinds[0], kinds[-1]), (0x81, 0x82), "first and last packet")
    check_equal((kinds.count(0x81), kinds.count(0x82)), (1, 1), "starts and terminates")


@scenario
def the_start_packet_agrees_with_the_hosts_own_view_of_the_call(s):
    mark = s.host.log_mark()
    uuid = s.tap("sip_call_id=abc@example,quorvane_rule_id=77,quorvane_report_node=10.1.2.3:5060")
    start = s.node.wait_for(uuid, START).start
    created = created_time(s, uuid)
    execute = s.host.events.wait_for("CHANNEL_EXECUTE", uuid, Application="quorvane")
    s.end(uuid)
    check_equal(start.uuid, uuid, "UUID")
    check_equal(start.key, call_key_of(uuid), "call key")
    check(str(start.key) in s.host.wait_for_line(mark, "app context added, id: "), "key in the log")
    check_equal(start.fields["created"], int(created), "created time")
    check(0 <= start.fields["configured"] - int(execute["Event-Date-Timestamp"]) < 500_000,
          "the configured time is not just after the application's start")
    check(0 <= start.sent_us - start.fields["configured_steady"] < 500_000, "steady times")
    check_equal((start.fields["rule_id"], start.fields["report_node"], start.fields["reference"]),
                (77, "10.1.2.3:5060", "abc@example"), "fields")


def created_time(s, uuid: str) -> str:
    return re.search(r"Caller-Channel-Created-Time: (\d+)", s.host.api(f"uuid_dump {uuid}"))[1]


@scenario
def an_outbound_leg_reads_the_terminator(s):
    uuid = s.tap()
    stream = s.hear(uuid, 0.5)
    check("Call-Direction: outbound" in s.host.api(f"uuid_dump {uuid}"), "the leg is not outbound")
    s.end(uuid)
    check_equal(stream.start.word, 0x0001, "call flags")
    check_equal({p.word for p in stream.data(READ)}, {0x0001}, "leg word of the read leg")
    check_equal({p.word for p in stream.data(WRITE)}, {0x8000}, "leg word of the write leg")


@scenario
def an_inbound_leg_reads_the_originator(s):
    outer = s.host.originate("{loopback_bowout=false}loopback/tap/scenarios far XML scenarios")
    s.node.wait_until(lambda: s.node.streams(), what="the far leg's start")
    uuid = next(iter(s.node.streams()))
    stream = s.hear(uuid, 0.5)
    check(uuid != outer, "the outbound leg was tapped")
    s.end(uuid)
    check_equal(stream.start.word, 0x0000, "call flags")
    check_equal({p.word for p in stream.data(READ)}, {0x0000}, "leg word of the read leg")
    check_equal({p.word for p in stream.data(WRITE)}, {0x8001}, "leg word of the write leg")


@scenario
def a_call_without_variables_sends_a_bare_start_packet(s):
    mark = s.host.log_mark()
    uuid = s.tap()
    start = s.node.wait_for(uuid, START).start
    s.end(uuid)
    check_equal(start.size, 83, "size")
    check_equal((start.fields["rule_id"], start.fields["report_node"], start.fields["supported"]),
                (0, "0.0.0.0:0", 0), "fields")
    check('ERR channel variable "sip_call_id" is not set; ignoring' in s.host.module_lines(mark),
          "no line about the missing variable")


@scenario
def the_call_reference_can_come_from_another_variable(s):
    uuid = s.tap("quorvane_call_id_ref=my_reference,my_reference=ticket-4711")
    start = s.node.wait_for(uuid, START).start
    s.end(uuid)
    check_equal(start.fields["reference"], "ticket-4711", "reference")


@scenario
def the_variable_sends_a_call_to_another_media_node(s):
    from harness.media_node import MediaNode
    other = MediaNode()
    try:
        uuid = s.tap(f"quorvane_media_node={other.address}")
        other.wait_for(uuid, 0x83, count=20)
        s.host.kill(uuid)
        other.wait_for(uuid, 0x82)
        check(not s.node.stream(uuid).packets, "packets at the module's own media node")
    finally:
        other.close()


@scenario
def a_bad_media_node_variable_leaves_the_call_untapped(s):
    mark = s.host.log_mark()
    uuid = s.tap("quorvane_media_node=medianode:5000")
    check(not s.hear(uuid, 0.5).packets, "packets were sent")
    s.host.kill(uuid)
    s.host.wait_for_line(mark, f"{uuid}: found configured app context on channel destroy: "
                               "possible memory leak or logic error!")
    check_equal([line for line in s.host.module_lines(mark) if line.startswith("ERR")],
                ['ERR failed to parse channel variable "quorvane_media_node": medianode:5000; '
                 "discarding!", "ERR failed to configure application context"], "error lines")


@scenario
def a_second_run_on_the_same_call_is_refused(s):
    mark = s.host.log_mark()
    uuid = s.tap(run="tap_twice")
    s.host.wait_for_line(mark, "app context already configured; ignoring")
    s.hear(uuid, 0.3)
    stream = s.end(uuid)
    check_equal(len(stream.of_kind(START)), 1, "start packets")
    check_gap_free(stream, READ)


@scenario
def a_parked_leg_has_one_direction_only(s):
    uuid = s.tap(run="tap_park")
    s.hear(uuid, 1)
    stream = s.end(uuid)
    check_gap_free(stream, READ)
    check(not stream.data(WRITE), "write packets of a leg that writes nothing")


@scenario
def the_closing_line_counts_what_arrived(s):
    mark = s.host.log_mark()
    uuid = s.tap()
    s.hear(uuid, 1)
    stream = s.end(uuid)
    counts = f"{len(stream.audio(READ))}/{len(stream.audio(WRITE))}"
    check(f"INFO transfered {counts} bytes of media" in s.host.module_lines(mark),
          f"no line with {counts}")
