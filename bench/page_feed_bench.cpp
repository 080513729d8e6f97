// Measures what the page costs a packet of a call that nobody looks at, without the network, the
// files and the page's threads: two tables of calls get the same packets in turn, one with what the
// page writes down of each call, one without. Prints the medians of all turns.
//
//   page_feed [CALLS [TURNS]]        1,000 calls and 3,000 turns
//
// A turn is one packet of each call, 20 ms of its audio. Each table finds the processor's caches
// full of the other's calls, as the packets of a receiver find them full of other work.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "node/calls/call_table.h"
#include "node/web/call_board.h"
#include "node/web/call_feed.h"
#include "quorvane/media_packet.h"

namespace {

using namespace qv::node;
namespace media = qv::media;

constexpr Micros FRAME{20'000};
constexpr std::uint16_t SAMPLES = 160;
constexpr int TURNS_PER_TICK = 5;  // Every 100 ms.
constexpr int FIRST_TURNS = 200;   // Not counted: the calls begin.

// As the other outputs of a receiver: they get the same reports.
class Counter : public CallListener {
  public:
    std::unique_ptr<CallListener> begin_call(Call& /*call*/) override {
        return std::make_unique<Counter>();
    }
    void data(const Call& /*call*/, const media::Packet& /*packet*/) override { ++count_; }
    void audio(const Call& /*call*/, Side /*side*/, const Audio& audio) override {
        count_ += audio.count;
    }
    void tick(const Call& /*call*/, Micros /*now*/) override { ++count_; }

  private:
    std::size_t count_ = 0;
};

std::array<unsigned char, 2 * SAMPLES> make_audio() {
    std::array<unsigned char, 2 * SAMPLES> audio{};
    for (std::size_t i = 0; i < audio.size(); i += 2) {
        audio[i] = static_cast<unsigned char>(37 * i);
        audio[i + 1] = static_cast<unsigned char>(i % 8);
    }
    return audio;
}

// Passes the packet of that turn of each call to the table. Returns the time per packet in ns.
double pass(CallTable& table, int calls, int turn) {
    static const auto AUDIO = make_audio();
    const Micros now = (1000 + turn) * FRAME;
    const auto begin = std::chrono::steady_clock::now();
    for (int call = 1; call <= calls; ++call) {
        std::array<unsigned char, media::UUID_SIZE> uuid{};
        std::memcpy(uuid.data(), &call, sizeof call);
        media::Packet packet;
        packet.type = media::PacketType::DATA;
        packet.call_key = static_cast<std::uint64_t>(call);
        packet.call_uuid = uuid.data();
        packet.send_time = now.count();
        packet.sequence_number = static_cast<std::uint32_t>(turn);
        packet.sample_offset = static_cast<std::uint32_t>(turn - 1) * SAMPLES;
        packet.sample_count = SAMPLES;
        packet.audio = AUDIO.data();
        table.receive(packet, {now, sockaddr_in{}});
    }
    if (turn % TURNS_PER_TICK == 0) {
        table.tick(now);
    }
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
    return time.count() / calls;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

double mean(const std::vector<double>& values) {
    double sum = 0;
    for (const double value : values) {
        sum += value;
    }
    return sum / static_cast<double>(values.size());
}

}  // namespace

int main(int argc, char** argv) {
    const int calls = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int turns = argc > 2 ? std::atoi(argv[2]) : 3000;
    if (calls < 1 || turns <= FIRST_TURNS) {
        std::fprintf(stderr, "page_feed: at least 1 call and %d turns\n", FIRST_TURNS + 1);
        return 2;
    }
    web::CallBoard board;
    web::CallFeed feed(board, false);
    Counter counter;
    CallTable with({}, {&counter, &feed});
    CallTable without({}, {&counter});
    std::vector<double> alone;
    std::vector<double> more;
    for (int turn = 1; turn <= turns; ++turn) {
        const double first = pass(without, calls, turn);
        const double second = pass(with, calls, turn);
        if (turn > FIRST_TURNS) {
            alone.push_back(first);
            more.push_back(second - first);
        }
    }
    std::printf("%d calls: without the page %.0f ns per packet, with it %.0f ns more (mean %.0f)\n",
                calls, median(alone), median(more), mean(more));
    return 0;
}
