"""Loading, unloading, the global commands, dump modes."""

import re

from harness.media_node import TERMINATE
from harness.suite import check, check_equal, eventually, scenario

USAGE = ("-USAGE: version|dump_events|media_node|default_audio_activity|default_detection || "
         "<uuid> audio_acttivity|detection|features")
BUILD = r"[0-9]{6}:[0-9]{6} [0-9a-f]{16}@[a-z]+"


@scenario
def loading_is_told_line_by_line(s):
    s.host.unload_module()
    mark = s.host.log_mark()
    check(s.host.load_module().endswith("+OK"), "the module does not load")
    lines = s.host.module_lines(mark)
    check(re.fullmatch(f'NOTICE build version: "{BUILD}"', lines[0]), lines[0])
    check_equal(lines[1:], [
        "NOTICE CONFIGURATION: reading from file [/etc/delmaren/quorvane/freeswitch_mod.conf]"
        if s.host.module.parent.name != "relocated" else
        "NOTICE CONFIGURATION: reading from file [etc/delmaren/quorvane/freeswitch_mod.conf]",
        f"NOTICE CONFIGURATION: option [media_node] is set to [{s.node.address}]",
        "NOTICE CONFIGURATION: option [log_level] is set to [DEBUG]",
        "NOTICE configuration loaded", "NOTICE transfer socket opened",
        "NOTICE module has been loaded"], "load messages")


@scenario
def the_five_global_commands_answer_over_the_event_socket(s):
    s.reload_module(dump_events="channel-short", default_audio_activity="true",
                    default_detection="orig")
    check(re.fullmatch(BUILD, s.host.quorvane("version").strip()), s.host.quorvane("version"))
    check_equal(s.host.quorvane("dump_events"), "channel-short\n", "dump_events")
    check_equal(s.host.quorvane("media_node"), f"{s.node.address}\n", "media_node")
    check_equal(s.host.quorvane("default_audio_activity"), "true\n", "default_audio_activity")
    check_equal(s.host.quorvane("default_detection"), "orig\n", "default_detection")
    s.reload_module()


@scenario
def a_wrong_command_is_answered_with_the_usage(s):
    check_equal(s.host.quorvane(""), f"-ERR, bad command!\n{USAGE}\n", "no words")
    check_equal(s.host.quorvane("foo"),
                f'-ERR, neither uuid nor known command "foo"!\n{USAGE}\n', "foo")


@scenario
def the_host_shows_the_application_and_the_command(s):
    check(eventually(lambda: "quorvane,Start quorvane detection" in
                     s.host.api("show application")), "application")
    check(eventually(lambda: "quorvane,quorvane analyzes and detection" in
                     s.host.api("show api")), "command")


@scenario
def an_idle_module_unloads_and_loads_again(s):
    for _ in range(3):
        mark = s.host.log_mark()
        check_equal(s.host.unload_module(), "+OK", "unload")
        check_equal(s.host.module_lines(mark), ["NOTICE module has been shutdown"], "lines")
        check(s.host.quorvane("version").startswith("-ERR quorvane Command not found"), "version")
        check(s.host.load_module().endswith("+OK"), "the module does not load again")
    check(re.fullmatch(BUILD, s.host.quorvane("version").strip()), "version after loading again")


@scenario
def a_configuration_that_does_not_parse_refuses_the_load(s):
    s.host.unload_module()
    s.host.module_configuration.write_text("media_node=127.0.0.1:1\nlog_level=debug\n")
    mark = s.host.log_mark()
    check("-ERR" in s.host.load_module(), "the module loads")
    check_equal(s.host.module_lines(mark)[-1], "ERR failed to load config file "
                f"[{s.host.module_lines(mark)[1].split('[')[1]}", "last line")
    s.host.write_module_configuration(media_node=s.node.address, log_level="DEBUG")
    check(s.host.load_module().endswith("+OK"), "the module does not load afterwards")


def dumped_by(s, mode: str) -> list:
    """The lines that the log gets from a short call with this dump mode."""
    s.reload_module(dump_events=mode)
    mark = s.host.log_mark()
    uuid = s.tap()
    s.hear(uuid, 0.3)
    s.end(uuid)
    if mode != "none":
        s.host.wait_for_line(mark, "CHANNEL_DESTROY")
    s.host.flush_log()
    lines = s.host.log_since(mark)
    s.reload_module()
    return lines


@scenario
def dump_mode_none_writes_no_events(s):
    lines = dumped_by(s, "none")
    check(not [line for line in lines if "[CRIT]" in line], "CRIT lines appear")


@scenario
def dump_mode_channel_short_writes_one_line_per_channel_event(s):
    lines = [line for line in dumped_by(s, "channel-short") if "[CRIT]" in line]
    for name in ("CHANNEL_CREATE", "CHANNEL_ANSWER", "CHANNEL_HANGUP", "CHANNEL_DESTROY"):
        check([line for line in lines if re.search(
            rf"\[quorvane\]: [0-9a-f-]{{36}} {name}: state=\w*, call-state=\w*$", line)], name)


@scenario
def dump_mode_channel_writes_whole_channel_events_only(s):
    text = "\n".join(dumped_by(s, "channel"))
    check("DUMP\nEvent-Name: [CHANNEL_DESTROY]" in text, "no dump of CHANNEL_DESTROY")
    check("Event-Name: [MEDIA_BUG_START]" not in text, "an event that is no channel event")


@scenario
def dump_mode_all_writes_other_events_too(s):
    text = "\n".join(dumped_by(s, "all"))
    for name in ("CHANNEL_CREATE", "MEDIA_BUG_START", "CHANNEL_DESTROY"):
        check(f"DUMP\nEvent-Name: [{name}]" in text, f"no dump of {name}")


@scenario
def every_packet_leaves_from_one_source_port(s):
    s.node.sources.clear()
    calls = [s.tap() for _ in range(3)]
    s.hear(calls[0], 0.5)
    for uuid in calls:
        s.end(uuid)
    check_equal(len(s.node.sources), 1, "source addresses and ports")
    check_equal(len([u for u in calls if s.node.stream(u).of_kind(TERMINATE)]), 3, "terminated")
