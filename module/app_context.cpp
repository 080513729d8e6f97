#include "module/app_context.h"

#include <cstring>
#include <new>
#include <string_view>

#include "module/host_log.h"
#include "quorvane_lib/hash_crc64.h"
#include "quorvane_lib/utils_bytes.h"

namespace qv::freeswitch {

namespace {

static_assert(media::UUID_SIZE == utils::bytes::UUID_SIZE, "UUIDs are decoded into packets");

using media::Features;
using media::features16_t;

constexpr std::string_view VALUE_SEPARATOR = "::";

bool begins(std::string_view text, std::string_view keyword) {
    return text.substr(0, keyword.size()) == keyword;
}

// The text before the first separator.
std::string_view cut_name(std::string_view text) {
    return text.substr(0, text.find(VALUE_SEPARATOR));
}

bool has_value(std::string_view text) {
    return text.find(VALUE_SEPARATOR) != std::string_view::npos;
}

std::string_view cut_value(std::string_view text) {
    return cut_name(text.substr(cut_name(text).size() + VALUE_SEPARATOR.size()));
}

bool means_active(std::string_view value) {
    return begins(value, "true") || begins(value, "enabled") || begins(value, "active");
}

// Reads a text that names one side, with or without a value.
bool parse_leg(std::string_view text, Features feature, features16_t& named) {
    const std::string_view name = cut_name(text);
    if (begins(name, "term")) {
        named.supported = media::terminator_bit(feature);
    } else if (begins(name, "orig")) {
        named.supported = media::originator_bit(feature);
    } else {
        return false;
    }
    if (!has_value(text) || means_active(cut_value(text))) {
        named.active = named.supported;
    }
    return true;
}

// Reads the text only up to its second "::", as one word: "orig::true term::true" is the
// originator with the value "true term". Compares only the beginning of a word, so "trueish" is
// "true". See docs/design.md, Odd on purpose: feature texts.
bool parse_feature(const char* option, Features feature, features16_t& features) {
    if (option == nullptr) {
        return false;
    }
    const std::string_view text = option;
    const std::string_view name = cut_name(text);
    const std::uint8_t both = media::feature_mask(feature);
    features16_t named{};
    if (begins(name, "true") || begins(name, "enabled")) {
        named = {both, both};
    } else if (begins(name, "inactive")) {
        named = {both, 0};
    } else if (!parse_leg(text, feature, named)) {
        return false;
    }
    media::merge_features(features, named);
    return true;
}

}  // namespace

bool AppContext::mark_configured(switch_core_session* session) {
    const switch_channel_timetable_t* timetable =
        switch_channel_get_timetable(switch_core_session_get_channel(session));
    if (timetable == nullptr) {
        log_session_line<log::ERROR>(session, QV_PLACE, "MAGIC: failed to get channel timetable");
        return false;
    }
    created_time = static_cast<std::uint64_t>(timetable->created);
    return true;
}

void AppContext::set_session_uuid(const char* text) {
    const std::size_t length = text == nullptr ? 0 : std::strlen(text);
    if (length < sizeof(session_uuid_)) {
        std::memcpy(session_uuid_, text == nullptr ? "" : text, length + 1);
    }
}

void AppContext::lend_to_bug() {
    ContextReference(this).release();
    ++lent_;
}

ContextReference AppContext::take_back_from_bug() {
    int lent = lent_.load();
    while (lent > 0 && !lent_.compare_exchange_weak(lent, lent - 1)) {
    }
    return lent > 0 ? ContextReference::adopt(this) : ContextReference();
}

bool AppContext::parse_audio_activity(const char* text, features16_t& features) {
    return parse_feature(text, Features::AudioActivity, features);
}

bool AppContext::parse_sample_detection(const char* text, features16_t& features) {
    return parse_feature(text, Features::SampleDetection, features);
}

std::uint64_t call_key(const unsigned char* uuid) {
    return hash::CRC64::compute(uuid, media::UUID_SIZE);
}

bool identify(const char* uuid_text, CallIdentity& call) {
    if (!utils::bytes::decode_uuid(uuid_text, call.uuid, tag::direct_update_t())) {
        return false;
    }
    call.id = call_key(call.uuid);
    return true;
}

AppContext* find_context(const ContextRegistry& contexts, std::uint64_t id) {
    const auto found = contexts.find(id);
    return found == contexts.end() ? nullptr : found->second;
}

AppContext* add_context(ContextRegistry& contexts, std::uint64_t id) {
    ContextReference context(new (std::nothrow) AppContext);
    if (!context) {
        return nullptr;
    }
    try {
        contexts.insert_or_assign(id, context.get());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return context.release();
}

std::optional<ContextReference> remove_context(ContextRegistry& contexts, std::uint64_t id) {
    const auto found = contexts.find(id);
    if (found == contexts.end()) {
        return std::nullopt;
    }
    ContextReference context = ContextReference::adopt(found->second);
    contexts.erase(found);
    return context;
}

}  // namespace qv::freeswitch
