#!/usr/bin/env python3
"""Runs tools/wireshark/quorvane.lua in tshark on captures made from the golden datagrams.

Exits with 77, which CTest counts as skipped, if tshark is missing.
"""

import datetime
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import wave

import capture

ROOT = pathlib.Path(__file__).resolve().parents[2]
DATA = ROOT / "tests" / "data"
SCRIPT = ROOT / "tools" / "wireshark" / "quorvane.lua"
GOLDEN = json.loads((DATA / "golden.json").read_text(encoding="utf-8"))
CALL = sorted(name for name in GOLDEN if name.startswith("call_"))
TYPES = {"start": "0x81", "terminate": "0x82", "data": "0x83", "control": "0x84"}


def datagram(name):
    text = (DATA / f"{name}.hex").read_text(encoding="utf-8")
    return bytes.fromhex("".join(line.split("#")[0] for line in text.splitlines()))


def data(sequence_number, sample_offset, samples=8, leg=0x0000, uuid=None, key=None,
         send_time=None, value=0):
    """A data packet of the golden call with other counters; all samples have the value `value`."""
    audio = value.to_bytes(2, "little", signed=True) * samples
    packet = bytearray(datagram("call_2_read"))[:50] + audio
    packet[6:8] = leg.to_bytes(2, "little")
    packet[40:44] = sequence_number.to_bytes(4, "little")
    packet[44:48] = sample_offset.to_bytes(4, "little")
    packet[48:50] = samples.to_bytes(2, "little")
    if uuid:
        packet[16:32] = uuid
    if key:
        packet[8:16] = key
    if send_time:
        packet[32:40] = send_time.to_bytes(8, "little")
    return bytes(packet)


def frames(count, rate=8000, leg=0x0000, begin=0, paused=lambda index: 0):
    """Packets of 20 ms in real time; `paused` gives the delay of each in microseconds."""
    samples = rate // 50
    return [data(index + 1, samples * index, samples, leg=leg, value=index + 1,
                 send_time=3600020310 + begin + 20000 * index + paused(index))
            for index in range(count)]


def second_start():
    """A start packet of a second tap on the golden call, one second later."""
    packet = bytearray(datagram("call_1_start"))
    for offset in (32, 56):
        clock = int.from_bytes(packet[offset : offset + 8], "little") + 1000000
        packet[offset : offset + 8] = clock.to_bytes(8, "little")
    return bytes(packet)


def damaged(chance):
    """A golden datagram with some bytes after the magic changed, and sometimes cut short."""
    packet = bytearray(datagram(chance.choice(sorted(set(GOLDEN) - {"malformed_empty"}))))
    for _ in range(chance.randrange(8)):
        packet[chance.randrange(4, len(packet))] = chance.randrange(256)
    return bytes(packet[: chance.randrange(1, len(packet))] if chance.random() < 0.3 else packet)


def time_text(microseconds):
    moment = datetime.datetime(1970, 1, 1) + datetime.timedelta(microseconds=microseconds)
    return f"{moment:%b} {moment.day:2d}, {moment:%Y %H:%M:%S.%f}000 UTC"


def expected_text(name, value):
    """A field of golden.json as tshark prints it."""
    if name == "packet_type":
        return TYPES[value]
    if name == "magic":
        return f"0x{value:08x}"
    if name == "leg_word":
        return f"0x{value:04x}"
    if name in ("created_time", "configured_time"):
        return time_text(value)
    if name == "features":
        return f"{value['supported']:02x}{value['active']:02x}"
    if name == "audio":
        return b"".join(sample.to_bytes(2, "little", signed=True) for sample in value).hex()
    return str(value)


