// The texts that switch features on: two bytes of features that are there before, then
// the text.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "module/app_context.h"
#include "quorvane_lib/utils_str.h"

namespace {

using qv::freeswitch::AppContext;
using qv::media::features16_t;

struct Model {
    bool valid = false;
    unsigned supported = 0;
    unsigned active = 0;
};

bool begins(const std::string& text, const char* keyword) {
    const std::size_t length = std::strlen(keyword);
    return text.size() >= length && std::memcmp(text.data(), keyword, length) == 0;
}

// Keyword by keyword, the longer forms of a leg included. `orig` and `term` are the bits
// of the legs.
Model model_of(const std::string& text, unsigned orig, unsigned term) {
    std::vector<std::string> parts;
    qv::utils::str::split(text, "::", parts, true);
    const std::string& name = parts[0];
    const unsigned both = orig | term;
    if (name.size() < 4) {
        return {false, 0, 0};
    }
    if (begins(name, "true") || begins(name, "enabled")) {
        return {true, both, both};
    }
    if (begins(name, "inactive")) {
        return {true, both, 0};
    }
    const bool terminator = begins(name, "term") || begins(name, "terminator");
    if (!terminator && !begins(name, "orig") && !begins(name, "originator")) {
        return {false, 0, 0};
    }
    const unsigned leg = terminator ? term : orig;
    const bool active = parts.size() == 1 || begins(parts[1], "true") ||
                        begins(parts[1], "enabled") || begins(parts[1], "active");
    return {true, leg, active ? leg : 0};
}

void compare(bool (*parse)(const char*, features16_t&), const std::string& text,
             features16_t before, unsigned orig, unsigned term) {
    features16_t features = before;
    const bool valid = parse(text.c_str(), features);
    const Model model = model_of(text, orig, term);
    const unsigned kept = before.active & ~model.supported;
    qv::fuzz::require_equal("result", valid, model.valid);
    qv::fuzz::require_equal("supported legs", unsigned{features.supported},
                            before.supported | model.supported);
    qv::fuzz::require_equal("active legs", unsigned{features.active}, kept | model.active);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2 || size > 256) {
        return 0;
    }
    const features16_t before{data[0], data[1]};
    const std::string text = qv::fuzz::as_text(data + 2, size - 2).c_str();
    compare(AppContext::parse_audio_activity, text, before, 0x04, 0x08);
    compare(AppContext::parse_sample_detection, text, before, 0x10, 0x20);
    return 0;
}
