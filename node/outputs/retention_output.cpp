#include "node/outputs/retention_output.h"

#include "node/audio/file_names.h"

namespace qv::node {

namespace {

constexpr std::chrono::seconds INTERVAL{60};
constexpr std::chrono::seconds RETENTION_PATIENCE{5};

}  // namespace

void RetentionOutput::update(Clock::time_point now) {
    report();
    if (!began_.has_value() || now - *began_ >= INTERVAL) {
        began_ = now;
        retention_.begin(names_.present());
    }
}

void RetentionOutput::finish() {
    retention_.end(Clock::now() + RETENTION_PATIENCE);
    report();
}

void RetentionOutput::report() {
    const RetentionResult result = retention_.take();
    for (const RemovedCall& call : result.removed) {
        removed_calls_ += call.error.empty() ? 1 : 0;
        removed_bytes_ += call.bytes;
        for (const std::string& file : call.files) {
            names_.forget(wav_name(file));
        }
    }
    notices_.removed(result);
}

}  // namespace qv::node