class Dissector(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def tshark(self, payloads, *arguments, port=5090, cut_to=None, times=None):
        """The output of tshark for a capture of these datagrams.

        They are 20 ms apart, or arrive at `times`, in microseconds.
        """
        file = self.folder / "capture.pcap"
        times = [1767225600000000 + time
                 for time in times or range(0, 20000 * len(payloads), 20000)]
        capture.write(file, zip(times, payloads), port=port, cut_to=cut_to)
        environment = dict(os.environ, HOME=str(self.folder), XDG_CONFIG_HOME=str(self.folder),
                           LC_ALL="C.UTF-8", TZ="UTC")
        result = subprocess.run(
            ["tshark", "-X", f"lua_script:{SCRIPT}", "-r", file, *arguments],
            env=environment, capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertNotIn("Lua", result.stderr + result.stdout)
        return result.stdout

    def fields(self, payloads, names, *arguments, **options):
        """The values of some fields, one row per packet."""
        columns = [part for name in names for part in ("-e", name)]
        text = self.tshark(payloads, "-T", "fields", "-E", "occurrence=f", *columns, *arguments,
                           **options)
        return [line.split("\t") for line in text.splitlines()]

    def experts(self, payloads, *arguments, **options):
        rows = self.fields(payloads, ["_ws.expert.message"], *arguments, **options)
        return [row[0] for row in rows]

    def test_every_golden_datagram_is_shown_field_by_field(self):
        golden = {name: fields for name, fields in GOLDEN.items() if "malformed" not in fields}
        columns = list(dict.fromkeys(field for fields in golden.values() for field in fields))
        rows = self.fields([datagram(name) for name in golden],
                           [f"quorvane.{column}" for column in columns])
        self.assertEqual(len(rows), len(golden))
        for (name, fields), row in zip(golden.items(), rows):
            expected = [expected_text(column, fields[column]) if column in fields else ""
                        for column in columns]
            with self.subTest(name):
                self.assertEqual(dict(zip(columns, row)), dict(zip(columns, expected)))

    def test_short_name_of_the_sequence_number_filters(self):
        packets = [data(1, 0), data(2, 8), data(3, 16)]
        rows = self.fields(packets, ["quorvane.sample_offset"], "-Y", "quorvane.seq == 2")
        self.assertEqual(rows, [["8"]])

    def test_calls_are_filtered_by_their_key(self):
        packets = [datagram("call_2_read"), datagram("data_read_outbound")]
        rows = self.fields(packets, ["frame.number"],
                           "-Y", "quorvane.call_key == 0x54c9051d9db29633")
        self.assertEqual(rows, [["2"]])

    def test_filters_of_the_readme_are_understood(self):
        text = (SCRIPT.parent / "README.md").read_text(encoding="utf-8")
        rows = [line.split("|")[1] for line in text.splitlines() if line.startswith("| `")]
        filters = [code for row in rows for code in row.strip(" `").split("`, `")]
        self.assertGreater(len(filters), 20)
        self.tshark([datagram("call_1_start")], "-Y", " || ".join(f"({code})" for code in filters))

    def test_leg_and_side_are_distinguished(self):
        packets = [datagram(name) for name in ("data_read_first", "data_write_second",
                                               "data_read_outbound", "data_write_outbound")]
        rows = self.fields(packets, ["quorvane.leg", "quorvane.call_side"])
        self.assertEqual(rows, [["0", "0"], ["1", "1"], ["0", "1"], ["1", "0"]])

    def test_features_are_given_in_words_and_as_bits(self):
        row = self.fields([datagram("start_outbound_full")], [
            "quorvane.features.words",
            "quorvane.features.supported.sample_detection_originator",
            "quorvane.features.active.sample_detection_originator",
            "quorvane.features.supported.sample_detection_terminator",
            "quorvane.features.active.recording_terminator"])[0]
        self.assertEqual(row, ["recording both running; sample detection originator stopped; "
                               "audio activity both running", "1", "0", "0", "1"])

    def test_whole_call_has_nothing_to_complain_about(self):
        names = sorted(name for name in GOLDEN if name.startswith("call_"))
        self.assertEqual(self.experts([datagram(name) for name in names]), [""] * 7)

    def test_packets_lead_to_their_start_and_to_the_one_before(self):
        names = sorted(name for name in GOLDEN if name.startswith("call_"))
        rows = self.fields([datagram(name) for name in names],
                           ["quorvane.start_frame", "quorvane.previous_frame"])
        self.assertEqual(rows, [["", ""], ["1", ""], ["1", ""], ["1", "2"], ["1", "3"], ["1", ""],
                                ["1", ""]])

    def test_wall_time_comes_from_the_start_packet(self):
        rows = self.fields([datagram("call_1_start"), datagram("call_2_read")],
                           ["quorvane.wall_time"])
        self.assertEqual(rows[1][0], time_text(1767225600125000 + 20310))

    def test_gap_counts_packets_and_samples(self):
        packets = [datagram("call_1_start"), data(1, 0), data(4, 24)]
        row = self.fields(packets, ["quorvane.lost_packets", "quorvane.lost_samples",
                                    "_ws.expert.message"], "-Y", "quorvane.expert.gap")
        self.assertEqual(row, [["2", "16", "Gap: 2 packets and 16 samples missing"]])

    def test_gap_on_one_leg_does_not_touch_the_other_nor_another_call(self):
        other = bytes(range(16))
        packets = [datagram("call_1_start"), data(1, 0), data(1, 0, leg=0x8001),
                   data(1, 0, uuid=other), data(3, 16), data(2, 8, leg=0x8001),
                   data(2, 8, uuid=other)]
        self.assertEqual(self.experts(packets)[4:], ["Gap: 1 packet and 8 samples missing", "", ""])

    def test_lost_packet_without_samples_is_a_gap_of_none(self):
        packets = [datagram("call_1_start"), data(1, 0), data(3, 8)]
        self.assertEqual(self.experts(packets)[2], "Gap: 1 packet and 0 samples missing")

    def test_counters_wrap_without_a_gap(self):
        packets = [datagram("data_before_wrap"), datagram("data_after_wrap")]
        self.assertEqual(self.experts(packets)[1], "")

    def test_gap_across_the_wrap_is_counted(self):
        packets = [datagram("call_1_start"), data(0xFFFFFFFF, 0xFFFFFFF8), data(2, 16)]
        self.assertEqual(self.experts(packets)[2], "Gap: 2 packets and 16 samples missing")

    def test_late_packet_is_distinguished_from_a_copy(self):
        packets = [datagram("call_1_start"), data(1, 0), data(3, 16), data(2, 8), data(2, 8),
                   data(4, 24)]
        self.assertEqual(self.experts(packets)[3:],
                         ["Late packet", "Copy of an earlier packet", ""])

    def test_number_behind_the_wrap_is_no_copy_of_one_that_never_came(self):
        packets = [datagram("call_1_start"), data(1, 0), data(4294967295, 0xFFFFFFF0), data(2, 8),
                   data(4294967295, 0xFFFFFFF0)]
        self.assertEqual(self.experts(packets)[2:], [
            "Packet from before the beginning of the leg", "", "Copy of an earlier packet"])

    def test_number_before_the_first_one_captured_is_late(self):
        packets = [datagram("call_1_start"), data(2, 8), data(1, 0), data(1, 0), data(3, 16)]
        self.assertEqual(self.experts(packets)[2:],
                         ["Late packet", "Copy of an earlier packet", ""])

    def test_packet_of_a_long_gap_is_late_and_no_copy(self):
        packets = [datagram("call_1_start"), data(1, 0), data(100001, 800000), data(90000, 719992)]
        self.assertEqual(self.experts(packets)[3], "Late packet")

    def test_packet_with_another_key_is_not_the_calls(self):
        packets = [datagram("call_1_start"), data(1, 0),
                   data(2, 8, key=bytes.fromhex("0102030405060708")), data(2, 8)]
        rows = self.fields(packets, ["_ws.expert.message"], "-Y", "quorvane.expert.other_key")
        self.assertEqual(rows, [["Call key 0x0807060504030201 differs from 0x34ec6ca7460833a0 "
                                 "of the call"]])
        self.assertEqual(self.experts(packets)[3], "")

    def test_start_with_another_key_begins_no_new_tap(self):
        stranger = bytearray(second_start())
        stranger[8] ^= 1
        packets = [datagram("call_1_start"), data(1, 0), bytes(stranger), data(2, 8)]
        self.assertEqual(self.fields(packets, ["quorvane.start_frame"])[3], ["1"])

    def test_delta_and_jitter_follow_the_leg(self):
        packets = frames(4) + frames(1, leg=0x8001)
        rows = self.fields(packets, ["quorvane.delta", "quorvane.send_delta", "quorvane.jitter"],
                           times=[0, 20000, 56000, 60000, 60500])
        self.assertEqual(rows, [
            ["", "", ""],
            ["20", "20", "0"],
            ["36", "20", "1"],  # 16 ms late; the jitter is a sixteenth of that.
            ["4", "20", "1.938"],  # (1 + (16 - 1) / 16), rounded.
            ["", "", ""]])

    def table(self, packets, option="quorvane,calls", **options):
        """The rows of the calls as dictionaries."""
        lines = self.tshark(packets, "-q", "-z", option, **options).splitlines()
        head = next(line.split() for line in lines if line.startswith("Call UUID"))
        rows = [line.split(None, 17) for line in lines if re.match("[0-9a-f]{8}-", line)]
        return [dict(zip(["uuid", *head[2:]], row)) for row in rows]

    def test_table_has_the_figures_of_each_side(self):
        packets = [datagram("call_1_start"), *frames(100)[:50], *frames(100)[52:],
                   *frames(60, rate=16000, leg=0x8001), data(60, 59 * 320, 320, leg=0x8001),
                   datagram("call_6_control"), datagram("call_7_terminate")]
        times = [0, *range(0, 98 * 20000, 20000), *range(0, 61 * 20000, 20000), 2000000, 2000001]
        self.assertEqual(self.table(packets, times=times), [
            {"uuid": "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37", "Side": "originator", "Leg": "read",
             "Rate": "8000", "Packets": "98", "Lost": "2", "Lost%": "2.00", "Late": "0",
             "Copies": "0", "Odd": "0", "Jitter": "0.394", "MaxJitter": "2.500",
             "MaxDelta": "20.000", "Pauses": "0", "Paused": "0.000", "Start": "1", "End": "162",
             "Features": "recording both running; audio activity both stopped"},
            {"uuid": "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37", "Side": "terminator", "Leg": "write",
             "Rate": "16000", "Packets": "60", "Lost": "0", "Lost%": "0.00", "Late": "0",
             "Copies": "1", "Odd": "0", "Jitter": "0.000", "MaxJitter": "0.000",
             "MaxDelta": "20.000", "Pauses": "0", "Paused": "0.000", "Start": "1", "End": "162",
             "Features": "recording both running; audio activity both stopped"}])

    def test_table_counts_pauses_but_not_those_that_the_sender_makes_good(self):
        on_hold = frames(200, paused=lambda index: 3000000 if index >= 100 else 0)
        held_up = frames(200, leg=0x8001,
                         paused=lambda index: max(0, 1000000 - 20000 * (index - 100))
                         if index >= 100 else 0)
        rows = self.table([datagram("call_1_start"), *on_hold, *held_up])
        self.assertEqual([(row["Rate"], row["Pauses"], row["Paused"]) for row in rows],
                         [("8000", "1", "3.000"), ("8000", "0", "0.000")])

    def test_table_of_a_filter_has_the_whole_calls_that_pass_it(self):
        other = bytes(range(16))
        packets = [datagram("call_1_start"), data(1, 0), data(3, 16), data(4, 24),
                   data(1, 0, uuid=other), data(2, 8, uuid=other)]
        rows = self.table(packets, "quorvane,calls,quorvane.expert.gap")
        self.assertEqual([(row["uuid"][:8], row["Packets"], row["Lost"]) for row in rows],
                         [("3b9f6a52", "3", "1")])

    def test_table_has_calls_without_audio_too(self):
        rows = self.table([datagram("call_1_start"), datagram("call_7_terminate")])
        self.assertEqual([(row["Side"], row["Packets"], row["End"]) for row in rows],
                         [("-", "0", "2")])

    def exported_lines(self, packets, option="", **options):
        """The folder of an export and the lines that it prints."""
        folder = self.folder / "audio"
        text = self.tshark(packets, "-q", "-z", f"quorvane,audio,{folder}{option}", **options)
        return folder, text.replace(f"{folder}/", "").split("\n\n")[0].splitlines()

    def exported(self, packets, option="", **options):
        """The samples of the files that an export writes, and its lines."""
        folder, lines = self.exported_lines(packets, option, **options)
        files = {}
        for path in folder.iterdir():
            with wave.open(str(path), "rb") as file:
                raw = file.readframes(file.getnframes())
                samples = [int.from_bytes(raw[at : at + 2], "little", signed=True)
                           for at in range(0, len(raw), 2)]
                files[path.name] = (file.getframerate(), samples)
        return files, lines

    def test_audio_of_each_side_is_exported(self):
        heard = frames(100)
        late = [*heard[:10], *heard[11:13], heard[10], *heard[13:40], *heard[42:], heard[99]]
        files, lines = self.exported([datagram("call_1_start"), *late,
                                      *frames(50, rate=16000, leg=0x8001)])
        uuid = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37"
        expected = [0 if 40 <= at // 160 < 42 else 1 + at // 160 for at in range(16000)]
        self.assertEqual(files, {
            f"{uuid}-originator.wav": (8000, expected),
            f"{uuid}-terminator.wav": (16000, [1 + at // 320 for at in range(16000)])})
        self.assertEqual(lines, [f"{uuid}-originator.wav: 16000 samples at 8000 Hz",
                                 f"{uuid}-terminator.wav: 16000 samples at 16000 Hz"])

    def test_export_takes_a_filter_and_replaces_no_file(self):
        packets = [datagram("call_1_start"), *frames(3), *frames(3, leg=0x8001)]
        self.exported(packets, ",quorvane.leg == 0")
        files, lines = self.exported(packets, ",quorvane.leg == 0")
        uuid = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37"
        self.assertEqual(sorted(files), [f"{uuid}-2-originator.wav", f"{uuid}-originator.wav"])
        self.assertEqual(lines, [f"{uuid}-2-originator.wav: 480 samples at 8000 Hz (assumed)"])

    def test_export_of_a_call_that_the_capture_joins_begins_with_its_audio(self):
        packets = [data(2001, 320000, value=5), data(2003, 320016, value=6)]
        files, _ = self.exported(packets)
        self.assertEqual(list(files.values()), [(8000, [5] * 8 + [0] * 8 + [6] * 8)])

    def test_export_leaves_out_silence_beyond_belief(self):
        packets = [data(1, 0, value=5), data(2, 0x70000000, value=6)]
        files, _ = self.exported(packets)
        self.assertEqual(list(files.values()), [(8000, [5] * 8 + [6] * 8)])

    def refusal(self, option):
        """The message of tshark about a -z option that it refuses."""
        file = self.folder / "capture.pcap"
        capture.write(file, [(0, packet) for packet in frames(2)])
        result = subprocess.run(
            ["tshark", "-X", f"lua_script:{SCRIPT}", "-r", file, "-q", "-z", option],
            capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(result.returncode, 1, result.stderr)
        return result.stderr

    def test_option_that_cannot_be_followed_is_refused_with_the_reason(self):
        self.assertIn(f"-z quorvane,audio,{SCRIPT}: cannot make the folder {SCRIPT}\n",
                      self.refusal(f"quorvane,audio,{SCRIPT}"))
        self.assertIn("-z quorvane,audio: no folder was given\n", self.refusal("quorvane,audio"))
        for option in ("calls", "audio,out"):
            self.assertIn(f"-z quorvane,{option},a b: the filter 'a b' is not understood: ",
                          self.refusal(f"quorvane,{option},a b"))

    def test_file_that_cannot_be_written_is_reported_and_the_others_are_written(self):
        folder = self.folder / "audio"
        folder.mkdir()
        uuid = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37"
        (folder / f"{uuid}-originator.wav").symlink_to("/nowhere/at/all")
        _, lines = self.exported_lines([datagram("call_1_start"), *frames(3),
                                        *frames(3, leg=0x8001)])
        self.assertEqual(lines, [
            f"{uuid}-originator.wav: No such file or directory",
            f"{uuid}-terminator.wav: 480 samples at 8000 Hz (assumed)"])

    def test_field_that_a_filter_asks_for_is_there_without_the_rest(self):
        """If a filter needs only some fields of a packet, they have the same values as usual."""
        packets = [datagram(name) for name in CALL] + [data(1, 0), data(5, 32)]
        fields = [f"quorvane.{name}" for name in (
            "outbound", "leg", "seq", "audio", "created_time", "call_reference", "features.words",
            "features.active.recording_originator", "wall_time", "start_frame", "jitter",
            "lost_samples")]
        whole = self.fields(packets, ["frame.number", *fields])
        for column, name in enumerate(fields, start=1):
            expected = [row[0] for row in whole if row[column] != ""]
            text = self.tshark(packets, "-Y", name)
            with self.subTest(name):
                self.assertNotEqual(expected, [])
                self.assertEqual([line.split()[0] for line in text.splitlines()], expected)

    def test_second_look_finds_the_same(self):
        packets = [datagram("call_1_start"), data(1, 0), data(3, 16), data(2, 8)]
        self.assertEqual(self.experts(packets, "-2"), self.experts(packets))

    def test_jump_of_the_offset_alone_is_an_error(self):
        packets = [datagram("call_1_start"), data(1, 0), data(2, 80), data(3, 88)]
        self.assertEqual(self.experts(packets)[2:],
                         ["Sample offset jump of 72 without a missing packet", ""])

    def test_offset_that_goes_back_behind_a_gap_is_an_error_too(self):
        packets = [datagram("call_1_start"), data(1, 100), data(4, 8), data(5, 16)]
        row = self.fields(packets, ["quorvane.lost_packets", "quorvane.lost_samples",
                                    "_ws.expert.message"], "-Y", "quorvane.expert.offset_jump")
        self.assertEqual(row, [["2", "", "Gap: 2 packets missing"]])
        shown = self.tshark(packets, "-V")
        self.assertEqual(shown.count("): Sample offset jump of -100 behind missing packets"), 1)
        self.assertEqual(self.experts(packets)[3], "")

    def test_second_tap_on_a_call_counts_from_the_beginning(self):
        packets = [datagram("call_1_start"), data(1, 0), data(2, 8), datagram("call_7_terminate"),
                   second_start(), data(1, 0), data(2, 8)]
        self.assertEqual(self.experts(packets), [""] * 7)

    def test_copy_of_the_start_packet_begins_nothing(self):
        packets = [datagram("call_1_start"), data(1, 0), datagram("call_1_start"), data(2, 8)]
        self.assertEqual(self.experts(packets), [""] * 4)

    def test_capture_that_begins_in_the_middle_says_so(self):
        rows = self.tshark([data(7, 48), data(8, 56)], "-V")
        self.assertEqual(rows.count("(Note/Sequence): No start packet in this capture"), 1)
        self.assertEqual(rows.count("(Note/Sequence): The beginning of the leg is not in this"), 1)

    def test_malformed_datagrams_get_their_reason(self):
        reasons = {
            "malformed_control_trailing": "Wrong length: 43 bytes where the packet asks for 42",
            "malformed_control_truncated": "Wrong length: 41 bytes where the packet asks for 42",
            "malformed_data_audio_truncated": "Wrong length: 57 bytes where the packet asks for 58",
            "malformed_data_too_many_samples": "662 samples, at most 661 fit",
            "malformed_data_trailing": "Wrong length: 56 bytes where the packet asks for 54",
            "malformed_data_truncated": "Wrong length: 49 bytes where the packet asks for 50",
            "malformed_header_truncated": "Wrong length: 39 bytes, shorter than the common header",
            "malformed_magic": "Bad magic ff00fe00",
            "malformed_magic_swapped": "Bad magic 00ff00ff",
            "malformed_start_reference_absent": "Call reference without its zero byte",
            "malformed_start_reference_open": "Call reference without its zero byte",
            "malformed_start_reference_truncated":
                "Wrong length: 86 bytes where the packet asks for 87",
            "malformed_start_too_long": "1377 bytes, longer than any packet",
            "malformed_start_trailing": "Wrong length: 87 bytes where the packet asks for 86",
            "malformed_start_truncated": "Wrong length: 81 bytes where the packet asks for 82",
            "malformed_terminate_trailing": "Wrong length: 41 bytes where the packet asks for 40",
            "malformed_type": "Unknown packet type 0x85",
            "malformed_version": "Unknown protocol version 2",
        }
        # Wireshark never passes an empty datagram to a dissector.
        malformed = {name for name, entry in GOLDEN.items() if "malformed" in entry}
        self.assertEqual(set(reasons), malformed - {"malformed_empty"})
        packets = [datagram("call_1_start")] + [datagram(name) for name in reasons]
        self.assertEqual(self.experts(packets)[1:], list(reasons.values()))
        for line, reason in zip(self.tshark(packets).splitlines()[1:], reasons.values()):
            self.assertTrue(line.endswith(f"[{reason}]"), line)

    def test_damaged_datagrams_are_shown_without_an_error_of_the_script(self):
        chance = random.Random(1)
        text = self.tshark([damaged(chance) for _ in range(400)], "-V")
        self.assertGreater(text.count("Quorvane media transfer"), 300)

    def test_malformed_data_is_left_out_of_the_order(self):
        packets = [datagram("call_1_start"), data(1, 0), data(2, 8)[:-1], data(2, 8)]
        self.assertEqual(self.experts(packets)[3], "")

    def test_any_port_is_recognised_by_the_magic(self):
        for port in (1025, 65535):
            rows = self.fields([datagram("call_1_start")], ["quorvane.call_reference"], port=port)
            self.assertEqual(rows, [["a84b4c76e66710@192.0.2.7"]])

    def test_port_of_another_protocol_is_recognised_when_asked_for(self):
        for option in ("udp.try_heuristic_first:TRUE", "quorvane.ports:5060"):
            rows = self.fields([datagram("call_1_start")], ["quorvane.call_reference"],
                               "-o", option, port=5060)
            self.assertEqual(rows, [["a84b4c76e66710@192.0.2.7"]])

    def test_other_traffic_is_left_alone(self):
        self.assertEqual(self.fields([b"hello, world"], ["quorvane.magic", "udp.length"]),
                         [["", "20"]])

    def test_port_preference_claims_its_ports_alone(self):
        preference = ("-o", "quorvane.ports:5000-5010,6000")
        bad = [datagram("malformed_magic")]
        self.assertEqual(self.experts(bad, *preference, port=5007), ["Bad magic ff00fe00"])
        self.assertEqual(self.experts(bad, *preference, port=6000), ["Bad magic ff00fe00"])
        self.assertEqual(self.experts(bad, *preference, port=5011), [""])

    def test_decode_as_claims_a_port(self):
        bad = [datagram("malformed_magic")]
        self.assertEqual(self.experts(bad, "-d", "udp.port==7777,quorvane", port=7777),
                         ["Bad magic ff00fe00"])

    def test_audio_is_marked_with_its_side(self):
        text = self.tshark([datagram("data_write_second")], "-V")
        self.assertIn("Audio of the terminator: 160 samples, 16-bit linear, little-endian", text)

    def test_info_column_tells_the_packet(self):
        names = ("call_1_start", "call_2_read", "call_6_control", "call_7_terminate")
        lines = self.tshark([datagram(name) for name in names]).splitlines()
        for line, info in zip(lines, (
                'Start 3b9f6a52 inbound, reference "a84b4c76e66710@192.0.2.7", features: '
                'recording both running; audio activity both running',
                'Data 3b9f6a52 read originator, seq=1, offset=0, samples=8',
                'Control 3b9f6a52 features: recording both running; audio activity both stopped',
                'Terminate 3b9f6a52')):
            self.assertTrue(line.endswith(info), line)
            self.assertIn("QUORVANE", line)

    def test_capture_that_cuts_packets_short_is_no_error(self):
        packets = [datagram("call_1_start"), data(1, 0, 160), data(2, 160, 160), data(4, 480, 160)]
        self.assertEqual(self.experts(packets, cut_to=28 + 70),
                         ["", "", "", "Gap: 1 packet and 160 samples missing"])
        self.assertEqual(self.experts(packets, cut_to=28 + 90)[0], "")
        self.assertEqual(self.experts(packets, cut_to=28 + 45), [""] * 4)
        self.assertEqual(self.experts(packets, cut_to=28 + 20), [""] * 4)


if __name__ == "__main__":
    if not shutil.which("tshark"):
        print("skipped: tshark is not installed (Debian: apt-get install tshark)")
        sys.exit(77)
    unittest.main()
