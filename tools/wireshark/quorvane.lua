-- Dissector of the media transfer protocol for Wireshark and tshark 4.0 and
-- later; docs/protocol.md describes the packets, README.md beside this file how
-- to install and use it.
--
-- A first pass follows the legs of every call, so that gaps, late packets and
-- copies are known when a packet is shown; `seen` keeps what it found, and the
-- calls keep what the statistics need.
--
-- Every call into Wireshark costs about a microsecond. A packet is therefore read
-- with one call (read_packet), and fields that nobody looks at are not added
-- (is_wanted). README.md has the measurements.

local quorvane = Proto("quorvane", "Quorvane media transfer")

local START, TERMINATE, DATA, CONTROL = 0x81, 0x82, 0x83, 0x84
local TYPE_NAMES = {
    [START] = "start", [TERMINATE] = "terminate", [DATA] = "data", [CONTROL] = "control",
}
local INFO_NAMES = {
    [START] = "Start", [TERMINATE] = "Terminate", [DATA] = "Data", [CONTROL] = "Control",
}
local HEADER_SIZE = 40
local START_SIZE = 82 -- Without the call reference.
local DATA_SIZE = 50 -- Without the audio.
local MAX_SIZE = 1376
local MAX_SAMPLES = 661
-- The number of bytes of a packet that are read to follow its call.
local FOLLOWED_SIZES = {
    [START] = 64, [TERMINATE] = HEADER_SIZE, [DATA] = DATA_SIZE, [CONTROL] = HEADER_SIZE,
}
local MAGIC = "\255\0\255\0"
local WRAP = 4294967296 -- 2^32
local SAMPLE_RATES = { 8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000 }
-- A leg whose first packet has a higher number is joined in its middle.
local MAX_MISSED_PACKETS = 1000
-- A longer silence in an exported file is left out: ten minutes at 8 kHz.
local MAX_SILENCE = 4800000
-- A pause, in microseconds, and how long the sender has to catch up after it.
local SHORTEST_PAUSE = 250000
local CATCH_UP_TIME = 1000000

local f = {
    magic = ProtoField.uint32("quorvane.magic", "Magic", base.HEX),
    packet_type = ProtoField.uint8("quorvane.packet_type", "Packet type", base.HEX, TYPE_NAMES),
    protocol_version = ProtoField.uint8("quorvane.protocol_version", "Protocol version"),
    leg_word = ProtoField.uint16("quorvane.leg_word", "Leg word", base.HEX),
    outbound = ProtoField.bool("quorvane.outbound", "Direction", 16,
        { "outbound", "inbound" }, 0x0001),
    has_report_node = ProtoField.bool("quorvane.has_report_node", "Report node", 16,
        { "given", "not given" }, 0x4000),
    has_rule_id = ProtoField.bool("quorvane.has_rule_id", "Rule id", 16,
        { "given", "not given" }, 0x8000),
    leg = ProtoField.uint16("quorvane.leg", "Leg", base.DEC,
        { [0] = "read", [1] = "write" }, 0x8000),
    call_side = ProtoField.uint16("quorvane.call_side", "Call side", base.DEC,
        { [0] = "originator", [1] = "terminator" }, 0x0001),
    call_key = ProtoField.uint64("quorvane.call_key", "Call key", base.HEX),
    call_uuid = ProtoField.guid("quorvane.call_uuid", "Call UUID"),
    send_time = ProtoField.int64("quorvane.send_time", "Send time (steady, us)"),
    created_time = ProtoField.absolute_time("quorvane.created_time", "Channel created", base.UTC),
    configured_time = ProtoField.absolute_time("quorvane.configured_time", "Configured", base.UTC),
    configured_clock = ProtoField.int64("quorvane.configured_clock", "Configured (steady, us)"),
    rule_id = ProtoField.uint64("quorvane.rule_id", "Rule id"),
    report_node_address = ProtoField.ipv4("quorvane.report_node_address", "Report node address"),
    report_node_port = ProtoField.uint16("quorvane.report_node_port", "Report node port"),
    features = ProtoField.bytes("quorvane.features", "Features"),
    supported = ProtoField.uint8("quorvane.features.supported", "Supported", base.HEX),
    active = ProtoField.uint8("quorvane.features.active", "Active", base.HEX),
    features_words = ProtoField.string("quorvane.features.words", "In words"),
    call_reference_length = ProtoField.uint16("quorvane.call_reference_length",
        "Call reference length"),
    call_reference = ProtoField.string("quorvane.call_reference", "Call reference"),
    sequence_number = ProtoField.uint32("quorvane.sequence_number", "Sequence number"),
    seq = ProtoField.uint32("quorvane.seq", "Sequence number (short name)"),
    sample_offset = ProtoField.uint32("quorvane.sample_offset", "Sample offset"),
    sample_count = ProtoField.uint16("quorvane.sample_count", "Sample count"),
    audio = ProtoField.bytes("quorvane.audio", "Audio"),
    surplus = ProtoField.bytes("quorvane.surplus", "Surplus bytes"),
    -- What the dissector finds out.
    wall_time = ProtoField.absolute_time("quorvane.wall_time", "Sent at", base.UTC),
    start_frame = ProtoField.framenum("quorvane.start_frame", "Start packet of the call",
        base.NONE, frametype.REQUEST),
    previous_frame = ProtoField.framenum("quorvane.previous_frame", "Previous packet of the leg"),
    delta = ProtoField.double("quorvane.delta", "Time since the previous packet of the leg (ms)"),
    send_delta = ProtoField.double("quorvane.send_delta",
        "Send time since the previous packet of the leg (ms)"),
    jitter = ProtoField.double("quorvane.jitter", "Jitter of the leg (ms)"),
    lost_packets = ProtoField.uint32("quorvane.lost_packets", "Packets missing before"),
    lost_samples = ProtoField.uint32("quorvane.lost_samples", "Samples missing before"),
}

-- The bits of both bytes of a feature set, in the order of the words.
local FEATURES = {
    { name = "recording", label = "Recording", originator = 0x40, terminator = 0x80 },
    { name = "sample_detection", label = "Sample detection", originator = 0x10, terminator = 0x20 },
    { name = "audio_activity", label = "Audio activity", originator = 0x04, terminator = 0x08 },
}
local SIDES = { "originator", "terminator" }

