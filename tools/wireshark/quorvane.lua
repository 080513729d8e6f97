-- Dissector of the media transfer protocol for Wireshark and tshark 4.0 and
-- later; docs/protocol.md describes the packets, README.md beside this file how
-- to install and use it.
--
-- A first pass follows the legs of every call, so that gaps, late packets and
-- copies are known when a packet is shown; `verdicts` keeps what it found.

local quorvane = Proto("quorvane", "Quorvane media transfer")

local START, TERMINATE, DATA, CONTROL = 0x81, 0x82, 0x83, 0x84
local TYPE_NAMES = {
    [START] = "start", [TERMINATE] = "terminate", [DATA] = "data", [CONTROL] = "control",
}
local HEADER_SIZE = 40
local START_SIZE = 82 -- Without the call reference.
local DATA_SIZE = 50 -- Without the audio.
local MAX_SIZE = 1376
local MAX_SAMPLES = 661
-- How much of a packet is looked at to follow its call.
local FOLLOWED_SIZES = {
    [START] = 64, [TERMINATE] = HEADER_SIZE, [DATA] = DATA_SIZE, [CONTROL] = HEADER_SIZE,
}
local MAGIC = 0x00FF00FF
local WRAP = 4294967296 -- 2^32
-- Packets of one gap that are remembered, to tell a late one from a copy.
local MAX_REMEMBERED = 4096

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

-- The calls by UUID, and by frame number what the first pass found out.
local calls = {}
local verdicts = {}
-- What is wrong with the packet being shown, for the Info column.
local marks = {}

local MAX_INFO_REFERENCE = 40 -- Characters of a call reference in the Info column.

function quorvane.init()
    calls = {}
    verdicts = {}
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

local function packet_type_of(tvb)
    return tvb(4, 1):uint()
end

local function is_write_leg(tvb)
    return tvb(7, 1):bitfield(0, 1) == 1
end

local function is_bit_zero_set(tvb)
    return tvb(6, 1):bitfield(7, 1) == 1
end

local function side_of(tvb)
    return is_bit_zero_set(tvb) and "terminator" or "originator"
end

local function leg_of(tvb)
    return is_write_leg(tvb) and "write" or "read"
end

local function uuid_of(tvb)
    return tostring(tvb(16, 16):bytes())
end

-- The length of a packet of a fixed part and what its length field counts. A
-- packet too short to hold that field asks for its fixed part; nil where only
-- the capture is too short.
local function length_with(tvb, fixed_size, field_offset, unit)
    if tvb:len() >= fixed_size then
        return fixed_size + unit * tvb(field_offset, 2):le_uint()
    end
    return tvb:reported_len() < fixed_size and fixed_size or nil
end

-- The length that the packet's own fields ask for; nil if it cannot be told.
local function expected_length(tvb)
    local kind = packet_type_of(tvb)
    if kind == START then
        return length_with(tvb, START_SIZE, 80, 1)
    elseif kind == DATA then
        return length_with(tvb, DATA_SIZE, 48, 2)
    elseif kind == CONTROL then
        return HEADER_SIZE + 2
    elseif kind == TERMINATE then
        return HEADER_SIZE
    end
    return nil
end

-- Whether the capture holds less of the datagram than was sent.
local function is_cut_short(tvb)
    return tvb:len() < tvb:reported_len()
end

-- A call reference ends in a zero byte, which its length counts.
local function has_closed_reference(tvb)
    return is_cut_short(tvb) or tvb:len() > START_SIZE and tvb(tvb:len() - 1, 1):uint() == 0
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

-- What a feature does on the two sides, such as "originator running".
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

local function call_of(tvb)
    local uuid = uuid_of(tvb)
    calls[uuid] = calls[uuid] or { legs = {} }
    return calls[uuid]
end

-- A start packet with another clock begins a new tap on the same channel.
local function follow_start(tvb, number)
    local call = call_of(tvb)
    local clock = tvb(56, 8):le_int64():tonumber()
    if call.start_frame and call.configured_clock ~= clock then
        call = { legs = {} }
        calls[uuid_of(tvb)] = call
    end
    if not call.start_frame then
        call.start_frame = number
        call.configured_clock = clock
        call.configured_time = tvb(48, 8):le_uint64():tonumber()
    end
    return { call = call }
end

local function remember_missing(leg, first, count)
    for index = 0, math.min(count, MAX_REMEMBERED) - 1 do
        leg.missing[(first + index) % WRAP] = true
    end
end

local function follow_old_packet(leg, sequence_number, verdict)
    if leg.missing[sequence_number] then
        leg.missing[sequence_number] = nil
        verdict.late = true
    else
        verdict.copy = true
    end
    return verdict
