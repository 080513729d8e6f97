// What goes to NATS (--nats): connects events and audio to the publisher, reports what the
// connection does, and waits at the end until the server has taken what waits.
//
// Belongs to the thread of the program's event loop. The calls report to audio(), from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "node/engine/publisher.h"
#include "node/engine/settings.h"
#include "node/outputs/event_output.h"
#include "node/outputs/patience.h"
#include "node/report/audio_stream.h"
#include "node/report/line_report.h"
#include "node/report/notices.h"

namespace qv::node {

class EngineOutput {
  public:
    using MakePublisher =
        std::function<std::unique_ptr<Publisher>(const EngineSettings& settings, std::string&)>;

    // Both must outlive this object. Tests bring publishers of their own.
    EngineOutput(const EngineSettings& settings, LineReport& lines,
                 MakePublisher make = make_publisher)
        : settings_(settings), lines_(lines), make_(std::move(make)) {}

    // Begins to connect, if the settings have a server, and has events copied there. Returns why
    // the settings cannot be used, or an empty text.
    std::string open(EventOutput& events);

    // The audio of the calls. Null unless requested.
    CallListener* audio() { return audio_.get(); }

    // Reports what has happened since the last call. Call it several times a second.
    void report();
    // Waits until the server has taken everything, at most as long as the settings say. Then ends
    // the connection and reports what was left.
    void finish(const Patience& patience, Notices& notices);

    EngineFigures figures() const;
    // Whether events or audio were lost. Known after finish().
    bool failed() const { return failed_; }

  private:
    const EngineSettings& settings_;
    LineReport& lines_;
    const MakePublisher make_;
    std::unique_ptr<Publisher> publisher_;  // Null without a server.
    std::unique_ptr<AudioStream> audio_;
    bool failed_ = false;
};

}  // namespace qv::node
