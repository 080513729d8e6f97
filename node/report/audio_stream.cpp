#include "node/report/audio_stream.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "node/calls/call.h"
#include "node/report/event_json.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

// Audio of a side that may wait until the sample rate is known: seven seconds at 8 kHz. What a part
// of it takes by itself counts as this many samples, because packets may have few or none.
constexpr std::uint64_t MOST_HELD_SAMPLES = 64ULL * 1024;
constexpr std::uint64_t PART_SIZE = 32;
// Of a chunk: a quarter of a megabyte, of which servers take four times as much unless they are
// set up otherwise.
constexpr std::size_t MOST_CHUNK_SAMPLES = 128ULL * 1024;

// Forged send times may overflow.
std::int64_t later(std::int64_t send_time, double seconds) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(send_time) +
                                     static_cast<std::uint64_t>(seconds * 1e6));
}

class StreamedCall : public CallListener {
  public:
    StreamedCall(Call& call, Publisher& publisher, int chunk_ms, std::uint64_t number)
        : call_(call), publisher_(publisher), chunk_ms_(chunk_ms), number_(number) {}

    void audio(const Call& /*call*/, Side side, const Audio& audio) override {
        const Track& into = track(side);
        if (into.held.empty() && into.rate != 0) {
            append(side, audio.samples, audio.count, audio.send_time);
            return;
        }
        Part part;
        part.samples.assign(audio.samples, audio.samples + audio.count);
        part.send_time = audio.send_time;
        take(side, std::move(part));
    }

    void gap(const Call& /*call*/, Side side, const Gap& gap) override {
        Part part;
        part.gap = gap.filled_samples;
        take(side, std::move(part));
    }

    void pause(const Call& /*call*/, Side side, const Pause& pause) override {
        Part part;
        part.pause = pause.samples;
        take(side, std::move(part));
    }

    // Audio may have waited for its rate until now.
    void rate_changed(const Call& /*call*/, Side side, const RateChange& change) override {
        Track& changed = track(side);
        release(side, change.old_rate);
        send_block(side);
        if (changed.gap != 0 || changed.pause != 0) {
            publisher_.push(next_chunk(side));  // They belong to the audio before the change.
        }
        changed.rate = change.new_rate;
    }

    void tick(const Call& call, Micros now) override {
        for (const Side side : BOTH_SIDES) {
            Track& each = track(side);
            const int rate = call.side(side).sample_rate();
            if (!each.held.empty() && rate != 0) {
                release(side, rate);
            }
            if (std::exchange(each.seen, each.taken) != each.taken) {
                each.seen_at = now;
            } else if (!each.block.empty() && now - each.seen_at >= Micros{chunk_ms_ * 1000}) {
                send_block(side);
            }
        }
    }

    void closing(const Call& call, EndReason reason) override {
        for (const Side side : BOTH_SIDES) {
            if (call.side(side).begun()) {
                end(side, reason);
            }
        }
    }

  private:
    // Audio, a gap, or a pause.
    struct Part {
        std::vector<std::int16_t> samples{};
        std::int64_t send_time = 0;
        std::uint64_t gap = 0;
        std::uint64_t pause = 0;
    };

    struct Track {
        std::vector<Part> held;          // Until the rate is known.
        std::uint64_t held_samples = 0;  // With PART_SIZE for each part.
        int rate = 0;                    // 0 until it is known.
        std::vector<std::int16_t> block;
        std::int64_t send_time = 0;  // Of the first sample of the block.
        std::uint64_t position = 0;  // The same.
        std::uint64_t gap = 0;       // Before the block.
        std::uint64_t pause = 0;     // The same.
        std::uint64_t sequence = 0;
        std::uint64_t taken = 0;  // Samples of audio.
        std::uint64_t seen = 0;   // The same at the latest tick,
        Micros seen_at{0};        // and when it changed last.
    };

    Track& track(Side side) { return tracks_[index_of(side)]; }

