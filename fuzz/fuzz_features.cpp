// Fuzzes the texts that switch features on: two bytes with the features before, then the text.
#include <cstdint>
#include <string>

#include "fuzz/support/feature_model.h"
#include "fuzz/support/require.h"
#include "module/app_context.h"

namespace {

using qv::freeswitch::AppContext;
using qv::media::features16_t;

void compare(bool (*parse)(const char*, features16_t&), const std::string& text,
             features16_t before, unsigned orig, unsigned term) {
    features16_t features = before;
    const bool valid = parse(text.c_str(), features);
    const qv::fuzz::FeatureModel model = qv::fuzz::read_features(text, orig, term);
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
