#include "node/outputs/event_output.h"

#include <utility>

#include "node/report/event_file.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

constexpr std::size_t MOST_WAITING = 1 << 20;  // Bytes.

}  // namespace

std::string EventOutput::open() {
    if (options_.path.empty()) {
        return {};
    }
    auto file = std::make_unique<EventFile>();
    const std::string error = file->open(options_.path);
    if (!error.empty()) {
        return "cannot write events to " + options_.path + ": " + error;
    }
    outlet_ = std::make_unique<TextOutlet>(std::move(file), MOST_WAITING);
    log_ = std::make_unique<EventLog>(
        [this](const char* lines, std::size_t size) {
            return take({lines, size});
        },
        options_.every_packet);
    return {};
}

void EventOutput::copy_to(EventLog::Copy copy) {
    if (log_ == nullptr) {  // Nothing is written.
        log_ = std::make_unique<EventLog>(
            [](const char* /*lines*/, std::size_t size) { return size; }, options_.every_packet);
    }
    log_->copy_to(std::move(copy));
}

void EventOutput::reopen_with(ReloadList& reloads) {
    if (outlet_ != nullptr && options_.path != "-") {
        reloads.add(
            "events file " + options_.path, [this] { outlet_->reopen(); },
            [this] { return outlet_->take_reopened(); });
    }
}

std::size_t EventOutput::take(std::string_view lines) {
    while (!outlet_->add(lines)) {
        if (!patience_.waits_for_room()) {
            return 0;
        }
        outlet_->wait(Patience::Clock::now() + Patience::A_MOMENT);
    }
    return lines.size();
}

void EventOutput::flush() {
    const bool refused = log_ != nullptr && !log_->flush();
    if (outlet_ != nullptr) {
        const std::string error = outlet_->error();
        report_new_file();
        report_failure(refused || !error.empty(), error);
    }
}

void EventOutput::report_new_file() {
    const std::uint64_t new_files = outlet_->replaced();
    if (new_files != std::exchange(reported_new_files_, new_files)) {
        lines_.say("events go to a new file", options_.path + " had been moved or removed");
    }
}

// Reports only changes, because every write fails while the disk is full.
void EventOutput::report_failure(bool failing, const std::string& error) {
    if (failing == std::exchange(failing_, failing)) {
        return;
    }
    if (failing) {
        failed_ = true;
        lines_.say("events not written",
                   options_.path + ": " + (error.empty() ? "nothing takes them" : error));
        return;
    }
    const std::uint64_t lost = log_->dropped();
    lines_.say("events are written again",
               grouped(lost - std::exchange(reported_lost_, lost)) + " lost");
}

LostEvents EventOutput::finish() {
    if (outlet_ == nullptr) {
        return {};
    }
    patience_.wait_for_reader([this](auto until) {
        flush();
        return outlet_->wait(until) && log_->waiting() == 0;
    });
    flush();
    LostEvents lost{log_->dropped() + log_->waiting() + outlet_->waiting_lines(), options_.path};
    failed_ = failed_ || lost.count != 0;
    return lost;
}

}  // namespace qv::node
