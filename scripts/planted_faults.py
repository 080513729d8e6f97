#!/usr/bin/env python3
"""Plants faults in a copy of the sources and shows that fuzzing finds each of them.

    scripts/planted_faults.py                 every fault
    scripts/planted_faults.py NAME...         only these
    scripts/planted_faults.py --list          prints their names
    scripts/planted_faults.py --check         only checks that every fault can still be planted

    --seconds N       gives up on a fault after fuzzing for N seconds (60)
    --without-seeds   starts without the committed inputs

Each fault is a change of one line. It is planted in a copy of the working tree in
build/planted. Then the target "module" is built and run from the committed inputs until it fails.
Exits with 1 if a fault was not found, and with 2 if one cannot be planted because its line is
gone, or if the target fails without a fault.
"""
import argparse
import collections
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPY = ROOT / "build" / "planted"

Fault = collections.namedtuple("Fault", "name file line planted")

FAULTS = [
    Fault("odd_frame_is_not_counted", "module/media_transfer.cpp",
          "stream.odd_frames += frame->datalen & 1U;",
          "stream.odd_frames += 0U;"),
    Fault("log_level_is_not_applied", "module/mod_quorvane.cpp",
          "log::Logger::set_level(global.config.level);",
          "(void)global.config.level;"),
    Fault("session_stays_locked_after_an_exception", "module/api_command.cpp",
          "~SessionApiCommand() override { unlock(); }",
          "~SessionApiCommand() override = default;"),
    Fault("start_packet_is_one_byte_too_long", "module/media_transfer.cpp",
          "context.media_node, media::CALL_REFERENCE_OFFSET + length);",
          "context.media_node, media::CALL_REFERENCE_OFFSET + length + 1);"),
    Fault("key_covers_only_15_bytes_of_the_uuid", "module/app_context.cpp",
          "return hash::CRC64::compute(uuid, media::UUID_SIZE);",
          "return hash::CRC64::compute(uuid, media::UUID_SIZE - 1);"),
    Fault("application_runs_twice_on_a_call", "module/mod_quorvane.cpp",
          "} else if (found->second->created_time != 0) {",
          "} else if (found->second->created_time == 1) {"),
    Fault("stop_leaves_the_feature_active", "include/quorvane/media_packet.h",
          "const unsigned kept = features.active & ~mask;",
          "const unsigned kept = features.active;"),
    Fault("control_packet_has_the_old_features", "module/media_transfer.cpp",
          "packet.put_features(media::CONTROL_FEATURES_OFFSET, context.requested_features);",
          "packet.put_features(media::CONTROL_FEATURES_OFFSET, context.features);"),
    Fault("sequence_number_skips_zero", "module/media_transfer.cpp",
          "packet.put_u32(media::SEQUENCE_NUMBER_OFFSET, ++stream.sequence_number);",
          "packet.put_u32(media::SEQUENCE_NUMBER_OFFSET, "
          "++stream.sequence_number == 0 ? ++stream.sequence_number : stream.sequence_number);"),
    Fault("terminate_packet_has_the_flags_of_the_call", "module/media_transfer.cpp",
          "Packet packet(PacketType::TERMINATE, media::TERMINATE_LEG_WORD, context);",
          "Packet packet(PacketType::TERMINATE, context.flags, context);"),
    Fault("short_send_repeats_the_beginning", "quorvane_lib/net_socket.cpp",
          "::sendto(target, data + sent, size - sent, 0, generic(to), sizeof(to));",
          "::sendto(target, data, size - sent, 0, generic(to), sizeof(to));"),
    Fault("reload_keeps_the_old_options", "module/mod_quorvane.cpp",
          "    global.config = Configuration();",
          "    (void)global.config;"),
    Fault("start_waits_too_short_for_room", "module/media_transfer.cpp",
          "constexpr std::chrono::milliseconds START_PATIENCE{250};",
          "constexpr std::chrono::milliseconds START_PATIENCE{100};"),
    Fault("refusal_looks_at_other_features", "module/api_command.cpp",
          "const std::uint8_t supported = requested.supported & media::feature_mask(FEATURE);",
          "const std::uint8_t supported = requested.supported;"),
]


class Stale(Exception):
    """A fault that cannot be planted."""


