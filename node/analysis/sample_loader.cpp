#include "node/analysis/sample_loader.h"

#include <exception>
#include <thread>
#include <utility>

#include "quorvane_lib/mutex.h"
#include "tools/thread_priority.h"

namespace qv::node::analysis {

struct SampleLoader::Shared {
    Mutex mutex;
    std::optional<Result> result QV_GUARDED_BY(mutex);
};

SampleLoader::Result load_now(const SampleLoader::Load& load) {
    try {
        return {load(), {}};
    } catch (const std::exception& failure) {  // Also if the samples need too much memory.
        return {{}, failure.what()};
    }
}

void SampleLoader::begin() {
    try {
        const auto shared = std::make_shared<Shared>();
        std::thread([load = load_, shared] {
            tools::lower_priority(tools::Priority::BACKGROUND);
            Result result = load_now(load);
            const LockGuard lock(shared->mutex);
            shared->result = std::move(result);
        }).detach();
        shared_ = shared;
    } catch (const std::exception& failure) {  // There are too many threads, or no memory.
        failure_ = Result{{}, failure.what()};
    }
}

std::optional<SampleLoader::Result> SampleLoader::take() {
    if (shared_ == nullptr) {
        return std::exchange(failure_, std::nullopt);
    }
    std::optional<Result> result;
    {
        const LockGuard lock(shared_->mutex);
        result = std::move(shared_->result);
    }
    if (result.has_value()) {
        shared_.reset();
    }
    return result;
}

}  // namespace qv::node::analysis