-- Declares quorvane.features.supported.recording_originator and its like.
local function declare_feature_bits()
    for _, feature in ipairs(FEATURES) do
        for _, side in ipairs(SIDES) do
            local name = feature.name .. "_" .. side
            local label = feature.label .. ", " .. side
            for _, byte in ipairs({ "supported", "active" }) do
                local filter = "quorvane.features." .. byte .. "." .. name
                f[byte .. "_" .. name] = ProtoField.bool(filter, label, 8, nil, feature[side])
            end
        end
    end
end
declare_feature_bits()

local e = {
    bad_magic = ProtoExpert.new("quorvane.expert.bad_magic", "Bad magic",
        expert.group.MALFORMED, expert.severity.ERROR),
    unknown_version = ProtoExpert.new("quorvane.expert.unknown_version",
        "Unknown protocol version", expert.group.PROTOCOL, expert.severity.ERROR),
    unknown_type = ProtoExpert.new("quorvane.expert.unknown_type", "Unknown packet type",
        expert.group.PROTOCOL, expert.severity.ERROR),
    wrong_length = ProtoExpert.new("quorvane.expert.wrong_length", "Wrong length",
        expert.group.MALFORMED, expert.severity.ERROR),
    too_many_samples = ProtoExpert.new("quorvane.expert.too_many_samples", "Too many samples",
        expert.group.MALFORMED, expert.severity.ERROR),
    open_reference = ProtoExpert.new("quorvane.expert.open_reference",
        "Call reference without its zero byte", expert.group.MALFORMED, expert.severity.ERROR),
    gap = ProtoExpert.new("quorvane.expert.gap", "Gap", expert.group.SEQUENCE,
        expert.severity.WARN),
    offset_jump = ProtoExpert.new("quorvane.expert.offset_jump", "Sample offset jump",
        expert.group.SEQUENCE, expert.severity.ERROR),
    late = ProtoExpert.new("quorvane.expert.late", "Late packet", expert.group.SEQUENCE,
        expert.severity.NOTE),
    copy = ProtoExpert.new("quorvane.expert.copy", "Copy of an earlier packet",
        expert.group.SEQUENCE, expert.severity.NOTE),
    before_beginning = ProtoExpert.new("quorvane.expert.before_beginning",
        "Packet from before the beginning of the leg", expert.group.SEQUENCE,
        expert.severity.WARN),
    other_key = ProtoExpert.new("quorvane.expert.other_key", "Another call key than the call's",
        expert.group.PROTOCOL, expert.severity.WARN),
    no_start = ProtoExpert.new("quorvane.expert.no_start", "No start packet in this capture",
        expert.group.SEQUENCE, expert.severity.NOTE),
    beginning_missing = ProtoExpert.new("quorvane.expert.beginning_missing",
        "The beginning of the leg is not in this capture", expert.group.SEQUENCE,
        expert.severity.NOTE),
}

