"""What may happen to the module and the host while calls are tapped. Each scenario has its own
host."""

import time

from harness.media_node import READ, WRITE
from harness.suite import check, check_equal, check_gap_free, check_heard, scenario


def start_calls(s, host, count: int) -> list:
    uuids = [s.tap(host=host) for _ in range(count)]
    for uuid in uuids:
        s.node.wait_for(uuid, 0x83, count=10)
    return uuids


@scenario
def unloading_under_tapped_calls_leaves_them_running(s):
    with s.own_host() as host:
        uuids = start_calls(s, host, 3)
        check_equal(host.unload_module(), "+OK", "unload")
        time.sleep(1)
        check(host.is_running(), "the host is gone")
        check(all(uuid in host.api("show channels") for uuid in uuids), "a call is gone")
        for uuid in uuids:
            host.kill(uuid)
            host.events.wait_for("CHANNEL_DESTROY", uuid)
        check_equal(host.stop(), 0, "exit status of the host")


@scenario
def loading_again_under_tapped_calls_serves_old_and_new_calls(s):
    with s.own_host() as host:
        old = start_calls(s, host, 2)
        check_equal(host.unload_module(), "+OK", "unload")
        check(host.load_module().endswith("+OK"), "the module does not load again")
        new = start_calls(s, host, 2)
        time.sleep(1)
        for uuid in old + new:
            host.kill(uuid)
            s.node.wait_for(uuid, 0x82)
        for uuid in new:
            check_gap_free(s.node.stream(uuid), READ, WRITE)
            check_heard(s.node.stream(uuid), READ, s.far, 0.5)
        check_equal(host.unload_module(), "+OK", "second unload")
        check_equal(host.stop(), 0, "exit status of the host")


def is_mapped(host) -> bool:
    with open(f"/proc/{host.pid}/maps", encoding="utf-8") as maps:
        return any("mod_quorvane.so" in line for line in maps)


@scenario
def code_kept_for_tapped_calls_goes_with_the_last_of_them(s):
    with s.own_host() as host:
        first, last = start_calls(s, host, 2)
        host.unload_module()
        host.kill(first)
        host.events.wait_for("CHANNEL_DESTROY", first)
        time.sleep(1.5)
        check(is_mapped(host), "the code is gone although a call is tapped")
        host.kill(last)
        host.events.wait_for("CHANNEL_DESTROY", last)
        # The host keeps a session's thread for later calls until it has been idle for 5 to 10 s.
        deadline = time.monotonic() + 30
        while is_mapped(host) and time.monotonic() < deadline:
            time.sleep(0.1)
        check(not is_mapped(host), "the code is still there after the last tapped call")
        check(host.load_module().endswith("+OK"), "the module does not load again")
        check_equal(host.unload_module(), "+OK", "idle unload")
        check(not is_mapped(host), "the code is still there after an idle unload")


@scenario
def unloading_and_loading_twenty_times_under_calls_does_no_harm(s):
    with s.own_host() as host:
        for _ in range(20):
            uuid = s.tap(host=host)
            s.node.wait_for(uuid, 0x83, count=5)
            check_equal(host.unload_module(), "+OK", "unload")
            check(host.load_module().endswith("+OK"), "the module does not load again")
        host.hang_up_everything()
        check_equal(host.stop(), 0, "exit status of the host")


@scenario
def the_host_shuts_down_in_order_with_calls_running(s):
    with s.own_host() as host:
        uuids = start_calls(s, host, 5)
        check_equal(host.stop(), 0, "exit status of the host")
        for uuid in uuids:
            check_equal(len(s.node.wait_for(uuid, 0x82).of_kind(0x82)), 1, "terminate packets")


@scenario
def a_host_told_to_stop_at_once_exits_cleanly_and_sends_no_more(s):
    with s.own_host() as host:
        uuids = start_calls(s, host, 3)
        try:
            host.api("fsctl shutdown now")
        except OSError:
            pass
        check_equal(host.wait_for_end(20), 0, "exit status of the host")
        time.sleep(0.3)
        check(not [u for u in uuids if s.node.stream(u).of_kind(0x82)], "terminate packets")


@scenario
def the_log_level_system_ends_the_host(s):
    host = s.make_host("own")
    try:
        host.write_module_configuration(log_level="SYSTEM")
        host.start()
        try:
            host.load_module()
        except OSError:
            pass
        check_equal(host.wait_for_end(20), -6, "exit status of the host (6: SIGABRT)")
    finally:
        host.close()