end

local function compare_with_expected(leg, sequence_number, sample_offset, verdict)
    local packets = counter_difference(sequence_number, leg.next_sequence_number)
    local samples = counter_difference(sample_offset, leg.next_sample_offset)
    if packets < 0 then
        return follow_old_packet(leg, sequence_number, verdict)
    elseif packets > 0 then
        verdict.lost_packets = packets
        verdict.lost_samples = samples >= 0 and samples or nil
        remember_missing(leg, leg.next_sequence_number, packets)
    end
    -- Missing packets take the offset forward, never back.
    if samples < 0 or packets == 0 and samples ~= 0 then
        verdict.offset_jump = samples
    end
    return verdict
end

local function follow_data(tvb, number)
    local call = call_of(tvb)
    local name = leg_of(tvb)
    local sequence_number = tvb(40, 4):le_uint()
    local sample_offset = tvb(44, 4):le_uint()
    local leg = call.legs[name]
    local verdict = { call = call, previous_frame = leg and leg.frame }
    if leg then
        verdict = compare_with_expected(leg, sequence_number, sample_offset, verdict)
    else
        leg = { missing = {} }
        call.legs[name] = leg
        verdict.first_of_leg = true
        verdict.beginning_missing = sequence_number ~= 1
    end
    if not verdict.late and not verdict.copy then
        leg.next_sequence_number = (sequence_number + 1) % WRAP
        leg.next_sample_offset = (sample_offset + tvb(48, 2):le_uint()) % WRAP
        leg.frame = number
    end
    return verdict
end

local function follow(tvb, number)
    local kind = packet_type_of(tvb)
    if kind == START then
        return follow_start(tvb, number)
    elseif kind == DATA then
        return follow_data(tvb, number)
    end
    return { call = call_of(tvb) }
end

-- Showing a packet ---------------------------------------------------------

-- Adds a field where the packet is long enough to hold it.
local function add(tree, field, tvb, offset, width)
    if tvb:len() < offset + width then
        return nil
    end
    return tree:add(field, tvb(offset, width))
end

local function add_le(tree, field, tvb, offset, width)
    if tvb:len() < offset + width then
        return nil
    end
    return tree:add_le(field, tvb(offset, width))
end

local function add_wall_time(tree, field, tvb, offset)
    if tvb:len() < offset + 8 then
        return
    end
    local microseconds = tvb(offset, 8):le_uint64():tonumber()
    tree:add(field, tvb(offset, 8), microseconds_to_time(microseconds))
end

local function show_leg_word(tree, tvb, kind)
    local item = tree:add_le(f.leg_word, tvb(6, 2))
    if kind == START then
        item:add_le(f.outbound, tvb(6, 2))
        item:add_le(f.has_report_node, tvb(6, 2))
        item:add_le(f.has_rule_id, tvb(6, 2))
    elseif kind == DATA then
        item:append_text(" (" .. leg_of(tvb) .. " leg, " .. side_of(tvb) .. ")")
        item:add_le(f.leg, tvb(6, 2))
        item:add_le(f.call_side, tvb(6, 2))
    end
end

local function show_header(tree, tvb, kind)
    tree:add_le(f.magic, tvb(0, 4))
    local type_item = tree:add(f.packet_type, tvb(4, 1))
    if not TYPE_NAMES[kind] then
        report(type_item, e.unknown_type, string.format("Unknown packet type 0x%02x", kind))
    end
    local version = tvb(5, 1):uint()
    local version_item = tree:add(f.protocol_version, tvb(5, 1))
    if version ~= 1 then
        report(version_item, e.unknown_version, "Unknown protocol version " .. version)
    end
    show_leg_word(tree, tvb, kind)
    tree:add_le(f.call_key, tvb(8, 8))
    tree:add(f.call_uuid, tvb(16, 16))
    tree:add_le(f.send_time, tvb(32, 8))
end

local function show_feature_byte(tree, field, byte, range)
    local item = tree:add(field, range)
    for _, feature in ipairs(FEATURES) do
        for _, side in ipairs(SIDES) do
            item:add(f[byte .. "_" .. feature.name .. "_" .. side], range)
        end
    end
end

-- Returns the features in words.
local function show_features(tree, tvb, offset)
    if tvb:len() < offset + 2 then
        return ""
    end
    local words = features_in_words(tvb(offset, 1):uint(), tvb(offset + 1, 1):uint())
    local item = tree:add(f.features, tvb(offset, 2))
    item:append_text(" (" .. words .. ")")
    show_feature_byte(item, f.supported, "supported", tvb(offset, 1))
    show_feature_byte(item, f.active, "active", tvb(offset + 1, 1))
    item:add(f.features_words, tvb(offset, 2), words):set_generated()
    return words
