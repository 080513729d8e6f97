#include "node/report/text.h"

#include <cmath>
#include <ctime>

#include "node/calls/level_meter.h"
#include "tools/format.h"
#include "tools/utf8.h"

namespace qv::node {

namespace {

struct FeatureName {
    const char* name;
    std::uint8_t mask;
};
constexpr FeatureName FEATURE_NAMES[] = {
    {"audio activity", media::feature_mask(media::Features::AudioActivity)},
    {"detection", media::feature_mask(media::Features::SampleDetection)},
    {"recording", media::FEATURE_RECORD},
    {"reserved", 0x03},
};

std::string side_state(media::features16_t features, unsigned bit, const char* side) {
    if ((features.supported & bit) == 0) {
        return {};
    }
    return std::string((features.active & bit) != 0 ? "on " : "off ") + side;
}

std::string feature_text(media::features16_t features, const FeatureName& feature) {
    const unsigned mask = feature.mask;
    const unsigned active = features.active & mask;
    const std::string name = feature.name;
    if ((features.supported & mask) == mask && (active == 0 || active == mask)) {
        return name + (active != 0 ? " on both" : " off both");
    }
    const unsigned originator = mask & (0U - mask);  // The lower bit.
    const std::string first = side_state(features, originator, "originator");
    const std::string second = side_state(features, mask & ~originator, "terminator");
    return name + ' ' + first + (!first.empty() && !second.empty() ? ", " : "") + second;
}

// A character, of those bytes, between quotation marks.
std::string shown_text(std::string_view bytes, char32_t code) {
    if (code == '"' || code == '\\') {
        return '\\' + std::string(bytes);
    }
    if (tools::is_printable(code)) {
        return std::string(bytes);
    }
    std::string out;
    for (const char byte : bytes) {
        out += tools::format("\\x%02x", unsigned{static_cast<unsigned char>(byte)});
    }
    return out;
}

// Nothing for the system's.
thread_local std::optional<Micros> reported_time;

timespec wall_clock() {
    timespec now{};
    if (reported_time.has_value()) {
        now.tv_sec = reported_time->count() / 1'000'000;
        now.tv_nsec = reported_time->count() % 1'000'000 * 1000;
    } else {
        clock_gettime(CLOCK_REALTIME, &now);
    }
    return now;
}

}  // namespace

std::string key_text(std::uint64_t call_key) {
    return tools::format("0x%016llx", static_cast<unsigned long long>(call_key));
}

std::string decibel_text(double level) {
    return std::to_string(std::lround(level)) + " dB";
}

std::string level_text(double level) {
    return level <= SILENCE_DB ? "silent" : decibel_text(level);
}

std::string quoted_text(std::string_view text, std::size_t columns) {
    std::string out = "\"";
    while (!text.empty()) {
        const tools::Character next = tools::first_character(text);
        const std::string shown = shown_text(text.substr(0, next.size), next.code);
        const std::size_t width = tools::columns_of(shown);
        if (width > columns) {
            out += "...";
            break;
        }
        out += shown;
        columns -= width;
        text.remove_prefix(next.size);
    }
    return out + '"';
}

std::string features_text(media::features16_t features) {
    std::string out;
    for (const FeatureName& feature : FEATURE_NAMES) {
        if ((features.supported & feature.mask) != 0) {
            out += (out.empty() ? "" : "; ") + feature_text(features, feature);
        }
    }
    return out.empty() ? "no features" : out;
}

void report_as_of(std::optional<Micros> time) {
    reported_time = time;
}

std::string utc_time() {
    const timespec now = wall_clock();
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    return tools::format("%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                         utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, now.tv_nsec / 1000);
}

std::string time_of_day() {
    const timespec now = wall_clock();
    tm local{};
    localtime_r(&now.tv_sec, &local);
    return tools::format("%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
                         now.tv_nsec / 1'000'000);
}

}  // namespace qv::node
