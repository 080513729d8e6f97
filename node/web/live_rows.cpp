#include "node/web/live_rows.h"

#include <algorithm>
#include <cmath>

#include "node/calls/level_meter.h"
#include "node/web/call_json.h"

namespace qv::node::web {

namespace {

// Between texts that differ in figures only: of a call that somebody watches, and of the others.
constexpr Micros TEXT_INTERVAL{500'000};
constexpr Micros UNWATCHED_TEXT_INTERVAL{2'000'000};

}  // namespace

std::shared_ptr<const LiveFrame> LiveRows::frame(Micros now) {
    const LockGuard lock(mutex_);
    if (latest_ != nullptr && now - made_ < FRAME) {
        return latest_;
    }
    const CallBoard::Records records = board_.records();
    auto frame = std::make_shared<LiveFrame>();
    frame->rows.reserve(records.size());
    auto known = known_.begin();
    for (const auto& record : records) {
        const std::uint64_t id = record->id();
        while (known != known_.end() && known->first < id) {
            known = known_.erase(known);
        }
        if (known == known_.end() || known->first != id) {
            known = known_.emplace_hint(known, id, Known{});
            known->second.row.id = id;
        }
        update(known->second, *record, now);
        if (known->second.row.text != nullptr) {
            frame->rows.push_back(known->second.row);
        }
        ++known;
    }
    known_.erase(known, known_.end());
    update_finished(*frame);
    latest_ = frame;
    made_ = now;
    return frame;
}

void LiveRows::update(Known& known, const CallRecord& record, Micros now) {
    if (record.version() == known.record_version && known.text_version == known.record_version) {
        return;
    }
    const bool due =
        now - known.text_made >= (record.watched() ? TEXT_INTERVAL : UNWATCHED_TEXT_INTERVAL);
    if (record.version() == known.record_version && !due) {
        return;
    }
    known.record_version = record.version();
    const CallRecord::Reading reading = record.read();
    if (reading.facts_version == 0) {
        return;  // The call has only just begun.
    }
    for (const Side side : BOTH_SIDES) {
        const SideFigures& figures = reading.figures.sides[index_of(side)];
        const SideFacts& facts = reading.facts->sides[index_of(side)];
        const std::uint64_t count = figures.measured - known.measured[index_of(side)];
        if (count != 0) {
            const double squares = figures.squares - known.squares[index_of(side)];
            known.row.level_db[index_of(side)] =
                decibels(std::sqrt(std::max(0.0, squares) / static_cast<double>(count)));
        } else if (facts.begun) {
            known.row.level_db[index_of(side)] = SILENCE_DB;
        }
        known.squares[index_of(side)] = figures.squares;
        known.measured[index_of(side)] = figures.measured;
        known.row.active[index_of(side)] = facts.active;
    }
    const bool facts_changed =
        known.row.text == nullptr || reading.facts_version != known.facts_version;
    if (facts_changed) {
        known.facts_text = facts_text(record, *reading.facts);
        known.facts_version = reading.facts_version;
    }
    if (facts_changed || due) {
        known.row.text =
            std::make_shared<const std::string>(call_text(known.facts_text, record, reading, now));
        ++known.row.version;
        known.text_version = known.record_version;
        known.text_made = now;
    }
}

void LiveRows::update_finished(LiveFrame& frame) {
    if (latest_ != nullptr && latest_->finished_end == board_.finished_end()) {
        frame.finished = latest_->finished;
        frame.finished_end = latest_->finished_end;
        return;
    }
    const CallBoard::Finished finished = board_.finished();
    frame.finished_end = finished.end;
    const std::uint64_t former = latest_ == nullptr ? 0 : latest_->finished_end;
    const auto fresh = static_cast<std::size_t>(
        std::min<std::uint64_t>(finished.end - former, finished.calls.size()));
    for (std::size_t i = 0; i < finished.calls.size(); ++i) {
        if (i < fresh) {
            frame.finished.push_back(std::make_shared<const std::string>(finished_text(
                **(finished.calls.rbegin() + static_cast<std::ptrdiff_t>(i)), folder_)));
        } else {
            frame.finished.push_back(latest_->finished[i - fresh]);
        }
    }
}

}  // namespace qv::node::web