end

-- Returns the call reference, cut short where the packet ends too early.
local function show_call_reference(tree, tvb)
    local length_item = add_le(tree, f.call_reference_length, tvb, 80, 2)
    if not length_item then
        return ""
    end
    local available = math.min(tvb(80, 2):le_uint(), tvb:len() - START_SIZE)
    if available == 0 and is_cut_short(tvb) then
        return ""
    elseif available == 0 then
        report(length_item, e.open_reference, "Call reference without its zero byte")
        return ""
    end
    local range = tvb(START_SIZE, available)
    local is_closed = range(available - 1, 1):uint() == 0
    local length = is_closed and available - 1 or available
    local text = length > 0 and range(0, length):string(ENC_UTF_8) or ""
    local item = tree:add(f.call_reference, range, text)
    if not is_closed and not is_cut_short(tvb) then
        report(item, e.open_reference, "Call reference without its zero byte")
    end
    return text
end

local function shortened(text)
    return #text > MAX_INFO_REFERENCE and text:sub(1, MAX_INFO_REFERENCE) .. "..." or text
end

local function show_start(tree, tvb)
    add_wall_time(tree, f.created_time, tvb, 40)
    add_wall_time(tree, f.configured_time, tvb, 48)
    add_le(tree, f.configured_clock, tvb, 56, 8)
    add_le(tree, f.rule_id, tvb, 64, 8)
    add(tree, f.report_node_address, tvb, 72, 4)
    add(tree, f.report_node_port, tvb, 76, 2)
    local words = show_features(tree, tvb, 78)
    local reference = show_call_reference(tree, tvb)
    local direction = is_bit_zero_set(tvb) and "outbound" or "inbound"
    return string.format("%s, reference \"%s\", features: %s", direction, shortened(reference),
        words)
end

local function show_audio(tree, tvb, samples)
    local available = math.min(2 * samples, tvb:len() - DATA_SIZE)
    if available == 0 then
        return
    end
    local item = tree:add(f.audio, tvb(DATA_SIZE, available))
    item:set_text(string.format("Audio of the %s: %s, 16-bit linear, little-endian", side_of(tvb),
        plural(math.floor(available / 2), "sample")))
end

local function show_data(tree, tvb)
    add_le(tree, f.sequence_number, tvb, 40, 4)
    local alias = add_le(tree, f.seq, tvb, 40, 4)
    if alias then
        alias:set_hidden()
    end
    add_le(tree, f.sample_offset, tvb, 44, 4)
    local count_item = add_le(tree, f.sample_count, tvb, 48, 2)
    if not count_item then
        return leg_of(tvb) .. " " .. side_of(tvb)
    end
    local samples = tvb(48, 2):le_uint()
    if samples > MAX_SAMPLES then
        report(count_item, e.too_many_samples,
            string.format("%d samples, at most %d fit", samples, MAX_SAMPLES))
    end
    show_audio(tree, tvb, samples)
    return string.format("%s %s, seq=%.0f, offset=%.0f, samples=%d", leg_of(tvb), side_of(tvb),
        tvb(40, 4):le_uint(), tvb(44, 4):le_uint(), samples)
end

-- Shows the part behind the header; returns a summary of it.
local function show_body(tree, tvb, kind)
    if kind == START then
        return show_start(tree, tvb)
    elseif kind == DATA then
        return show_data(tree, tvb)
    elseif kind == CONTROL then
        return "features: " .. show_features(tree, tvb, HEADER_SIZE)
    end
    return ""
end

local function check_length(tree, tvb)
    if tvb:reported_len() > MAX_SIZE then
        report(tree, e.wrong_length,
            plural(tvb:reported_len(), "byte") .. ", longer than any packet")
        return
    end
    local expected = expected_length(tvb)
    if not expected or tvb:reported_len() == expected then
        return
    end
    local item = tree
    if tvb:len() > expected then
        item = tree:add(f.surplus, tvb(expected))
    end
    report(item, e.wrong_length, string.format("Wrong length: %s where the packet asks for %d",
        plural(tvb:reported_len(), "byte"), expected))
end

local function show_gap(tree, verdict)
    local missing = plural(verdict.lost_packets, "packet")
    tree:add(f.lost_packets, verdict.lost_packets):set_generated()
    if verdict.lost_samples then
        tree:add(f.lost_samples, verdict.lost_samples):set_generated()
        missing = missing .. " and " .. plural(verdict.lost_samples, "sample")
    end
    report(tree, e.gap, "Gap: " .. missing .. " missing")
end

local function show_offset_jump(tree, verdict)
    local where = verdict.lost_packets and "behind missing packets" or "without a missing packet"
    report(tree, e.offset_jump,
        string.format("Sample offset jump of %.0f %s", verdict.offset_jump, where))