def faulty(fault, root):
    """The content of the fault's file, with the fault."""
    try:
        content = (root / fault.file).read_text(encoding="utf-8")
    except OSError as error:
        raise Stale(f"{fault.name}: cannot read {fault.file}: {error.strerror}") from error
    count = content.count(fault.line)
    if count != 1:
        raise Stale(f"{fault.name}: {fault.file} has this line {count} times instead of once: "
                    f"{fault.line.strip()}")
    return content.replace(fault.line, fault.planted)


def copy_sources():
    """Brings the copy up to date; unchanged files keep their times, so little is built."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others",
                             "--exclude-standard"], cwd=ROOT, check=True, capture_output=True)
    for name in filter(None, listed.stdout.decode().split("\0")):
        source, target = ROOT / name, COPY / name
        if not source.is_file():
            continue
        content = source.read_bytes()
        if not target.is_file() or target.read_bytes() != content:
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(content)
            target.chmod(source.stat().st_mode)


def build():
    environment = dict(os.environ, CCACHE_BASEDIR=str(COPY), CCACHE_NOHASHDIR="true")
    commands = [["cmake", "--build", "--preset", "fuzz", "--target", "fuzz_module"]]
    if not (COPY / "build" / "fuzz" / "CMakeCache.txt").is_file():
        commands.insert(0, ["cmake", "--preset", "fuzz"])
    for command in commands:
        done = subprocess.run(command, cwd=COPY, env=environment, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False)
        if done.returncode != 0:
            raise SystemExit(f"planted_faults: {' '.join(command)} failed:\n{done.stdout[-3000:]}")


def fuzz(seconds, seeds, runs=None):
    """Runs the target. Returns whether it failed, and its output."""
    with tempfile.TemporaryDirectory() as folder:
        program = COPY / "build" / "fuzz" / "fuzz" / "fuzz_module"
        corpus = [str(COPY / "fuzz" / "corpus" / "module")] if seeds else []
        options = (COPY / "fuzz" / "fuzz_module.options").read_text().split()
        limit = (program.parent / "fuzz_module.max_length").read_text()
        command = [str(program), folder, *corpus, *options, f"-max_len={limit}",
                   f"-dict={COPY / 'fuzz' / 'fuzz_module.dict'}", f"-max_total_time={seconds}",
                   f"-artifact_prefix={folder}/failed-", "-timeout=20"]
        if runs is not None:
            command.append(f"-runs={runs}")
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=False)
    return done.returncode != 0, done.stdout.decode("utf-8", "replace")


def how_it_was_found(output):
    """The disagreement or the sanitizer's report, and after how many inputs."""
    found = re.search(r"^(.* differs|does not hold: .*|.*ERROR: \w+Sanitizer: .*?)$", output,
                      re.MULTILINE)
    what = found.group(1) if found else "the program failed"
    counts = re.findall(r"^#(\d+)\t", output, re.MULTILINE)
    when = f"after {counts[-1]} inputs" if "INITED" in output and counts else "by a committed input"
    return f"{when}: {what[:70]}"


def show(fault, arguments):
    """Plants the fault and fuzzes. Returns whether it was found."""
    path = COPY / fault.file
    intact = path.read_bytes()
    path.write_text(faulty(fault, COPY), encoding="utf-8")
    try:
        build()
        failed, output = fuzz(arguments.seconds, not arguments.without_seeds)
    finally:
        path.write_bytes(intact)
    result = how_it_was_found(output) if failed else f"NOT FOUND in {arguments.seconds} s"
    print(f"{fault.name:45} {result}", flush=True)
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("names", nargs="*", metavar="NAME")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--without-seeds", action="store_true")
    arguments = parser.parse_args()
    known = {fault.name: fault for fault in FAULTS}
    for name in arguments.names:
        if name not in known:
            parser.error(f"no fault '{name}'; --list shows their names")
    faults = [known[name] for name in arguments.names] or FAULTS
    if arguments.list:
        print("\n".join(known))
        return 0
    for fault in faults:
        faulty(fault, ROOT)
    if arguments.check:
        print(f"{len(faults)} faults can be planted")
        return 0

    copy_sources()
    build()
    failed, output = fuzz(arguments.seconds, seeds=True, runs=0)
    if failed:
        print(f"planted_faults: the target fails without a fault:\n{output[-3000:]}",
              file=sys.stderr)
        return 2
    found = [show(fault, arguments) for fault in faults]
    print(f"{sum(found)} of {len(found)} faults found")
    return 0 if all(found) else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Stale as stale:
        print(f"planted_faults: {stale}", file=sys.stderr)
        sys.exit(2)
