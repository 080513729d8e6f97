"""Other threads of the host work on a call while it is tapped, and events arrive late."""

import contextlib
import threading
import uuid as uuids

from harness.held_events import held_events
from harness.media_node import READ, TERMINATE, WRITE
from harness.suite import check, check_equal, check_gap_free, check_one_life, scenario


class Meddling:
    """Connections that send commands about one call after another, as fast as they can."""

    def __init__(self, host, commands: list):
        self._host, self._commands = host, commands
        self._over = threading.Event()
        self._threads = [threading.Thread(target=self._run, args=(part,)) for part in range(2)]
        self.uuid = None
        self.count = 0

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        for thread in self._threads:
            thread.join()

    def _run(self, part: int) -> None:
        with contextlib.closing(self._host.new_connection()) as connection:
            while not self._over.is_set():
                for command in self._commands[part::2]:
                    connection.api(command.format(uuid=self.uuid))
                    self.count += 1


@scenario
def variables_that_others_set_while_the_tap_starts_do_no_harm(s):
    """The module does not read these variables, but the host's list of variables changes."""
    commands = [f"uuid_setvar {{uuid}} other_{number} value_{number}" for number in range(6)]
    commands += [f"uuid_setvar {{uuid}} other_{number}" for number in range(6)]
    with Meddling(s.host, commands) as others:
        for _ in range(30):
            others.uuid = str(uuids.uuid4())
            s.tap(f"origination_uuid={others.uuid},quorvane_rule_id=7,"
                  "quorvane_call_id_ref=ticket,ticket=4711")
        check(others.count > 100, f"only {others.count} commands were sent")
    # Occasionally the host loses a state change, and such a call stays in its state.
    s.node.wait_until(lambda: len(s.node.streams()) > 20, what="the starts of the calls")
    for stream in s.node.streams().values():
        fields = stream.start.fields
        check_equal((fields["rule_id"], fields["reference"]), (7, "4711"), "fields")


@scenario
def calls_under_a_storm_of_commands_stay_whole(s):
    commands = ["uuid_dump {uuid}", "uuid_buglist {uuid}", "quorvane {uuid} features",
                "quorvane {uuid} audio_activity stop both", "uuid_getvar {uuid} sip_call_id",
                "quorvane {uuid} audio_activity start both"]
    with Meddling(s.host, commands) as others:
        for _ in range(8):
            uuid = others.uuid = s.tap("quorvane_rule_id=7,quorvane_audio_activity=true")
            s.hear(uuid, 0.4)
            stream = s.end(uuid)
            check_one_life(stream)
            check_gap_free(stream, READ, WRITE)
    check_equal(s.node.malformed, [], "malformed datagrams")


@scenario
def calls_that_come_and_go_while_events_are_late_leave_nothing_behind(s):
    mark = s.host.log_mark()
    untapped = s.park()
    s.host.quorvane(f"{untapped} detection start")
    with held_events(s):
        for position in range(20):
            uuid = s.tap()
            if position % 2:
                s.host.kill(uuid)
        s.host.kill(untapped)
    s.host.hang_up_everything()
    s.host.wait_for_line(mark, f"{untapped}: found app context on channel destroy", timeout=30)
    streams = s.node.streams()
    check(len(streams) > 8, f"only {len(streams)} calls were tapped")
    for uuid in streams:
        check_one_life(s.node.wait_for(uuid, TERMINATE))
    check(not [line for line in s.host.module_lines(mark) if "MAGIC" in line], "MAGIC lines")