    void take(Side side, Part part) {
        Track& into = track(side);
        const int rate = call_.side(side).sample_rate();
        if (rate != 0) {
            release(side, rate);
            pass(side, part);
            return;
        }
        into.held_samples += part.samples.size() + PART_SIZE;
        into.held.push_back(std::move(part));
        if (into.held_samples >= MOST_HELD_SAMPLES) {
            release(side, call_.decide_rate(side));
        }
    }

    // What has waited for the rate goes on at this rate.
    void release(Side side, int rate) {
        Track& from = track(side);
        if (from.rate == 0) {
            from.rate = rate;
        }
        from.held_samples = 0;
        for (const Part& part : std::exchange(from.held, {})) {
            pass(side, part);
        }
    }

    void pass(Side side, const Part& part) {
        Track& into = track(side);
        if (part.gap != 0 || part.pause != 0) {
            send_block(side);
            into.gap += part.gap;
            into.position += part.gap;
            into.pause += part.pause;
            return;
        }
        append(side, part.samples.data(), part.samples.size(), part.send_time);
    }

    void append(Side side, const std::int16_t* samples, std::size_t count, std::int64_t send_time) {
        Track& into = track(side);
        into.taken += count;
        const std::size_t chunk = chunk_samples(into.rate);
        std::size_t used = 0;
        while (used < count) {
            if (into.block.empty()) {
                into.send_time = later(send_time, seconds_of(used, into.rate));
                into.block.reserve(chunk);
            }
            const std::size_t some = std::min(chunk - into.block.size(), count - used);
            into.block.insert(into.block.end(), samples + used, samples + used + some);
            used += some;
            if (into.block.size() == chunk) {
                send_block(side);
            }
        }
    }

    std::size_t chunk_samples(int rate) const {
        const auto wanted = static_cast<std::size_t>(rate) * static_cast<std::size_t>(chunk_ms_);
        return std::clamp<std::size_t>(wanted / 1000, 1, MOST_CHUNK_SAMPLES);
    }

    void send_block(Side side) {
        Track& from = track(side);
        if (from.block.empty()) {
            return;
        }
        EngineChunk chunk = next_chunk(side);
        from.position += from.block.size();
        chunk.samples = std::exchange(from.block, {});
        publisher_.push(std::move(chunk));
    }

    // With what comes before it.
    EngineChunk next_chunk(Side side) {
        Track& from = track(side);
        EngineChunk chunk;
        chunk.call = uuid_text(call_.uuid());
        chunk.call_key = key_text(call_.call_key());
        chunk.side = name_of(side);
        chunk.stream = stream(side);
        chunk.sequence = ++from.sequence;
        chunk.position = from.position;
        chunk.send_time = from.send_time;
        chunk.sample_rate = from.rate;
        chunk.gap = std::exchange(from.gap, 0);
        chunk.pause = std::exchange(from.pause, 0);
        return chunk;
    }

    void end(Side side, EndReason reason) {
        Track& ending = track(side);
        release(side, call_.decide_rate(side));
        send_block(side);
        EngineChunk chunk = next_chunk(side);
        chunk.end = name_of(reason);
        const std::string text =
            event_text("audio", of_call(call_, {{"call_side", name_of(side)},
                                                {"stream", chunk.stream},
                                                {"chunks", chunk.sequence},
                                                {"samples", ending.position}}));
        publisher_.push(EngineEvent{chunk.call, "audio", text});
        publisher_.push(std::move(chunk));
    }

    std::string stream(Side side) const {
        return publisher_.run() + '-' + std::to_string(number_) + '-' + name_of(side);
    }

    Call& call_;
    Publisher& publisher_;
    const int chunk_ms_;
    const std::uint64_t number_;
    std::array<Track, SIDE_COUNT> tracks_;
};

}  // namespace

std::unique_ptr<CallListener> AudioStream::begin_call(Call& call) {
    return std::make_unique<StreamedCall>(call, publisher_, chunk_ms_, ++calls_);
}

}  // namespace qv::node
