// Measures what the page costs a packet of a call that nobody looks at, without the network, the
// files and the page's threads: two tables of calls get the same packets in turn, one with what the
// page writes down of each call, one without. Prints processor times: the median of
// the means of 100 turns each.
//
//   page_feed [CALLS [TURNS [SIDES]]]        1,000 calls, 3,000 turns, 2 sides
//
// A turn is one packet of each side, 20 ms of its audio. Each table finds the processor's caches
// full of the other's calls, as the packets of a receiver find them full of other work.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <numeric>
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
constexpr int FIRST_TURNS = 200;  // Not counted: the calls begin.
constexpr int GROUP = 100;  // Turns of two seconds, so that each has what is done once a second.

struct Load {
    int calls;
    int sides;  // Of each call.
};

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

// The processor time of this thread in ns.
double cpu_time() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

// Passes the packets of that turn of each call to the table. Returns the time per packet in ns.
double pass(CallTable& table, const Load& load, int turn) {
    static const auto AUDIO = make_audio();
    const Micros now = (1000 + turn) * FRAME;
    const double begin = cpu_time();
    for (int at = 0; at < load.calls * load.sides; ++at) {
        const int call = at / load.sides + 1;
        std::array<unsigned char, media::UUID_SIZE> uuid{};
        std::memcpy(uuid.data(), &call, sizeof call);
        media::Packet packet;
        packet.type = media::PacketType::DATA;
        packet.leg_word = at % load.sides == 0 ? 0 : media::LEG_WRITE | media::LEG_TERMINATOR_SIDE;
        packet.call_key = static_cast<std::uint64_t>(call);
        packet.call_uuid = uuid.data();
        packet.send_time = now.count();
        packet.sequence_number = static_cast<std::uint32_t>(turn);
        packet.sample_offset = static_cast<std::uint32_t>(turn - 1) * SAMPLES;
        packet.sample_count = SAMPLES;
        packet.audio = AUDIO.data();
        table.receive(packet, {now, sockaddr_in{}});
    }
    if (2 * turn % 5 < 2) {  // Every 50 ms.
        table.tick(now);
    }
    return (cpu_time() - begin) / (load.calls * load.sides);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

// Of each group of that many, the mean.
std::vector<double> means(const std::vector<double>& values, std::size_t count) {
    std::vector<double> means;
    for (std::size_t i = 0; i + count <= values.size(); i += count) {
        const auto begin = values.begin() + static_cast<std::ptrdiff_t>(i);
        means.push_back(std::accumulate(begin, begin + static_cast<std::ptrdiff_t>(count), 0.0) /
                        static_cast<double>(count));
    }
    return means;
}

}  // namespace

int main(int argc, char** argv) {
    const Load load{argc > 1 ? std::atoi(argv[1]) : 1000, argc > 3 ? std::atoi(argv[3]) : 2};
    const int turns = argc > 2 ? std::atoi(argv[2]) : 3000;
    if (load.calls < 1 || load.sides < 1 || load.sides > 2 || turns < FIRST_TURNS + GROUP) {
        std::fprintf(stderr, "page_feed: at least 1 call, %d turns, 1 or 2 sides\n",
                     FIRST_TURNS + GROUP);
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
        const double first = pass(without, load, turn);
        const double second = pass(with, load, turn);
        if (turn > FIRST_TURNS) {
            alone.push_back(first);
            more.push_back(second - first);
        }
    }
    std::printf("%d calls: without the page %.0f ns per packet, with it %.0f ns more\n", load.calls,
                median(means(alone, GROUP)), median(means(more, GROUP)));
    return 0;
}