end

-- Shows what the first pass found wrong.
local function show_order(tree, verdict)
    if verdict.lost_packets then
        show_gap(tree, verdict)
    end
    if verdict.offset_jump then
        show_offset_jump(tree, verdict)
    elseif verdict.late then
        report(tree, e.late, "Late packet")
    elseif verdict.copy then
        report(tree, e.copy, "Copy of an earlier packet")
    end
end

local function show_call(tree, tvb, number, verdict)
    local call = verdict.call
    if call.start_frame then
        local since = tvb(32, 8):le_int64():tonumber() - call.configured_clock
        tree:add(f.wall_time, microseconds_to_time(call.configured_time + since)):set_generated()
        if call.start_frame ~= number then
            tree:add(f.start_frame, call.start_frame):set_generated()
        end
    elseif verdict.first_of_leg then
        tree:add_proto_expert_info(e.no_start)
    end
    if verdict.beginning_missing then
        tree:add_proto_expert_info(e.beginning_missing)
    end
    if verdict.previous_frame then
        tree:add(f.previous_frame, verdict.previous_frame):set_generated()
    end
end

-- Malformed packets do not take part in following the calls, nor do those of
-- which the capture holds too little.
local function is_followed(tvb)
    local kind = packet_type_of(tvb)
    local needed = FOLLOWED_SIZES[kind]
    if not needed or tvb:len() < needed or tvb(5, 1):uint() ~= 1 then
        return false
    elseif kind == DATA and tvb(48, 2):le_uint() > MAX_SAMPLES then
        return false
    elseif kind == START and not has_closed_reference(tvb) then
        return false
    elseif tvb:reported_len() > MAX_SIZE then
        return false
    end
    return tvb:reported_len() == (expected_length(tvb) or tvb:reported_len())
end

local function show_verdict(tree, tvb, number)
    local verdict = verdicts[number]
    if verdict then
        show_call(tree, tvb, number, verdict)
        show_order(tree, verdict)
    end
end

-- Shows a packet that has its whole header; returns the Info text.
local function show_packet(tree, tvb, number)
    local kind = packet_type_of(tvb)
    local name = TYPE_NAMES[kind] or "unknown type"
    show_header(tree, tvb, kind)
    tree:append_text(", " .. name)
    local info = name:gsub("^%l", string.upper) .. " " .. uuid_of(tvb):sub(1, 8):lower()
    if tvb(5, 1):uint() ~= 1 then
        return info -- Another version may mean anything by the rest.
    end
    local summary = show_body(tree, tvb, kind)
    check_length(tree, tvb)
    show_verdict(tree, tvb, number)
    return summary == "" and info or info .. " " .. summary
end

-- Why a datagram cannot be shown at all: the expert item and the text, or nil.
local function unreadable_because(tvb)
    if tvb:len() >= 4 and tvb(0, 4):le_uint() ~= MAGIC then
        return e.bad_magic, "Bad magic " .. tostring(tvb(0, 4):bytes()):lower()
    elseif tvb:reported_len() < HEADER_SIZE then
        return e.wrong_length, "Wrong length: " .. plural(tvb:len(), "byte")
            .. ", shorter than the common header"
    end
    return nil
end

function quorvane.dissector(tvb, pinfo, root)
    marks = {}
    pinfo.cols.protocol = "QUORVANE"
    local tree = root:add(quorvane, tvb())
    local info = "Unreadable"
    local expert_item, text = unreadable_because(tvb)
    if expert_item then
        report(tree, expert_item, text)
    elseif tvb:len() < HEADER_SIZE then
        info = "Cut short by the capture"
    else
        if not pinfo.visited and is_followed(tvb) then
            verdicts[pinfo.number] = follow(tvb, pinfo.number)
        end
        info = show_packet(tree, tvb, pinfo.number)
    end
    if #marks > 0 then
        info = info .. " [" .. table.concat(marks, "; ") .. "]"
    end
    pinfo.cols.info = info
    return tvb:len()
end

-- Registration -------------------------------------------------------------

-- The later datagrams between the same two ports are the protocol's as well, so
-- that one with a bad magic among them is shown as such.
local function dissect_if_magic(tvb, pinfo, root)
    if tvb:len() < 4 or tvb(0, 4):le_uint() ~= MAGIC then
        return false
    end
    pinfo.conversation = quorvane
    quorvane.dissector(tvb, pinfo, root)
    return true
end
quorvane:register_heuristic("udp", dissect_if_magic)

local udp_ports = DissectorTable.get("udp.port")
udp_ports:add_for_decode_as(quorvane)

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
