"""Features: set by channel variables, by commands before and after the start; control packets."""

from harness.media_node import CONTROL, START, call_key_of
from harness.suite import check, check_equal, scenario


def controls(stream) -> list:
    return [(packet.fields["supported"], packet.fields["active"])
            for packet in stream.of_kind(CONTROL)]


@scenario
def recording_and_features_of_the_variables_are_in_the_start_packet(s):
    uuid = s.tap("quorvane_record=allow,quorvane_rule_id=5,quorvane_detection=orig,"
                 "quorvane_audio_activity=true")
    fields = s.node.wait_for(uuid, START).start.fields
    code = s.host.quorvane(f"{uuid} features")
    s.end(uuid)
    check_equal(fields["supported"], 0xDC, "supported features")
    check_equal(fields["active"], 0xDC, "active features")
    check_equal(code, "RR-SAA\n", "code of the features")


@scenario
def features_asked_for_before_the_start_are_in_the_start_packet(s):
    uuid = s.park()
    answer = s.host.quorvane(f"{uuid} audio_activity start orig stop term")
    check_equal(answer, f"audio_activity: app context added, id: {call_key_of(uuid)}"
                        "+OK, audio_activity: updated: old = 0, new = 4", "answer")
    check_equal(s.host.quorvane(f"{uuid} features"), "----aA\n", "features before the start")
    mark = s.host.log_mark()
    s.host.api(f"uuid_transfer {uuid} tap XML scenarios")
    fields = s.node.wait_for(uuid, START).start.fields
    check("NOTICE app context found; configuring" in s.host.module_lines(mark), "not found again")
    check(not controls(s.end(uuid)), "a control packet before the start")
    check_equal((fields["supported"], fields["active"]), (0x0C, 0x04), "features")


@scenario
def a_feature_switched_during_the_call_is_sent_as_a_control_packet(s):
    uuid = s.tap("quorvane_rule_id=5,quorvane_audio_activity=true")
    s.node.wait_for(uuid, START)
    before = s.host.quorvane(f"{uuid} features")
    answer = s.host.quorvane(f"{uuid} audio_activity stop both")
    after = s.host.quorvane(f"{uuid} features")
    stream = s.node.wait_for(uuid, CONTROL)
    s.end(uuid)
    check_equal((before, after), ("----AA\n", "----aa\n"), "features before and after")
    check_equal(answer, "audio_activity: control packet for feature update was sent"
                        "+OK, audio_activity: updated: old = 12, new = 0", "answer")
    check_equal(controls(stream), [(0x0C, 0x00)], "control packets")
    check_equal(stream.of_kind(CONTROL)[0].word, 0x0080, "leg word of the control packet")


@scenario
def the_same_command_twice_sends_one_control_packet(s):
    uuid = s.tap("quorvane_rule_id=5,quorvane_detection=true")
    s.node.wait_for(uuid, START)
    s.host.quorvane(f"{uuid} detection stop")
    answer = s.host.quorvane(f"{uuid} detection stop")
    stream = s.end(uuid)
    check_equal(answer, "+OK, detection: nothing to update: old = 0, new = 0", "answer")
    check_equal(len(controls(stream)), 1, "control packets")


@scenario
def features_that_the_call_did_not_start_with_are_refused(s):
    uuid = s.tap("quorvane_rule_id=5,quorvane_detection=true")
    s.node.wait_for(uuid, START)
    answer = s.host.quorvane(f"{uuid} detection stop orig")
    stream = s.end(uuid)
    check_equal(answer, "-ERR, detection: not possible to change supported features (48 -> 16) "
                        "when start packet had been sent", "answer")
    check(not controls(stream), "a control packet was sent")


@scenario
def a_context_made_by_a_command_alone_goes_with_its_channel(s):
    uuid = s.park()
    s.host.quorvane(f"{uuid} detection start")
    mark = s.host.log_mark()
    s.host.kill(uuid)
    s.host.wait_for_line(mark, f"{uuid}: found app context on channel destroy however no app "
                               "has been executed")
    check(not s.node.stream(uuid).packets, "packets of a call that was never tapped")


@scenario
def a_command_for_a_call_that_is_gone_answers_nothing(s):
    uuid = s.tap()
    s.node.wait_for(uuid, START)
    s.end(uuid)
    mark = s.host.log_mark()
    check_equal(s.host.quorvane(f"{uuid} features"), "-ERR no reply\n", "answer")
    check(f"ERR session is not found: {uuid}" in s.host.module_lines(mark), "no line in the log")