local function values_of(map)
    local list = {}
    for _, value in pairs(map) do
        list[#list + 1] = value
    end
    return list
end
quorvane.fields = values_of(f)
quorvane.experts = values_of(e)

quorvane.prefs.ports = Pref.range("UDP ports", "",
    "Ports whose datagrams are always dissected as media transfer packets, such as 5090 or "
    .. "5000-5010; on every other port they are recognised by their magic", 65535)

-- The calls in the order of their first packets, and the latest one of each UUID.
local calls = {}
local latest_calls = {}
-- What the first pass found out, by frame number. Most packets only have numbers
-- here; `oddities` holds a table for the few of which there is more to say.
local seen = {}
-- What is wrong with the packet being shown, for the Info column.
local marks = {}
-- How much of the packet being shown can be seen, see is_wanted().
local is_shown_whole = false
local is_shown_in_part = false
local shown_length = 0
local this_dissector
-- The files that are being exported, see begin_export(); nil most of the time.
local export

local MAX_INFO_REFERENCE = 40 -- Characters of a call reference in the Info column.

function quorvane.init()
    calls = {}
    latest_calls = {}
    seen = {
        call = {}, previous_frame = {}, delta = {}, send_delta = {}, jitter = {}, position = {},
        oddities = {},
    }
end

local function plural(count, noun)
    return string.format("%.0f %s%s", count, noun, count == 1 and "" or "s")
end

-- a - b of two counters that wrap at 2^32, between -2^31 and 2^31 - 1.
local function counter_difference(a, b)
    local difference = (a - b) % WRAP
    return difference >= WRAP / 2 and difference - WRAP or difference
end

local function microseconds_to_time(microseconds)
    local seconds = math.floor(microseconds / 1000000)
    return NSTime(seconds, math.floor(microseconds - seconds * 1000000) * 1000)
end

-- Adds an expert item and marks the packet in the Info column.
local function report(item, expert_item, text)
    item:add_proto_expert_info(expert_item, text)
    marks[#marks + 1] = text
end

-- Reading a packet ---------------------------------------------------------

-- A signed 64-bit number from its two halves, exact up to 2^53.
local function number_of(low, high)
    return high * WRAP + low
end

-- The fields of a packet that are needed to follow its call and for the Info
-- column. The common header must be there; what lies behind the end is nil.
local function read_packet(tvb)
    local captured = tvb:len()
    local raw = tvb:raw(0, math.min(captured, START_SIZE))
    local _, kind, version, leg_word, key, uuid, send_low, send_high =
        Struct.unpack("<I4BBI2c8c16I4i4", raw)
    local packet = {
        kind = kind, version = version, leg_word = leg_word, key = key, uuid = uuid,
        send_time = number_of(send_low, send_high), raw = raw,
        captured = captured, sent = tvb:reported_len(),
        sequence_number = false, sample_offset = false, count = nil,
    }
    if kind == DATA and captured >= DATA_SIZE then
        packet.sequence_number, packet.sample_offset, packet.count =
            Struct.unpack("<I4I4I2", raw, HEADER_SIZE + 1)
    elseif kind == START and captured >= START_SIZE then
        packet.count = Struct.unpack("<I2", raw, START_SIZE - 1)
    end
    return packet
end

local function is_write_leg(packet)
    return packet.leg_word >= 0x8000
end

local function is_bit_zero_set(packet)
    return packet.leg_word % 2 == 1
end

local function side_of(packet)
    return is_bit_zero_set(packet) and "terminator" or "originator"
end

local function leg_of(packet)
    return is_write_leg(packet) and "write" or "read"
end

local function hexadecimal(bytes)
    return (bytes:gsub(".", function(byte) return string.format("%02x", byte:byte()) end))
end

local function uuid_text(uuid)
    return (hexadecimal(uuid):gsub("^(........)(....)(....)(....)", "%1-%2-%3-%4-"))
end

-- The digits of a call key, whose lowest byte comes first.
local function key_text(key)
    return "0x" .. hexadecimal(key:reverse())
end

-- The length of a packet: its fixed part and what its length field counts. For a packet too short
-- for that field it is the fixed part; nil if only the capture is too short.
local function length_with(packet, fixed_size, unit)
    if packet.count then
        return fixed_size + unit * packet.count
    end
    return packet.sent < fixed_size and fixed_size or nil
end

-- The length that the packet's own fields require; nil if it cannot be determined.
local function expected_length(packet)
    local kind = packet.kind
    if kind == DATA then
        return length_with(packet, DATA_SIZE, 2)
    elseif kind == START then
        return length_with(packet, START_SIZE, 1)
    elseif kind == CONTROL then
        return HEADER_SIZE + 2
    elseif kind == TERMINATE then
        return HEADER_SIZE
    end
    return nil
end

-- Whether the capture holds less of the datagram than was sent.
local function is_cut_short(packet)
    return packet.captured < packet.sent
end

-- A call reference ends in a zero byte, which its length counts.
local function has_closed_reference(packet, tvb)
    return is_cut_short(packet)
        or packet.captured > START_SIZE and tvb:raw(packet.captured - 1, 1) == "\0"
end

local function has_bit(byte, bit)
    return math.floor(byte / bit) % 2 == 1
end

-- "running" or "stopped"; nil for a side that the feature does not apply to.
local function feature_state(feature, side, supported, active)
    if not has_bit(supported, feature[side]) then
        return nil
    end
    return has_bit(active, feature[side]) and "running" or "stopped"
end

-- What a feature does on both sides, such as "originator running".
local function feature_words(feature, supported, active)
    local originator = feature_state(feature, "originator", supported, active)
    local terminator = feature_state(feature, "terminator", supported, active)
    if originator == terminator then
        return originator and "both " .. originator or ""
    end
    local words = {}
    words[1] = originator and "originator " .. originator
    words[#words + 1] = terminator and "terminator " .. terminator
    return table.concat(words, ", ")
end

local function features_in_words(supported, active)
    local sentences = {}
    for _, feature in ipairs(FEATURES) do
        local words = feature_words(feature, supported, active)
        if words ~= "" then
            sentences[#sentences + 1] = feature.label:lower() .. " " .. words
        end
    end
    return #sentences > 0 and table.concat(sentences, "; ") or "none"
end

-- Following the calls (first pass) -----------------------------------------

local function begin_call(packet)
    local call = { uuid = packet.uuid, key = packet.key, legs = {} }
    calls[#calls + 1] = call
    latest_calls[packet.uuid] = call
    return call
end

-- A start packet with another clock begins a new tap on the same channel.
local function follow_start(call, packet, number)
    local clock = number_of(Struct.unpack("<I4i4", packet.raw, 57))
    if call.start_frame and call.configured_clock ~= clock then
        call = begin_call(packet)
    end
    if not call.start_frame then
        call.start_frame = number
        call.configured_clock = clock
        call.configured_time = number_of(Struct.unpack("<I4I4", packet.raw, 49))
        call.supported, call.active = packet.raw:byte(79, 80)
    end
    return call
end

-- Of two control packets, the one sent later applies.
local function follow_control(call, packet)
    local is_captured = packet.captured >= HEADER_SIZE + 2
    if is_captured and (not call.update_time or packet.send_time > call.update_time) then
        call.update_time = packet.send_time
        call.update_supported, call.update_active = packet.raw:byte(41, 42)
    end
end

-- The index of the range that holds a number, of ranges in ascending order.
local function find_range(ranges, number)
    local low, high = 1, #ranges
    while low <= high do
        local middle = math.floor((low + high) / 2)
        if number < ranges[middle].first then
            high = middle - 1
        elseif number > ranges[middle].last then
            low = middle + 1
        else
            return middle
        end
    end
    return nil
end

-- Removes a number from the ranges. Returns the range that contained it, or nil.
local function take_number(ranges, number)
    local index = find_range(ranges, number)
    if not index then
        return nil
    end
    local range = table.remove(ranges, index)
    if number < range.last then
        table.insert(ranges, index,
            { first = number + 1, last = range.last, is_gap = range.is_gap })
    end
    if range.first < number then
        table.insert(ranges, index,
            { first = range.first, last = number - 1, is_gap = range.is_gap })
    end
    return range
end

-- The numbers of a leg continue where the packets' counters wrap. `position` counts samples, to
-- place the audio in a file.
local function begin_leg(packet)
    local number, offset = packet.sequence_number, packet.sample_offset
    local is_from_beginning = number <= MAX_MISSED_PACKETS and offset <= number * MAX_SAMPLES
    return {
        name = leg_of(packet), side = side_of(packet),
        next_number = number, next_offset = offset,
        position = is_from_beginning and offset or 0,
        -- Packets before the first one may come late. They are not a gap.
        missing = number > 1 and { { first = 1, last = number - 1 } } or {},
        early = {},
        packets = 0, lost = 0, late = 0, copies = 0, odd = 0,
        jitter = 0, jitter_sum = 0, jitter_max = 0, delta_max = 0,
        pauses = {}, paused_time = 0, paused_samples = 0,
    }
end

-- What is odd about a packet with a lower number than expected.
local function old_packet(leg, number)
    local range = take_number(leg.missing, number)
    if range then
        leg.late = leg.late + 1
        leg.lost = leg.lost - (range.is_gap and 1 or 0)
        return { late = true }
    elseif number < 1 and not leg.early[number] then
        leg.early[number] = true
        leg.odd = leg.odd + 1
        return { before_beginning = true, is_left_out = true }
    end
    leg.copies = leg.copies + 1
    return { copy = true, is_left_out = true }
end

-- What is odd about a packet whose counters are this far ahead of the expected ones; nil if nothing
-- is.
local function compare_with_expected(leg, ahead, samples)
    if ahead == 0 and samples == 0 then
        return nil
    elseif ahead < 0 then
        return old_packet(leg, leg.next_number + ahead)
    end
    local oddity = {}
    if ahead > 0 then
        oddity.lost_packets = ahead
        oddity.lost_samples = samples >= 0 and samples or nil
        leg.lost = leg.lost + ahead
        leg.missing[#leg.missing + 1] = {
            first = leg.next_number, last = leg.next_number + ahead - 1, is_gap = true,
        }
    end
    -- Missing packets move the offset forward, never back.
    if samples < 0 or ahead == 0 and samples ~= 0 then
        oddity.offset_jump = samples
        leg.odd = leg.odd + 1
    end
    return oddity
end

local function rounded(milliseconds)
    return math.floor(milliseconds * 1000 + 0.5) / 1000
end

-- The jitter is that of RFC 3550, with the send time in place of a timestamp.
local function follow_jitter(leg, packet, number, time)
    if leg.arrival_time then
        local delta = 1000 * (time - leg.arrival_time)
        local send_delta = (packet.send_time - leg.arrival_send_time) / 1000
        leg.jitter = leg.jitter + (math.abs(delta - send_delta) - leg.jitter) / 16
        leg.jitter_sum = leg.jitter_sum + leg.jitter
        leg.jitter_max = math.max(leg.jitter_max, leg.jitter)
        leg.delta_max = math.max(leg.delta_max, delta)
        seen.delta[number] = rounded(delta)
        seen.send_delta[number] = rounded(send_delta)
        seen.jitter[number] = rounded(leg.jitter)
    end
    leg.arrival_time = time
    leg.arrival_send_time = packet.send_time
end

-- The samples per second that were sent between the pauses; nil if there is too little audio.
local function measured_rate(samples, microseconds)
    return microseconds >= 200000 and samples > 0 and 1000000 * samples / microseconds or nil
end

local function end_catching_up(leg)
    leg.catching_up.to_time = leg.send_time
    leg.catching_up.to_position = leg.send_position
    leg.catching_up = nil
end

-- Remembers where the sender fell silent, and where it was a second later. If it
-- had caught up by then, it was held up and there was no pause.
local function follow_pauses(leg, packet, position)
    local since = leg.send_time and packet.send_time - leg.send_time or 0
    local samples = position - (leg.send_position or position)
    if since >= SHORTEST_PAUSE then
        local rate = measured_rate(leg.send_position - leg.first_position - leg.paused_samples,
            leg.send_time - leg.first_time - leg.paused_time) or SAMPLE_RATES[1]
        if since - 1000000 * samples / rate >= SHORTEST_PAUSE then
            if leg.catching_up then
                end_catching_up(leg)
            end
            leg.catching_up = {
                from_time = leg.send_time, from_position = leg.send_position,
                begun_at = packet.send_time,
            }
            leg.pauses[#leg.pauses + 1] = leg.catching_up
            leg.paused_time = leg.paused_time + since
            leg.paused_samples = leg.paused_samples + samples
        end
    end
    leg.first_time = leg.first_time or packet.send_time
    leg.first_position = leg.first_position or position
    leg.send_time, leg.send_position = packet.send_time, position
    if leg.catching_up and packet.send_time - leg.catching_up.begun_at >= CATCH_UP_TIME then
        end_catching_up(leg)
    end
end

-- Where a packet's audio belongs. A jump that cannot be silence is left out.
local function position_of(leg, samples, is_late)
    if is_late then
        return leg.position + samples
    end
    return leg.position + (samples > 0 and samples <= MAX_SILENCE and samples or 0)
end

local function follow_data(call, packet, number, time)
    local name = leg_of(packet)
    local leg = call.legs[name]
    local oddity
    if leg then
        seen.previous_frame[number] = leg.frame
    else
        leg = begin_leg(packet)
        call.legs[name] = leg
        oddity = { is_first_of_leg = true, beginning_missing = packet.sequence_number ~= 1 }
    end
    local ahead = counter_difference(packet.sequence_number, leg.next_number)
    local samples = counter_difference(packet.sample_offset, leg.next_offset)
    oddity = oddity or compare_with_expected(leg, ahead, samples)
    seen.oddities[number] = oddity
    if oddity and oddity.is_left_out then
        return
    end
    leg.packets = leg.packets + 1
    follow_jitter(leg, packet, number, time)
    local position = position_of(leg, samples, ahead < 0)
    seen.position[number] = position
    if ahead >= 0 then
        follow_pauses(leg, packet, position)
        leg.next_number = leg.next_number + ahead + 1
        leg.next_offset = (packet.sample_offset + packet.count) % WRAP
        leg.position = position + packet.count
        leg.frame = number
    end
end

-- A packet with another key does not belong to the call. It is only marked as odd.
local function follow_stranger(call, packet, number)
    local leg = packet.kind == DATA and call.legs[leg_of(packet)]
    if leg then
        leg.odd = leg.odd + 1
    end
    seen.oddities[number] = { other_key = true }
end

local function follow(packet, number, time)
    local kind = packet.kind
    local call = latest_calls[packet.uuid] or begin_call(packet)
    if packet.key ~= call.key then
        follow_stranger(call, packet, number)
    elseif kind == START then
        call = follow_start(call, packet, number)
    elseif kind == DATA then
        follow_data(call, packet, number, time)
    elseif kind == CONTROL then
        follow_control(call, packet)
    else
        call.terminate_frame = call.terminate_frame or number
    end
    seen.call[number] = call
end

-- Statistics ---------------------------------------------------------------

-- The true length of a pause in microseconds: the time not filled by audio, as known a second
-- later.
local function length_of_pause(leg, pause, rate)
    local time = (pause.to_time or leg.send_time) - pause.from_time
    local samples = (pause.to_position or leg.send_position) - pause.from_position
    return time - 1000000 * samples / rate
end

-- The pauses of a leg: how many there are and their time in microseconds.
local function count_pauses(leg, rate)
    local count, time = 0, 0
    for _, pause in ipairs(leg.pauses) do
        local length = length_of_pause(leg, pause, rate)
        if length >= SHORTEST_PAUSE then
            count = count + 1
            time = time + length
        end
    end
    return count, time
end

local function nearest_rate(measured)
    local best = SAMPLE_RATES[1]
    for _, rate in ipairs(SAMPLE_RATES) do
        if math.abs(math.log(measured / rate)) < math.abs(math.log(measured / best)) then
            best = rate
        end
    end
    return best
end

-- The sample rate of a leg. No packet contains it; nil if it cannot be determined.
local function sample_rate_of(leg)
    if not leg.first_time then
        return nil
    end
    local samples = leg.send_position - leg.first_position
    local time = leg.send_time - leg.first_time
    local rough = measured_rate(samples - leg.paused_samples, time - leg.paused_time)
    if not rough then
        return nil
    end
    -- If the sender caught up, the rough rate is too high, because the audio sent then belongs to
    -- the time that was left out.
    local _, paused = count_pauses(leg, nearest_rate(rough))
    local measured = measured_rate(samples, time - paused)
    return measured and nearest_rate(measured)
end

-- The features in effect at the end of a call, in words.
local function features_of(call)
    local supported, active = call.supported or 0, call.active or 0
    if call.update_supported then
        local merged = 0
        for bit = 0, 7 do
            local source = has_bit(call.update_supported, 2 ^ bit) and call.update_active or active
            merged = merged + (has_bit(source, 2 ^ bit) and 2 ^ bit or 0)
        end
        for bit = 0, 7 do
            local is_new = has_bit(call.update_supported, 2 ^ bit)
                and not has_bit(supported, 2 ^ bit)
            supported = supported + (is_new and 2 ^ bit or 0)
        end
        active = merged
    end
    return features_in_words(supported, active)
end

local TABLE_HEAD = {
    "Call UUID", "Side", "Leg", "Rate", "Packets", "Lost", "Lost%", "Late", "Copies", "Odd",
    "Jitter", "MaxJitter", "MaxDelta", "Pauses", "Paused", "Start", "End", "Features",
}
local ROW_FORMAT = "%-36s %-10s %-5s %5s %7s %6s %6s %5s %6s %5s %8s %9s %9s %6s %8s %7s %7s  %s"

local function row_of(call, leg)
    local start, finish = call.start_frame or "-", call.terminate_frame or "-"
    local uuid, words = uuid_text(call.uuid), features_of(call)
    if not leg then
        return string.format(ROW_FORMAT, uuid, "-", "-", "-", 0, 0, "-", 0, 0, 0, "-", "-", "-",
            0, "-", start, finish, words)
    end
    local rate = sample_rate_of(leg)
    local pauses, paused = count_pauses(leg, rate or SAMPLE_RATES[1])
    local sent = leg.packets + leg.lost
    return string.format(ROW_FORMAT, uuid, leg.side, leg.name, rate or "?",
        string.format("%.0f", leg.packets), string.format("%.0f", leg.lost),
        string.format("%.2f", sent > 0 and 100 * leg.lost / sent or 0),
        string.format("%.0f", leg.late), string.format("%.0f", leg.copies),
        string.format("%.0f", leg.odd),
        string.format("%.3f", leg.packets > 1 and leg.jitter_sum / (leg.packets - 1) or 0),
        string.format("%.3f", leg.jitter_max), string.format("%.3f", leg.delta_max),
        string.format("%.0f", pauses), string.format("%.3f", paused / 1000000), start, finish,
        words)
end

-- The table of the calls; with `chosen`, of those that it holds.
local function table_of_calls(chosen)
    local rows = {
        "Calls of mod_quorvane: one row per side. Jitter (mean) and deltas in ms, paused in s;",
        "Start and End are the frames of the start and terminate packets.",
        string.format(ROW_FORMAT, table.unpack(TABLE_HEAD)),
    }
    for _, call in ipairs(calls) do
        if not chosen or chosen[call] then
            if not call.legs.read and not call.legs.write then
                rows[#rows + 1] = row_of(call)
            end
            for _, name in ipairs({ "read", "write" }) do
                if call.legs[name] then
                    rows[#rows + 1] = row_of(call, call.legs[name])
                end
            end
        end
    end
    return table.concat(rows, "\n") .. "\n"
end

-- Export of the audio ------------------------------------------------------

local WAV_HEADER_SIZE = 44
local BLOCK = 262144 -- Bytes gathered before they are written.
local MAX_WAV_BYTES = 4294967000

local function file_exists(path)
    local file = io.open(path, "rb")
    if file then
        file:close()
    end
    return file ~= nil
end

-- Begins to export; what the dissector then sees goes into files of the folder.
-- Returns nothing, or why it cannot.
local function begin_export(folder)
    if folder == "" then
        return "no folder was given"
    elseif not Dir.exists(folder) and not Dir.make(folder) then
        return "cannot make the folder " .. folder
    end
    export = { folder = folder, legs = {}, order = {} }
    return nil
end

-- The path without side and ending. If a file of that name exists, because the call was tapped
-- again, a number is added.
local function free_stem(call)
    local stem = export.folder .. "/" .. uuid_text(call.uuid)
    local numbered, number = stem, 1
    while file_exists(numbered .. "-originator.wav")
        or file_exists(numbered .. "-terminator.wav") do
        number = number + 1
        numbered = stem .. "-" .. number
    end
    return numbered
end

-- Opens a side's file for a piece of work; nil after an error, which is kept.
local function open_wav(wav, mode)
    if wav.error then
        return nil
    end
    local file, why = io.open(wav.path, mode)
    if not file then
        wav.error = why
    end
    return file
end

local function write_at(wav, mode, offset, bytes)
    local file = open_wav(wav, mode)
    if file then
        file:seek("set", offset)
        local is_written, why = file:write(bytes)
        local is_closed, why_not_closed = file:close()
        if not is_written or not is_closed then
            wav.error = wav.path .. ": " .. (why or why_not_closed or "cannot be written")
        end
    end
end

local function wav_of(call, leg)
    local wav = export.legs[leg]
    if not wav then
        export[call] = export[call] or free_stem(call)
        wav = { path = export[call] .. "-" .. leg.side .. ".wav", leg = leg, size = 0,
            left_out = 0, block = {}, block_begin = 0, block_end = 0 }
        export.legs[leg] = wav
        export.order[#export.order + 1] = wav
        write_at(wav, "wb", 0, string.rep("\0", WAV_HEADER_SIZE))
    end
    return wav
end

local function write_block(wav)
    if #wav.block > 0 then
        write_at(wav, "r+b", WAV_HEADER_SIZE + wav.block_begin, table.concat(wav.block))
        wav.block = {}
    end
end

local function write_audio(audio)
    local wav = wav_of(audio.call, audio.leg)
    local begin = 2 * audio.position
    if begin < 0 or begin + #audio.bytes > MAX_WAV_BYTES then
        wav.left_out = wav.left_out + 1
        return
    end
    if begin ~= wav.block_end or wav.block_end - wav.block_begin > BLOCK then
        write_block(wav)
    end
    if #wav.block == 0 then
        wav.block_begin = begin
    end
    wav.block[#wav.block + 1] = audio.bytes
    wav.block_end = begin + #audio.bytes
    wav.size = math.max(wav.size, wav.block_end)
end

-- Keeps the audio of the packet being dissected until the listener asks for it.
local function keep_audio(packet, tvb, number)
    local position = seen.position[number]
    export.waiting = nil
    if position and packet.count > 0 then
        local available = math.min(2 * packet.count, packet.captured - DATA_SIZE)
        export.waiting = {
            number = number, position = position, call = seen.call[number],
            leg = seen.call[number].legs[leg_of(packet)],
            bytes = available > 0 and tvb:raw(DATA_SIZE, available) or "",
        }
    end
end

local function wav_header(size, rate)
    return "RIFF" .. Struct.pack("<I4", size + WAV_HEADER_SIZE - 8) .. "WAVEfmt "
        .. Struct.pack("<I4I2I2I4I4I2I2", 16, 1, 1, rate, 2 * rate, 2, 16)
        .. "data" .. Struct.pack("<I4", size)
end

local function line_of(wav, rate)
    if wav.error then
        return wav.error
    end
    local text = string.format("%s: %s at %d Hz%s", wav.path,
        plural(wav.size / 2, "sample"), rate or SAMPLE_RATES[1], rate and "" or " (assumed)")
    if wav.left_out > 0 then
        text = text .. ", " .. plural(wav.left_out, "packet") .. " left out"
    end
    return text
end

-- Completes the files. Returns a line about each.
local function end_export()
    local lines = {}
    for _, wav in ipairs(export.order) do
        local rate = sample_rate_of(wav.leg)
        write_block(wav)
        write_at(wav, "r+b", 0, wav_header(wav.size, rate or SAMPLE_RATES[1]))
        lines[#lines + 1] = line_of(wav, rate)
    end
    export = nil
    return #lines > 0 and table.concat(lines, "\n") .. "\n" or "No audio was exported.\n"
end

-- Showing a packet ---------------------------------------------------------

-- Whether a field is visible. If the packet's details are shown or printed, all fields are;
-- otherwise only those that a filter or a column uses.
local function is_wanted(tree, field)
    return is_shown_whole or is_shown_in_part and tree:referenced(field)
end

-- Adds a field where it is wanted and the packet is long enough to hold it.
local function add(tree, field, tvb, offset, width)
    if shown_length < offset + width or not is_wanted(tree, field) then
        return nil
    end
    return tree:add(field, tvb(offset, width))
end

local function add_le(tree, field, tvb, offset, width)
    if shown_length < offset + width or not is_wanted(tree, field) then
        return nil
    end
    return tree:add_le(field, tvb(offset, width))
end

-- Adds several fields that are read from the same bytes, which must be there.
local function add_le_together(tree, fields, range)
    for _, field in ipairs(fields) do
        if is_wanted(tree, field) then
            tree:add_le(field, range)
        end
    end
end

-- Adds what is not in the packet but found out.
local function add_finding(tree, field, value)
    if value and is_wanted(tree, field) then
        tree:add(field, value):set_generated()
    end
end

local function add_wall_time(tree, field, tvb, offset)
    if shown_length < offset + 8 or not is_wanted(tree, field) then
        return
    end
    local microseconds = tvb(offset, 8):le_uint64():tonumber()
    tree:add(field, tvb(offset, 8), microseconds_to_time(microseconds))
end

local START_FLAGS = { f.outbound, f.has_report_node, f.has_rule_id }
local DATA_FLAGS = { f.leg, f.call_side }

local function show_leg_word(tree, tvb, packet)
    local kind = packet.kind
    local range = tvb(6, 2)
    local item = is_wanted(tree, f.leg_word) and tree:add_le(f.leg_word, range) or tree
    if kind == START then
        add_le_together(item, START_FLAGS, range)
    elseif kind == DATA then
        if is_shown_whole then
            item:append_text(" (" .. leg_of(packet) .. " leg, " .. side_of(packet) .. ")")
        end
        add_le_together(item, DATA_FLAGS, range)
    end
end

local function show_header(tree, tvb, packet)
    add_le(tree, f.magic, tvb, 0, 4)
    local type_item = add(tree, f.packet_type, tvb, 4, 1)
    if not TYPE_NAMES[packet.kind] then
        report(type_item or tree, e.unknown_type,
            string.format("Unknown packet type 0x%02x", packet.kind))
    end
    local version_item = add(tree, f.protocol_version, tvb, 5, 1)
    if packet.version ~= 1 then
        report(version_item or tree, e.unknown_version,
            "Unknown protocol version " .. packet.version)
    end
    show_leg_word(tree, tvb, packet)
    add_le(tree, f.call_key, tvb, 8, 8)
    add(tree, f.call_uuid, tvb, 16, 16)
    add_le(tree, f.send_time, tvb, 32, 8)
end

local function show_feature_byte(tree, field, byte, range)
    local item = is_wanted(tree, field) and tree:add(field, range) or tree
    for _, feature in ipairs(FEATURES) do
        for _, side in ipairs(SIDES) do
            local bit_field = f[byte .. "_" .. feature.name .. "_" .. side]
            if is_wanted(item, bit_field) then
                item:add(bit_field, range)
            end
        end
    end
end

-- Returns the features in words.
local function show_features(tree, tvb, offset)
    if shown_length < offset + 2 then
        return ""
    end
    local words = features_in_words(tvb(offset, 1):uint(), tvb(offset + 1, 1):uint())
    local item = tree
    if is_wanted(tree, f.features) then
        item = tree:add(f.features, tvb(offset, 2))
        item:append_text(" (" .. words .. ")")
    end
    show_feature_byte(item, f.supported, "supported", tvb(offset, 1))
    show_feature_byte(item, f.active, "active", tvb(offset + 1, 1))
    if is_wanted(item, f.features_words) then
        item:add(f.features_words, tvb(offset, 2), words):set_generated()
    end
    return words
end

-- Returns the call reference, cut short where the packet ends too early.
local function show_call_reference(tree, tvb, packet)
    if not packet.count then
        return ""
    end
    local length_item = add_le(tree, f.call_reference_length, tvb, 80, 2)
    local available = math.min(packet.count, packet.captured - START_SIZE)
    if available == 0 and is_cut_short(packet) then
        return ""
    elseif available == 0 then
        report(length_item or tree, e.open_reference, "Call reference without its zero byte")
        return ""
    end
    local range = tvb(START_SIZE, available)
    local is_closed = range(available - 1, 1):uint() == 0
    local length = is_closed and available - 1 or available
    local text = length > 0 and range(0, length):string(ENC_UTF_8) or ""
    local item = is_wanted(tree, f.call_reference) and tree:add(f.call_reference, range, text)
    if not is_closed and not is_cut_short(packet) then
        report(item or tree, e.open_reference, "Call reference without its zero byte")
    end
    return text
end

local function shortened(text)
    return #text > MAX_INFO_REFERENCE and text:sub(1, MAX_INFO_REFERENCE) .. "..." or text
end

local function show_start(tree, tvb, packet)
    add_wall_time(tree, f.created_time, tvb, 40)
    add_wall_time(tree, f.configured_time, tvb, 48)
    add_le(tree, f.configured_clock, tvb, 56, 8)
    add_le(tree, f.rule_id, tvb, 64, 8)
    add(tree, f.report_node_address, tvb, 72, 4)
    add(tree, f.report_node_port, tvb, 76, 2)
    local words = show_features(tree, tvb, 78)
    local reference = show_call_reference(tree, tvb, packet)
    local direction = is_bit_zero_set(packet) and "outbound" or "inbound"
    return string.format("%s, reference \"%s\", features: %s", direction, shortened(reference),
        words)
end

local function show_audio(tree, tvb, packet)
    local available = math.min(2 * packet.count, packet.captured - DATA_SIZE)
    if available == 0 or not is_wanted(tree, f.audio) then
        return
    end
    local item = tree:add(f.audio, tvb(DATA_SIZE, available))
    item:set_text(string.format("Audio of the %s: %s, 16-bit linear, little-endian",
        side_of(packet), plural(math.floor(available / 2), "sample")))
end

local function show_data(tree, tvb, packet)
    add_le(tree, f.sequence_number, tvb, 40, 4)
    local alias = add_le(tree, f.seq, tvb, 40, 4)
    if alias then
        alias:set_hidden()
    end
    add_le(tree, f.sample_offset, tvb, 44, 4)
    if not packet.count then
        return leg_of(packet) .. " " .. side_of(packet)
    end
    local count_item = add_le(tree, f.sample_count, tvb, 48, 2)
    if packet.count > MAX_SAMPLES then
        report(count_item or tree, e.too_many_samples,
            string.format("%d samples, at most %d fit", packet.count, MAX_SAMPLES))
    end
    show_audio(tree, tvb, packet)
    return string.format("%s %s, seq=%.0f, offset=%.0f, samples=%d", leg_of(packet),
        side_of(packet), packet.sequence_number, packet.sample_offset, packet.count)
end

-- Shows the part behind the header; returns a summary of it.
local function show_body(tree, tvb, packet)
    if packet.kind == START then
        return show_start(tree, tvb, packet)
    elseif packet.kind == DATA then
        return show_data(tree, tvb, packet)
    elseif packet.kind == CONTROL then
        return "features: " .. show_features(tree, tvb, HEADER_SIZE)
    end
    return ""
end

local function check_length(tree, tvb, packet)
    if packet.sent > MAX_SIZE then
        report(tree, e.wrong_length, plural(packet.sent, "byte") .. ", longer than any packet")
        return
    end
    local expected = expected_length(packet)
    if not expected or packet.sent == expected then
        return
    end
    local item = tree
    if packet.captured > expected then
        item = tree:add(f.surplus, tvb(expected))
    end
    report(item, e.wrong_length, string.format("Wrong length: %s where the packet asks for %d",
        plural(packet.sent, "byte"), expected))
end

local function show_gap(tree, oddity)
    local missing = plural(oddity.lost_packets, "packet")
    add_finding(tree, f.lost_packets, oddity.lost_packets)
    add_finding(tree, f.lost_samples, oddity.lost_samples)
    if oddity.lost_samples then
        missing = missing .. " and " .. plural(oddity.lost_samples, "sample")
    end
    report(tree, e.gap, "Gap: " .. missing .. " missing")
end

local function show_offset_jump(tree, oddity)
    local where = oddity.lost_packets and "behind missing packets" or "without a missing packet"
    report(tree, e.offset_jump,
        string.format("Sample offset jump of %.0f %s", oddity.offset_jump, where))
end

-- Shows what the first pass found odd about a packet.
local function show_oddity(tree, oddity, packet, call)
    if oddity.other_key then
        report(tree, e.other_key, string.format("Call key %s differs from %s of the call",
            key_text(packet.key), key_text(call.key)))
    end
    if oddity.is_first_of_leg and not call.start_frame then
        tree:add_proto_expert_info(e.no_start)
    end
    if oddity.beginning_missing then
        tree:add_proto_expert_info(e.beginning_missing)
    end
    if oddity.lost_packets then
        show_gap(tree, oddity)
    end
    if oddity.offset_jump then
        show_offset_jump(tree, oddity)
    elseif oddity.late then
        report(tree, e.late, "Late packet")
    elseif oddity.copy then
        report(tree, e.copy, "Copy of an earlier packet")
    elseif oddity.before_beginning then
        report(tree, e.before_beginning, "Packet from before the beginning of the leg")
    end
end

local function show_wall_time(tree, packet, call)
    if call.start_frame and is_wanted(tree, f.wall_time) then
        local since = packet.send_time - call.configured_clock
        tree:add(f.wall_time, microseconds_to_time(call.configured_time + since)):set_generated()
    end
end

-- Shows what the first pass found out about a packet.
local function show_findings(tree, packet, number)
    local call = seen.call[number]
    if not call then
        return
    end
    show_wall_time(tree, packet, call)
    if call.start_frame ~= number then
        add_finding(tree, f.start_frame, call.start_frame)
    end
    add_finding(tree, f.previous_frame, seen.previous_frame[number])
    add_finding(tree, f.delta, seen.delta[number])
    add_finding(tree, f.send_delta, seen.send_delta[number])
    add_finding(tree, f.jitter, seen.jitter[number])
    if seen.oddities[number] then
        show_oddity(tree, seen.oddities[number], packet, call)
    end
end

-- Malformed packets are not used to follow the calls, and neither are packets that the capture
-- contains only in part.
local function is_followed(packet, tvb)
    local kind = packet.kind
    local needed = FOLLOWED_SIZES[kind]
    if not needed or packet.captured < needed or packet.version ~= 1 then
        return false
    elseif kind == DATA and packet.count > MAX_SAMPLES then
        return false
    elseif kind == START and not has_closed_reference(packet, tvb) then
        return false
    elseif packet.sent > MAX_SIZE then
        return false
    end
    return packet.sent == (expected_length(packet) or packet.sent)
end

-- Shows a packet that has its whole header; returns the Info text.
local function show_packet(tree, tvb, packet, number)
    show_header(tree, tvb, packet)
    if is_shown_whole then
        tree:append_text(", " .. (TYPE_NAMES[packet.kind] or "unknown type"))
    end
    local info = (INFO_NAMES[packet.kind] or "Unknown type") .. " "
        .. hexadecimal(packet.uuid:sub(1, 4))
    if packet.version ~= 1 then
        return info -- Another version may mean anything by the rest.
    end
    local summary = show_body(tree, tvb, packet)
    check_length(tree, tvb, packet)
    show_findings(tree, packet, number)
    return summary == "" and info or info .. " " .. summary
end

-- Why a datagram cannot be shown at all: the expert item and the text, or nil.
local function unreadable_because(tvb)
    local captured = tvb:len()
    if captured >= 4 and tvb:raw(0, 4) ~= MAGIC then
        return e.bad_magic, "Bad magic " .. hexadecimal(tvb:raw(0, 4))
    elseif captured < HEADER_SIZE and tvb:reported_len() < HEADER_SIZE then
        return e.wrong_length, "Wrong length: " .. plural(captured, "byte")
            .. ", shorter than the common header"
    end
    return nil
end

-- Follows and shows a packet that has its whole header; returns the Info text.
local function take_packet(tree, tvb, pinfo)
    local packet = read_packet(tvb)
    local number = pinfo.number
    shown_length = packet.captured
    if not pinfo.visited and is_followed(packet, tvb) then
        follow(packet, number, pinfo.rel_ts)
    end
    if export then
        keep_audio(packet, tvb, number)
    end
    return show_packet(tree, tvb, packet, number)
end

function quorvane.dissector(tvb, pinfo, root)
    marks = {}
    is_shown_whole = root.visible
    is_shown_in_part = is_shown_whole or root:referenced(this_dissector)
    pinfo.cols.protocol = "QUORVANE"
    local tree = root:add(quorvane, tvb())
    local info = "Unreadable"
    local expert_item, text = unreadable_because(tvb)
    if expert_item then
        report(tree, expert_item, text)
    elseif tvb:len() < HEADER_SIZE then
        info = "Cut short by the capture"
    else
        info = take_packet(tree, tvb, pinfo)
    end
    if #marks > 0 then
        info = info .. " [" .. table.concat(marks, "; ") .. "]"
    end
    pinfo.cols.info = info
    return tvb:len()
end
this_dissector = Dissector.get("quorvane")

-- Registration -------------------------------------------------------------

-- Later datagrams between the same two ports belong to the protocol as well, so one with a bad
-- magic is shown as such.
local function dissect_if_magic(tvb, pinfo, root)
    if tvb:len() < 4 or tvb:raw(0, 4) ~= MAGIC then
        return false
    end
    pinfo.conversation = quorvane
    quorvane.dissector(tvb, pinfo, root)
    return true
end
quorvane:register_heuristic("udp", dissect_if_magic)

local udp_ports = DissectorTable.get("udp.port")
udp_ports:add_for_decode_as(quorvane)

-- The argument of a -z option behind its name; nil where there is none.
local function argument_of(option, name)
    local argument = option:sub(#name + 2)
    return argument ~= "" and argument or nil
end

-- A listener that receives every packet that passes the filter; or nil and the reason why there is
-- none.
local function listen(filter)
    local is_made, listener = pcall(Listener.new, "frame",
        filter and "quorvane && (" .. filter .. ")" or nil)
    if not is_made then
        return nil, "the filter '" .. filter .. "' is not understood: " .. tostring(listener)
    end
    return listener
end

-- tshark continues after an error in Lua, but not after one in its options.
local function end_for_option(option, why)
    io.stderr:write("tshark: -z ", option, ": ", why, "\n")
    os.exit(1)
end

-- tshark -z quorvane,calls[,FILTER]. With a filter, lists the calls of which at least one packet
-- passes it, each with all of its packets.
local function print_calls_at_the_end(option)
    local filter = argument_of(option, "quorvane,calls")
    local chosen = filter and {}
    local listener, why = listen(filter)
    if not listener then
        end_for_option(option, why)
    end
    function listener.packet(pinfo)
        local call = filter and seen.call[pinfo.number]
        if call then
            chosen[call] = true
        end
    end
    function listener.draw()
        print(table_of_calls(chosen))
    end
end

-- Exports the audio of the packets that pass the filter. Returns the listener
-- that does it; or nil and why it cannot be done.
local function export_with(folder, filter, tell)
    local listener, why = listen(filter)
    why = why or begin_export(folder)
    if why then
        return nil, why
    end
    function listener.packet(pinfo)
        local audio = export and export.waiting
        if audio and audio.number == pinfo.number then
            write_audio(audio)
        end
    end
    function listener.draw()
        if export then
            tell(end_export())
        end
    end
    return listener
end

-- tshark -z quorvane,audio,FOLDER[,FILTER]
local function export_to_the_end(option)
    local folder, filter = (argument_of(option, "quorvane,audio") or ""):match("^([^,]+),?(.*)$")
    local listener, why = export_with(folder or "", filter ~= "" and filter or nil, print)
    if not listener then
        end_for_option(option, why)
    end
end

register_stat_cmd_arg("quorvane,calls", print_calls_at_the_end)
register_stat_cmd_arg("quorvane,audio", export_to_the_end)

local function show_calls_in_a_window()
    local window = TextWindow.new("Quorvane calls")
    window:set(table_of_calls())
    window:add_button("Refresh", function() window:set(table_of_calls()) end)
end

local function export_from_the_menu(folder, filter)
    local window = TextWindow.new("Quorvane: exported audio")
    local listener, why = export_with(folder, filter ~= "" and filter or nil,
        function(text) window:set(text) end)
    if not listener then
        window:set("Nothing was exported: " .. why .. "\n")
        return
    end
    retap_packets()
    listener:remove()
end

local function ask_what_to_export()
    new_dialog("Export the audio of calls", export_from_the_menu, "Folder", "Display filter")
end

if gui_enabled() then
    register_menu("Quorvane Calls", show_calls_in_a_window, MENU_STAT_TELEPHONY)
    register_menu("Quorvane Audio Export", ask_what_to_export, MENU_STAT_TELEPHONY)
end

local registered_ports = ""
function quorvane.prefs_changed()
    if registered_ports ~= "" then
        udp_ports:remove(registered_ports, quorvane)
    end
    registered_ports = quorvane.prefs.ports
    if registered_ports ~= "" then
        udp_ports:add(registered_ports, quorvane)
    end
end
