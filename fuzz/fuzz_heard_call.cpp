// Feeds random packets into calls whose sides are analysed: the bytes select packets of all types
// with random features, times, places and audio, raw datagrams, and time that passes.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "fuzz/support/input.h"
#include "fuzz/support/require.h"
#include "node/analysis/analyser.h"
#include "node/calls/call.h"
#include "node/calls/call_table.h"
#include "quorvane/media_packet.h"

namespace {

using namespace qv::node;
using qv::fuzz::Input;
using qv::fuzz::require;

// Limits the samples of one input, so that it ends soon.
constexpr std::size_t MOST_SAMPLES = 1u << 16;
constexpr std::size_t MOST_IN_PACKET = 661;

// Requires that what is reported of each side makes sense, whatever came.
class Checks : public CallListener {
  public:
    void audio(const Call& call, Side side, const Audio& audio) override {
        require(audio.position == call.side(side).position() || audio.count == 0 ||
                    audio.position < call.side(side).position() + audio.count,
                "audio has a place in its side");
    }
    void activity(const Call& call, Side side, const Activity& activity) override {
        bool& active = active_[{call.uuid(), side}];
        require(active != activity.active, "onsets and ends take turns");
        require(activity.position <= activity.noticed, "nothing is active before it is heard");
        require(activity.noticed <= call.side(side).position(), "nothing is heard before it came");
        active = activity.active;
    }
    void sample_found(const Call& /*call*/, Side /*side*/, const FoundSample& sample) override {
        require(sample.name == "tone", "the name is one of ours");
        require(sample.score >= 0 && sample.score <= 1, "scores are from 0 to 1");
    }
    void ended(const Call& call, EndReason /*reason*/) override {
        for (const Side side : BOTH_SIDES) {
            require(!active_[{call.uuid(), side}], "activity has ended with its call");
            active_.erase({call.uuid(), side});
        }
    }

  private:
    std::map<std::pair<Uuid, Side>, bool> active_;
};

std::shared_ptr<const analysis::SampleIndex> references() {
    analysis::SampleIndexBuilder builder;
    std::vector<float> sound(8000);
    for (std::size_t i = 0; i < sound.size(); ++i) {
        sound[i] = static_cast<float>(0.3 * std::sin(0.7 * static_cast<double>(i)));
    }
    builder.add("tone", sound.data(), sound.size(), 8000);
    return builder.build();
}

void put(std::vector<unsigned char>& datagram, std::uint64_t value, int bytes) {
    for (; bytes > 0; --bytes, value >>= 8) {
        datagram.push_back(static_cast<unsigned char>(value & 0xFF));
    }
}

// One input: the packets of up to four calls.
class Run {
  public:
    Run(Input& in, const CallLimits& limits, const std::vector<CallListener*>& outputs)
        : in_(in), table_(limits, outputs) {}

    void go() {
        while (!in_.empty() && samples_ < MOST_SAMPLES) {
            step();
        }
        table_.shut_down();
    }

  private:
    void step() {
        switch (in_.take(1) % 8) {
            case 0:
                return send(start());
            case 1:
                return send(control());
            case 2:
                return send(head(0x82, 0));
            case 3:
                now_ += Micros(static_cast<std::int64_t>(in_.take(2)) * 1000);
                return table_.tick(now_);
            case 4:
                return send(raw());
            default:
                return send(data());
        }
    }

    std::vector<unsigned char> head(unsigned type, std::uint64_t flags) {
        std::vector<unsigned char> datagram;
        const std::uint64_t call = in_.take(1) % 4;
        put(datagram, 0x00FF00FF, 4);
        put(datagram, type, 1);
        put(datagram, 1, 1);
        put(datagram, flags, 2);
        put(datagram, 7, 8);
        put(datagram, call, 8);
        put(datagram, 1, 8);
        // Mostly close to the time before, sometimes anywhere.
        const std::uint64_t jump = in_.take(1);
        time_ = jump == 255 ? in_.take(8) : time_ + jump * 1000;
        put(datagram, time_, 8);
        return datagram;
    }

    std::vector<unsigned char> start() {
        std::vector<unsigned char> datagram = head(0x81, in_.take(2));
        put(datagram, 0, 8);
        put(datagram, 0, 8);
        put(datagram, in_.take(1), 8);
        put(datagram, 0, 8);
        put(datagram, 0, 6);
        put(datagram, 0xFFFF, 2);  // All features, active.
        put(datagram, 2, 2);
        put(datagram, 'r', 2);
        return datagram;
    }

    std::vector<unsigned char> control() {
        std::vector<unsigned char> datagram = head(0x84, 0);
        put(datagram, in_.take(2), 2);
        return datagram;
    }

    std::vector<unsigned char> data() {
        const std::uint64_t side = in_.take(1) & 1;
        std::vector<unsigned char> datagram = head(0x83, side | side << 15);
        const std::uint64_t jump = in_.take(1);
        number_[side] += jump < 250 ? 1 : jump == 255 ? in_.take(4) : jump - 248;
        const std::size_t count = in_.take(2) % (MOST_IN_PACKET + 1);
        offset_[side] += jump < 250 ? 0 : in_.take(jump == 255 ? 4 : 2);
        put(datagram, number_[side], 4);
        put(datagram, offset_[side], 4);
        put(datagram, count, 2);
        offset_[side] += count;
        samples_ += count + 1;
        add_audio(datagram, count);
        return datagram;
    }

    void add_audio(std::vector<unsigned char>& datagram, std::size_t count) {
        const std::uint64_t kind = in_.take(1);
        for (std::size_t i = 0; i < count; ++i) {
            random_ = random_ * 1664525U + 1013904223U;
            const std::array<std::uint64_t, 5> kinds = {
                0, 0x7FFF, random_ >> 16, i % 2 == 0 ? 0x7FFFU : 0x8000U,
                static_cast<std::uint16_t>(
                    std::lround(9000 * std::sin(0.7 * static_cast<double>(heard_ + i))))};
            put(datagram, kinds[kind % kinds.size()], 2);
        }
        heard_ += count;
    }

    std::vector<unsigned char> raw() {
        std::vector<unsigned char> datagram;
        for (std::uint64_t left = in_.take(1); left > 0 && !in_.empty(); --left) {
            put(datagram, in_.take(1), 1);
        }
        return datagram;
    }

    void send(const std::vector<unsigned char>& datagram) {
        qv::media::Packet packet;
        if (qv::media::decode_packet(datagram.data(), datagram.size(), packet) ==
            qv::media::DecodeResult::OK) {
            table_.receive(packet, {now_, {}});
        }
    }

    Input& in_;
    CallTable table_;
    Micros now_{1'000'000};
    std::uint64_t time_ = 1'000'000;
    std::array<std::uint64_t, 2> number_{};
    std::array<std::uint64_t, 2> offset_{};
    std::size_t samples_ = 0;
    std::size_t heard_ = 0;
    std::uint32_t random_ = 1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto index = references();
    Input in(data, size);
    CallLimits limits;
    limits.sample_rate = in.take(1) % 4 == 0 ? 0 : 8000;
    limits.max_silence_s = 1;
    limits.services = {true, true, Services::Recording::REQUESTED};
    analysis::Worker::Settings settings;
    settings.samples = index;
    Analyser analyser(settings, Analyser::Pace::PATIENT);
    Checks checks;
    Run(in, limits, {&analyser, &checks}).go();
    return 0;
}
