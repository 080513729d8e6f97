#include "node/web/listening.h"

#include <algorithm>
#include <utility>

namespace qv::node::web {

namespace {

constexpr std::uint8_t FRAME_VERSION = 1;
constexpr std::uint16_t AFTER_LOSS = 1;

// Little endian, as the pages read it.
void put(std::string& bytes, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(value >> (8 * i) & 0xFF);
    }
}

void put_head(std::string& bytes, Side side, const AudioTap::Head& head) {
    put(bytes, FRAME_VERSION, 1);
    put(bytes, index_of(side), 1);
    put(bytes, head.after_loss ? AFTER_LOSS : 0, 2);
    put(bytes, static_cast<std::uint64_t>(head.sample_rate), 4);
    put(bytes, head.place, 8);
    put(bytes, 0, 8);
}

constexpr std::size_t AGE_AT = 16;

void set_age(std::string& frame, Micros age) {
    for (std::size_t i = 0; i < 8; ++i) {
        frame[AGE_AT + i] = static_cast<char>(age.count() >> (8 * i) & 0xFF);
    }
}

}  // namespace

Listening::Listening(std::shared_ptr<CallRecord> record, const std::vector<Side>& sides)
    : record_(std::move(record)) {
    for (const Side side : sides) {
        taps_[index_of(side)] = std::make_shared<AudioTap>();
        record_->add_tap(side, taps_[index_of(side)]);
    }
}

Listening::~Listening() {
    for (const auto& tap : taps_) {
        if (tap != nullptr) {
            record_->remove_tap(tap);
        }
    }
}

std::vector<std::string> Listening::take_frames(Micros now) {
    std::vector<std::string> frames;
    for (const Side side : BOTH_SIDES) {
        if (const auto& tap = taps_[index_of(side)]) {
            add_frames(side, *tap, now, frames);
        }
    }
    return frames;
}

// Parts that follow each other share a frame.
void Listening::add_frames(Side side, AudioTap& tap, Micros now, std::vector<std::string>& frames) {
    std::string frame;
    std::uint64_t end = 0;
    int rate = 0;
    std::size_t count = 0;
    Micros newest{0};
    const auto finish = [&] {
        if (!frame.empty()) {
            delay_ = now - newest;
            set_age(frame, delay_);
            frames.push_back(std::move(frame));
            frame.clear();
            count = 0;
        }
    };
    while (const AudioTap::Part* part = tap.front()) {
        if (part->place != end || part->sample_rate != rate || part->after_loss ||
            count + part->count > MOST_SAMPLES) {
            finish();
        }
        if (frame.empty()) {
            put_head(frame, side, *part);
            rate = part->sample_rate;
        }
        for (std::size_t i = 0; i < part->count; ++i) {
            put(frame, static_cast<std::uint16_t>(part->samples[i]), 2);
        }
        count += part->count;
        end = part->place + part->count;
        newest = part->came;
        tap.pop();
    }
    finish();
}

}  // namespace qv::node::web
