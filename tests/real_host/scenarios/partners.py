"""The other party changes: transfer, bridge, pickup, attended transfer."""

from harness.media_node import READ, WRITE
from harness.suite import (check, check_gap_free, check_heard, check_one_life, is_heard,
                           scenario)


@scenario
def a_transferred_call_stays_one_stream(s):
    uuid = s.tap()
    s.hear(uuid, 1.5)
    s.host.api(f"uuid_transfer {uuid} third XML scenarios")
    s.hear(uuid, 1.5)
    stream = s.end(uuid)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, WRITE, s.near, 0.7)
    check_heard(stream, WRITE, s.third, 0.7)


@scenario
def a_bridged_leg_hears_its_partner_to_the_bit(s):
    uuid, _ = s.tap_bridge()
    for _ in range(4):  # A busy host skips frames, so two seconds without a skip take their time.
        stream = s.hear(uuid, 4)
        if is_heard(stream, READ, s.far, 2) and is_heard(stream, WRITE, s.third, 2):
            break
    stream = s.end(uuid)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, READ, s.far, 2)
    check_heard(stream, WRITE, s.third, 2)


@scenario
def a_leg_bridged_by_command_stays_one_stream(s):
    uuid, _ = s.tap_bridge()
    other = s.host.originate("{absolute_codec_string=PCMU}"
                             f"{s.sip_address('echo')} near XML scenarios")
    s.hear(uuid, 1)
    s.host.api(f"uuid_bridge {uuid} {other}")
    s.hear(uuid, 2)
    stream = s.end(uuid)
    s.host.kill(other)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, WRITE, s.third, 0.5)


@scenario
def a_third_party_that_intercepts_the_tapped_leg_is_heard(s):
    uuid, _ = s.tap_bridge()
    s.hear(uuid, 1)
    picker = s.host.originate("{absolute_codec_string=PCMU}"
                              f"{s.sip_address('near_far_end')} 'intercept:{uuid}' inline")
    s.hear(uuid, 2)
    check("ACTIVE" in s.host.api("show calls"), "the tapped call is gone")
    stream = s.end(uuid)
    s.host.kill(picker)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, WRITE, s.third, 0.5)
    check_heard(stream, WRITE, s.near, 0.7)


@scenario
def an_intercepted_partner_ends_the_tapped_leg(s):
    uuid, partner = s.tap_bridge("hangup_after_bridge=true")
    s.hear(uuid, 1)
    picker = s.host.originate("{absolute_codec_string=PCMU}"
                              f"{s.sip_address('near_far_end')} 'intercept:{partner}' inline")
    stream = s.ended(uuid)
    s.host.kill(picker)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)


@scenario
def an_attended_transfer_by_the_partner_stays_one_stream(s):
    uuid, partner = s.tap_bridge()
    s.hear(uuid, 1)
    s.host.api(f"uuid_broadcast {partner} "
               f"att_xfer::{{absolute_codec_string=PCMU}}{s.sip_address('near_far_end')} aleg")
    s.hear(uuid, 1.5)
    s.host.kill(partner)
    s.hear(uuid, 2)
    check(uuid in s.host.api("show calls"), "the tapped leg did not survive its partner")
    stream = s.end(uuid)
    check_one_life(stream)
    check_gap_free(stream, READ, WRITE)
    check_heard(stream, WRITE, s.third, 0.5)
    check_heard(stream, WRITE, s.near, 0.7)
