#include "node/engine/nats_stream.h"

#include <algorithm>

namespace qv::node::nats {

namespace {

constexpr std::int64_t NANOS_PER_SECOND = 1'000'000'000;

natsStatus add_stream(jsCtx* context, const EngineSettings& settings, jsErrCode& code) {
    const char* subject = "quorvane.events.>";
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = settings.stream.c_str();
    config.Description = "Events of quorvane-node";
    config.Subjects = &subject;
    config.SubjectsLen = 1;
    config.Replicas = settings.replicas;
    config.MaxBytes = static_cast<std::int64_t>(settings.stream_mib << 20);
    config.MaxAge = static_cast<std::int64_t>(settings.stream_hours * 3600 * NANOS_PER_SECOND);
    config.Duplicates = static_cast<std::int64_t>(settings.duplicates_s * NANOS_PER_SECOND);
    return js_AddStream(nullptr, context, &config, nullptr, &code);
}

}  // namespace

StreamCreator::Result StreamCreator::create(jsCtx* context, Clock::time_point now,
                                            std::string& error) {
    if (!settings_.create_stream || now < next_) {
        return Result::NOT_TRIED;
    }
    if (now - next_ > LONGEST_PAUSE) {
        pause_ = FIRST_PAUSE;
    }
    next_ = now + pause_;
    pause_ = std::min(2 * pause_, LONGEST_PAUSE);
    jsErrCode code{};
    const natsStatus status = add_stream(context, settings_, code);
    if (status == NATS_OK) {
        return Result::CREATED;
    }
    if (code == JSStreamSubjectOverlapErr) {
        return Result::PRESENT;
    }
    error = "stream " + settings_.stream + " not created: " + last_error(status);
    return Result::FAILED;
}

}  // namespace qv::node::nats
