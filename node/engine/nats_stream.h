// Creates the stream that stores the events, where there is none. Belongs to one thread.
#pragma once

#include <chrono>
#include <string>

#include "node/engine/nats_library.h"
#include "node/engine/settings.h"

namespace qv::node::nats {

class StreamCreator {
  public:
    using Clock = std::chrono::steady_clock;

    // The settings must outlive it.
    explicit StreamCreator(const EngineSettings& settings) : settings_(settings) {}

    enum class Result { NOT_TRIED, CREATED, PRESENT, FAILED };
    // Tries unless the settings forbid it, and not again for a while, which grows with each
    // attempt: also after a success, because a subscriber that answers events can make the stream
    // seem to be missing. PRESENT means that another stream takes the events. A failure fills
    // `error`.
    Result create(jsCtx* context, Clock::time_point now, std::string& error);

  private:
    const EngineSettings& settings_;
    Clock::time_point next_{};
    std::chrono::milliseconds pause_ = FIRST_PAUSE;

    static constexpr std::chrono::milliseconds FIRST_PAUSE{500};
    static constexpr std::chrono::milliseconds LONGEST_PAUSE{30000};
};

}  // namespace qv::node::nats
