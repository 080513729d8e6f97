"""The dialplan samples of examples/dialplan, loaded unchanged but for their addresses."""

import contextlib

from harness.media_node import CONTROL, READ, START, WRITE, MediaNode
from harness.suite import check, check_equal, check_gap_free, scenario

NO_REPORT_NODE = "0.0.0.0:0"


def call(s, sample: str, number: str, caller: str = "") -> str:
    """Calls a number in the sample's context; returns the UUID of the calling end."""
    settings = f"{{origination_caller_id_number={caller}}}" if caller else ""
    return s.host.originate(f"{settings}loopback/{number}/{sample} &park")


def tapped(node) -> str:
    """The UUID of the only call that is tapped to the node."""
    def starts():
        return [uuid for uuid, stream in node.streams().items() if stream.of_kind(START)]
    node.wait_until(starts, what="a start packet")
    found = starts()
    check_equal(len(found), 1, "calls tapped")
    return found[0]


def check_start(s, uuid: str, word: int, rule_id: int, features: tuple,
                report_node: str = NO_REPORT_NODE, reference: str = "") -> None:
    start = s.node.stream(uuid).start
    fields = start.fields
    check_equal(start.word, word, "call flags")
    check_equal((fields["rule_id"], fields["report_node"], fields["reference"]),
                (rule_id, report_node, reference), "fields")
    check_equal((fields["supported"], fields["active"]), features, "features")


@scenario
def sample_all_calls_taps_a_call_as_it_is_answered(s):
    call(s, "all_calls", "42")
    uuid = tapped(s.node)
    check_start(s, uuid, 0x0000, 0, (0x00, 0x00))
    s.hear(uuid, 0.5)
    check_gap_free(s.end(uuid), READ, WRITE)


@scenario
def sample_by_number_taps_its_numbers_alone(s):
    other = call(s, "by_number", "4123")
    call(s, "by_number", "5123")
    uuid = tapped(s.node)
    check_start(s, uuid, 0x8000, 17, (0x0C, 0x0C), reference="123")
    s.end(uuid)
    s.host.kill(other)


@scenario
def sample_with_recording_records_and_names_the_report_node(s):
    call(s, "with_recording", "7000")
    uuid = tapped(s.node)
    check_start(s, uuid, 0xC000, 18, (0xC0, 0xC0), report_node="192.0.2.30:5060")
    s.end(uuid)


@scenario
def sample_per_side_detection_is_completed_by_its_command(s):
    call(s, "per_side_detection", "6001")
    uuid = tapped(s.node)
    check_start(s, uuid, 0x8000, 19, (0x18, 0x10))
    answer = s.host.quorvane(f"{uuid} audio_activity start term")
    check("+OK" in answer, answer)
    update = s.node.wait_for(uuid, CONTROL).of_kind(CONTROL)[0].fields
    check_equal((update["supported"], update["active"]), (0x18, 0x18), "update")
    s.end(uuid)


@scenario
def sample_several_media_nodes_spreads_the_calls(s):
    first, second = s.host.ports.media_nodes
    with contextlib.closing(MediaNode(first)) as one, contextlib.closing(MediaNode(second)) as two:
        for node, caller in ((one, "123"), (two, "129"), (s.node, "anonymous")):
            call(s, "several_media_nodes", "42", caller)
            tapped(node)
            s.host.hang_up_everything()
        check_equal([len(node.streams()) for node in (one, two, s.node)], [1, 1, 1],
                    "calls at the three nodes")


@scenario
def sample_called_party_taps_the_outbound_channel(s):
    s.sip_address("far")  # Skips the scenario if the host has no SIP.
    call(s, "called_party", "1001")
    uuid = tapped(s.node)
    stream = s.node.stream(uuid)
    check_equal((stream.start.word, stream.start.fields["rule_id"]), (0x8001, 20), "call")
    check_equal((stream.start.fields["supported"], stream.start.fields["active"]), (0xC0, 0xC0),
                "features")
    s.hear(uuid, 0.5)
    words = {packet.word for leg in (READ, WRITE) for packet in s.end(uuid).data(leg)}
    check(words <= {0x0001, 0x8000} and words, f"leg words {words}")
