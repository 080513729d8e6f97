#include "node/report/notices.h"

#include <algorithm>
#include <utility>

#include "node/report/text.h"
#include "tools/hexadecimal.h"

namespace qv::node {

namespace {

// Further malformed datagrams are only counted.
constexpr std::uint64_t MALFORMED_REPORTS_PER_REASON = 3;

constexpr std::size_t SHOWN_BYTES = 8;

std::string hex_of(const Datagram& datagram) {
    std::string text;
    for (std::size_t i = 0; i < std::min(datagram.size, SHOWN_BYTES); ++i) {
        text += ' ' + tools::hexadecimal(datagram.data + i, 1);
    }
    return text;
}

}  // namespace

void Notices::listening(const std::string& address) {
    if (events_ != nullptr) {
        events_->listening(address);
    }
}

void Notices::listen(const Uuid& call, const std::string& sides, const std::string& from,
                     std::optional<double> seconds) {
    lines_.say(seconds.has_value() ? "no longer heard" : "heard",
               uuid_text(call) + ", " + (sides == "both" ? "both sides" : sides) + ", from " +
                   from + (seconds.has_value() ? ", after " + duration_text(*seconds) : ""));
    if (events_ != nullptr) {
        events_->listen(call, sides, from, seconds);
    }
}

void Notices::left_behind(const std::vector<LeftoverFile>& files) {
    if (files.empty()) {
        return;
    }
    std::uint64_t failed = 0;
    for (const LeftoverFile& file : files) {
        if (!file.error.empty()) {
            ++failed;
            lines_.say("not repaired", file.path + ": " + file.error);
        }
        if (events_ != nullptr) {
            events_->left_behind(file);
        }
    }
    if (failed < files.size()) {
        lines_.say("repaired", counted(files.size() - failed, "file") +
                                   " of an earlier run that was killed, in " +
                                   files[0].path.substr(0, files[0].path.rfind('/')));
    }
}

std::uint64_t Notices::count_malformed(media::DecodeResult reason) {
    const LockGuard lock(mutex_);
    return ++malformed_[static_cast<std::size_t>(reason)];
}

void Notices::removed(const RetentionResult& result) {
    std::uint64_t calls = 0;
    std::uint64_t bytes = 0;
    for (const RemovedCall& call : result.removed) {
        calls += call.error.empty() ? 1 : 0;
        bytes += call.bytes;
        if (!call.error.empty()) {
            lines_.say("not removed", call.error);
        }
        if (events_ != nullptr) {
            events_->removed(call);
        }
    }
    if (calls != 0) {
        lines_.say("removed", "the files of " + counted(calls, "call") + ", " + grouped(bytes) +
                                  " bytes (--keep)");
    }
    if (!result.distrust.empty()) {
        lines_.say("not removed by age", result.distrust + "; for 24 hours");
    }
}

void Notices::malformed(const Datagram& datagram, media::DecodeResult reason, std::uint64_t count) {
    // The lock would slow a flood down.
    if (count > MALFORMED_REPORTS_PER_REASON) {
        return;
    }
    const std::uint64_t in_all = count_malformed(reason);
    if (in_all > MALFORMED_REPORTS_PER_REASON) {
        return;
    }
    const std::string source = address_text(datagram.arrival.source);
    if (!quiet_lines_) {
        const std::string beginning = hex_of(datagram);
        lines_.say("malformed packet",
                   std::string(describe(reason)) + ": " + counted(datagram.size, "byte") +
                       " from " + source +
                       (beginning.empty() ? "" : ", beginning with" + beginning) +
                       (in_all == MALFORMED_REPORTS_PER_REASON ? "; more are only counted" : ""));
    }
    if (events_ != nullptr) {
        events_->malformed(reason, datagram.size, source);
    }
}

void Notices::audio_dropped(std::uint64_t total) {
    const std::uint64_t fresh = total - std::exchange(reported_dropped_audio_, total);
    if (fresh == 0) {
        return;
    }
    lines_.say("audio lost: the disk is too slow",
               grouped(fresh) + " bytes more than may wait (--write-buffer)");
    if (events_ != nullptr) {
        events_->audio_dropped(fresh);
    }
}

void Notices::overflowed(std::uint64_t total) {
    const std::uint64_t fresh = total - std::exchange(reported_overflow_, total);
    if (fresh == 0) {
        return;
    }
    if (!quiet_lines_) {
        lines_.say("receive buffer full", "the system dropped " + counted(fresh, "packet"));
    }
    if (events_ != nullptr) {
        events_->overflow(fresh);
    }
}

void Notices::not_allowed(std::uint64_t total, const sockaddr_in& source) {
    const std::uint64_t fresh = total - std::exchange(reported_not_allowed_, total);
    if (fresh == 0) {
        return;
    }
    if (!quiet_lines_) {
        lines_.say("sender not allowed", "dropped " + counted(fresh, "packet") +
                                             ", the latest from " + address_text(source));
    }
    if (events_ != nullptr) {
        events_->not_allowed(fresh, source);
    }
}

void Notices::reports_not_allowed(const ReportFigures& figures) {
    const std::uint64_t fresh =
        figures.not_allowed - std::exchange(reported_refused_reports_, figures.not_allowed);
    if (fresh != 0 && !quiet_lines_) {
        lines_.say("report node not allowed",
                   "did not send " + counted(fresh, "report") + ", the latest to " +
                       address_text(figures.latest_not_allowed) + " (see --report-to)");
    }
}

void Notices::too_many_reports(std::uint64_t total) {
    const std::uint64_t fresh = total - std::exchange(reported_too_many_reports_, total);
    if (fresh != 0 && !quiet_lines_) {
        lines_.say("too many reports", "left out " + counted(fresh, "report"));
    }
}

void Notices::losses(const NodeFigures& figures) {
    not_allowed(figures.not_allowed, figures.latest_not_allowed);
    reports_not_allowed(figures.reports);
    too_many_reports(figures.reports.too_many);
    audio_dropped(figures.dropped_bytes);
    too_many_calls(figures.totals.dropped_for(Drop::TOO_MANY_CALLS));
    nats_lost(figures.engine);
}

void Notices::nats_lost(const EngineFigures& figures) {
    const std::uint64_t events =
        figures.lost_events - std::exchange(reported_lost_events_, figures.lost_events);
    const std::uint64_t chunks =
        figures.lost_chunks - std::exchange(reported_lost_chunks_, figures.lost_chunks);
    if (events == 0 && chunks == 0) {
        return;
    }
    if (events_ != nullptr) {
        events_->nats_lost(events, chunks);
    }
    lines_.say("lost for nats",
               counted(events, "event") + " and " + counted(chunks, "chunk") +
                   " of audio: too much waited, or it was too long for the server");
}

void Notices::too_many_calls(std::uint64_t total) {
    const std::uint64_t fresh = total - std::exchange(reported_too_many_, total);
    if (fresh != 0 && !quiet_lines_) {
        lines_.say("too many calls", "dropped " + counted(fresh, "packet") + " of further calls");
    }
}

}  // namespace qv::node
