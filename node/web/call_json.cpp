#include "node/web/call_json.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "node/calls/level_meter.h"
#include "node/report/event_json.h"
#include "node/report/text.h"
#include "node/web/call_files.h"
#include "tools/format.h"

namespace qv::node::web {

namespace {

using Json = nlohmann::json;

constexpr Micros PATIENCE_WITH_START{2'000'000};
constexpr Micros PATIENCE_WITH_SIDE{5'000'000};

std::string dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string number(double value) {
    return tools::format("%.3f", value);
}

std::string field(const char* name, const std::string& value) {
    return std::string(",\"") + name + "\":" + value;
}

std::string field(const char* name, std::uint64_t value) {
    return field(name, std::to_string(value));
}

const char* text_of(bool value) {
    return value ? "true" : "false";
}

Json facts_json(const Uuid& uuid, Micros began, const CallFacts& facts) {
    Json json = {{"call_uuid", uuid_text(uuid)},
                 {"call_ref", nullptr},
                 {"features_text", nullptr},
                 {"source", address_text(facts.source)},
                 {"began", utc_time_ms(began)},
                 {"started", facts.start.has_value()},
                 {"features", features_json(facts.features)},
                 {"control_packets", facts.control_packets}};
    if (facts.start.has_value()) {
        const StartFields& start = *facts.start;
        json["call_ref"] = start.call_reference;
        json["features_text"] = features_text(facts.features);
        json["outbound"] = start.outbound();
        json["created_time"] = start.created_time;
        json["configured_time"] = start.configured_time;
        if (start.rule_id_given()) {
            json["rule_id"] = std::to_string(start.rule_id);
        }
        if (!start.report_node.empty()) {
            json["report_node"] = start.report_node;
        }
    }
    return json;
}

Json failed_json(const std::vector<FileReport>& files) {
    Json json = Json::array();
    for (const FileReport& file : files) {
        json.push_back({{"file", file.path}, {"error", file.error}});
    }
    return json;
}

std::string side_text(const SideFacts& facts, const SideFigures& figures) {
    if (!facts.begun) {
        return "null";
    }
    std::string text = "{\"leg\":" + std::to_string(facts.leg);
    text += field("sample_rate", static_cast<std::uint64_t>(facts.sample_rate));
    text += field("rate_assumed", text_of(facts.rate_assumed));
    text += field("seconds", number(figures.seconds));
    text += field("packets", figures.stats.packets);
    text += field("lost", figures.stats.lost());
    text += field("late", figures.stats.late);
    text += field("duplicates", figures.stats.duplicates);
    text += field("reordered", figures.stats.reordered);
    text += field("gaps", figures.stats.gaps);
    text += field("pauses", figures.pauses);
    text += std::string(",\"running\":{\"activity\":") + text_of(facts.running.activity) +
            ",\"detection\":" + text_of(facts.running.detection) +
            ",\"recording\":" + text_of(facts.running.recording) + "}";
    text += field("active", text_of(facts.active));
    return text + "}";
}

std::string sides_text(const CallFacts& facts, const CallFigures& figures) {
    std::string text = ",\"sides\":{";
    for (const Side side : BOTH_SIDES) {
        text += side == Side::ORIGINATOR ? "\"" : ",\"";
        text += std::string(name_of(side)) +
                "\":" + side_text(facts.sides[index_of(side)], figures.sides[index_of(side)]);
    }
    return text + "}";
}

std::uint64_t sum_lost(const CallFigures& figures) {
    return figures.sides[0].stats.lost() + figures.sides[1].stats.lost();
}

std::uint64_t sum_late(const CallFigures& figures) {
    return figures.sides[0].stats.late + figures.sides[1].stats.late;
}

// What somebody should look at.
std::string trouble_text(const CallFacts& facts, const CallFigures& figures, Micros age) {
    std::string text;
    const auto add = [&text](bool is_so, const char* name) {
        if (is_so) {
            text += std::string(text.empty() ? "\"" : ",\"") + name + "\"";
        }
    };
    add(!facts.start.has_value() && age >= PATIENCE_WITH_START, "no_start");
    add(sum_lost(figures) != 0, "loss");
    add(sum_late(figures) != 0, "late");
    add(facts.sides[0].begun != facts.sides[1].begun && age >= PATIENCE_WITH_SIDE, "one_sided");
    add(!facts.failed_files.empty(), "file");
    add(figures.foreign_packets != 0, "foreign");
    return "[" + text + "]";
}

// The fields with figures that both kinds of calls have.
std::string figures_text(const CallFacts& facts, const CallFigures& figures, Micros age) {
    std::string text = field("seconds", number(seconds_of(age)));
    text += field("foreign_packets", figures.foreign_packets);
    text += field("lost_packets", sum_lost(figures));
    text += field("late_packets", sum_late(figures));
    text += field("trouble", trouble_text(facts, figures, age));
    return text + sides_text(facts, figures);
}

}  // namespace

std::string facts_text(const CallRecord& record, const CallFacts& facts) {
    Json json = facts_json(record.uuid(), record.began(), facts);
    json["id"] = record.id();
    json["ending"] = facts.ending;
    json["failed_files"] = failed_json(facts.failed_files);
    std::string text = dump(json);
    text.pop_back();
    return text;
}

std::string call_text(const std::string& facts_text, const CallRecord& record,
                      const CallRecord::Reading& reading, Micros now) {
    return facts_text + figures_text(*reading.facts, reading.figures, now - record.first_seen()) +
           "}";
}

std::string heard_text(const std::string& call_text, const Levels& levels,
                       const std::vector<Mark>& samples) {
    Json heard = {{"levels", Json::object()}, {"samples", Json::array()}};
    for (const Side side : BOTH_SIDES) {
        const std::optional<double>& level = levels[index_of(side)];
        heard["levels"][name_of(side)] =
            level.has_value() ? Json(std::round(*level * 10) / 10) : Json(nullptr);
    }
    for (const Mark& mark : samples) {
        heard["samples"].push_back(
            {{"call_side", name_of(mark.side)}, {"sample", mark.text}, {"begin", mark.begin}});
    }
    return call_text.substr(0, call_text.size() - 1) + "," + dump(heard).substr(1);
}

std::string finished_text(const FinishedCall& call, const FileFolder& folder) {
    Json json = facts_json(call.uuid, call.began, *call.facts);
    json["id"] = call.id;
    json["ended"] = utc_time_ms(call.ended);
    json["reason"] = name_of(call.reason);
    json["failed_files"] = failed_json(call.facts->failed_files);
    Json files = Json::array();
    for (const CallFile& file : files_of(call, folder)) {
        files.push_back({{"name", file.name},
                         {"kind", file.kind},
                         {"bytes", file.bytes},
                         {"call_side", file.call_side}});
    }
    json["files"] = files;
    std::string text = dump(json);
    text.pop_back();
    return text + figures_text(*call.facts, call.figures, call.ended - call.began) + "}";
}

std::string mark_text(const Mark& mark) {
    Json json = {{"begin", mark.begin}};
    if (mark.kind != Mark::Kind::FEATURES) {
        json["call_side"] = name_of(mark.side);
    }
    switch (mark.kind) {
        case Mark::Kind::ACTIVE:
            json["kind"] = "activity";
            json["end"] = nullptr;
            break;
        case Mark::Kind::QUIET:  // The end of the latest activity of the side.
            json["kind"] = "activity";
            json["end"] = mark.begin;
            json["begin"] = nullptr;
            break;
        case Mark::Kind::SAMPLE:
            json["kind"] = "sample";
            json["name"] = mark.text;
            break;
        case Mark::Kind::GAP:
            json["kind"] = "gap";
            json["end"] = mark.end;
            break;
        case Mark::Kind::PAUSE:
            json["kind"] = "pause";
            json["end"] = mark.end;
            break;
        case Mark::Kind::FEATURES:
            json["kind"] = "features";
            json["text"] = mark.text;
            break;
    }
    return dump(json);
}

std::string json_string(const std::string& text) {
    return dump(text);
}

std::string base64(const std::string& bytes) {
    static constexpr char digits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t group = 0;
        for (std::size_t j = 0; j < 3; ++j) {
            group = group << 8 | (j < count ? static_cast<unsigned char>(bytes[i + j]) : 0U);
        }
        for (std::size_t j = 0; j < 4; ++j) {
            text += j <= count ? digits[group >> (18 - 6 * j) & 63] : '=';
        }
    }
    return text;
}

}  // namespace qv::node::web
