#include "node/report/text.h"

#include <cmath>
#include <cstdlib>
#include <ctime>

#include "node/calls/level_meter.h"
#include "tools/format.h"
#include "tools/hexadecimal.h"
#include "tools/utf8.h"

namespace qv::node {

namespace {

constexpr std::int64_t SECOND = 1'000'000;  // Microseconds.

std::int64_t micros_of_second(Micros time) {
    return time.count() % SECOND;
}

// "2026-01-31T23:59:59"
std::string utc_second(Micros time) {
    const std::time_t seconds = time.count() / SECOND;
    tm utc{};
    gmtime_r(&seconds, &utc);
    return tools::format("%04d-%02d-%02dT%02d:%02d:%02d", utc.tm_year + 1900, utc.tm_mon + 1,
                         utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

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

// Returns the character of these bytes as it is shown between quotation marks.
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

// Nullopt: the system's time.
thread_local std::optional<Micros> reported_time;

struct LocalMoment {
    tm time{};
    long micros;  // Of the second.
};

LocalMoment local_moment(Micros time) {
    const std::time_t seconds = time.count() / SECOND - (time.count() % SECOND < 0 ? 1 : 0);
    LocalMoment moment{};
    localtime_r(&seconds, &moment.time);
    moment.micros = time.count() - seconds * SECOND;
    return moment;
}

}  // namespace

void append_count(std::string& text, std::uint64_t count, const char* what) {
    if (count != 0) {
        text += ", " + grouped(count) + ' ' + what;
    }
}

std::string key_text(std::uint64_t call_key) {
    return "0x" + tools::hexadecimal(call_key);
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

std::string utf8_text(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const tools::Character next = tools::first_character(text);
        const bool is_broken = next.code == 0 && text[0] != 0;
        out += is_broken ? "\uFFFD" : std::string(text.substr(0, next.size));
        text.remove_prefix(next.size);
    }
    return out;
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

std::string running_text(Running running) {
    std::string text;
    const auto append = [&text](bool runs, const char* what) {
        if (runs) {
            text += (text.empty() ? "" : ", ") + std::string(what);
        }
    };
    append(running.activity, "audio activity");
    append(running.detection, "sample detection");
    append(running.recording, "recording");
    return text;
}

void report_as_of(std::optional<Micros> time) {
    reported_time = time;
}

std::string utc_time() {
    const Micros now = wall_time();
    return utc_second(now) + tools::format(".%06ldZ", micros_of_second(now));
}

std::string utc_time_ms(Micros time) {
    return utc_second(time) + tools::format(".%03ldZ", micros_of_second(time) / 1000);
}

std::string time_of_day() {
    const LocalMoment now = local_moment(wall_time());
    return tools::format("%02d:%02d:%02d.%03ld", now.time.tm_hour, now.time.tm_min, now.time.tm_sec,
                         now.micros / 1000);
}

Micros wall_time() {
    return reported_time.has_value() ? *reported_time : clock_now(CLOCK_REALTIME);
}

std::string local_date(Micros time) {
    const tm local = local_moment(time).time;
    return tools::format("%04d-%02d-%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

std::string local_time(Micros time) {
    const tm local = local_moment(time).time;
    return tools::format("%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
}

std::string local_time_tenths(Micros time) {
    return local_time(time) + tools::format(".%ld", local_moment(time).micros / 100'000);
}

std::string zone_text(Micros time) {
    const long minutes = local_moment(time).time.tm_gmtoff / 60;
    const long ahead = std::labs(minutes);
    return tools::format("UTC%c%02ld:%02ld", minutes < 0 ? '-' : '+', ahead / 60, ahead % 60);
}

}  // namespace qv::node
