#include "node/outputs/engine_output.h"

#include <chrono>

#include "node/report/text.h"

namespace qv::node {

std::string EngineOutput::open(EventOutput& events) {
    if (settings_.urls.empty()) {
        return {};
    }
    std::string error;
    publisher_ = make_(settings_, error);
    if (publisher_ == nullptr) {
        return "cannot use --nats: " + error;
    }
    events.copy_to(
        [this](const std::string& kind, const std::string& call, const std::string& text) {
            publisher_->push(EngineEvent{call.empty() ? NO_CALL : call, kind, text});
        });
    if (settings_.audio) {
        audio_ = std::make_unique<AudioStream>(*publisher_, settings_.chunk_ms);
    }
    return {};
}

void EngineOutput::report() {
    if (publisher_ == nullptr) {
        return;
    }
    for (const auto& [what, details] : publisher_->take_news()) {
        lines_.say(what, details);
    }
}

void EngineOutput::finish(const Patience& patience, Notices& notices) {
    if (publisher_ == nullptr) {
        return;
    }
    patience.wait(std::chrono::duration<double>(settings_.exit_wait_s),
                  [this] { return publisher_->wait(Patience::A_MOMENT); });
    const Publisher::Left left = publisher_->finish();
    report();
    const EngineFigures figures = publisher_->figures();
    notices.nats_lost(figures);
    if (left.events + left.chunks != 0) {
        lines_.say("not sent to nats", counted(left.events, "event") + " and " +
                                           counted(left.chunks, "chunk") +
                                           " of audio: no server took them before the end");
    }
    failed_ = left.events + left.chunks + figures.lost_events + figures.lost_chunks != 0;
}

EngineFigures EngineOutput::figures() const {
    return publisher_ != nullptr ? publisher_->figures() : EngineFigures{};
}

}  // namespace qv::node
