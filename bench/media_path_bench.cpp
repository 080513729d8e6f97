// Measures the media path, with its system call, against a loop of bare sendto calls that send the
// same bytes to the same socket. The two run alternately.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "bench/bench_support.h"

namespace qv::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int FRAMES_PER_TURN = 500;
constexpr std::uint32_t FRAME_SIZE = 320;
constexpr std::size_t PACKET_SIZE = 370;

double nanoseconds_since(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

// Sends the same packet repeatedly, as the simplest tap would.
class BareSender {
  public:
    explicit BareSender(const sockaddr_in& to)
        : descriptor_(::socket(AF_INET, SOCK_DGRAM, 0)), to_(to) {}
    ~BareSender() { ::close(descriptor_); }
    BareSender(const BareSender&) = delete;
    BareSender& operator=(const BareSender&) = delete;

    // Several threads may call it at the same time.
    double turn(int frames = FRAMES_PER_TURN) const {
        const auto start = Clock::now();
        for (int i = 0; i < frames; ++i) {
            ::sendto(descriptor_, packet_, sizeof(packet_), 0,
                     reinterpret_cast<const sockaddr*>(&to_), sizeof(to_));
        }
        return nanoseconds_since(start) / frames;
    }

  private:
    int descriptor_;
    sockaddr_in to_;
    char packet_[PACKET_SIZE] = {};
};

// One run of the module. The frames go to the calls in turn.
class ModuleSender {
  public:
    ModuleSender(std::size_t calls, const sockaddr_in& to, std::uint32_t frame_size = FRAME_SIZE)
        : contexts_(make_contexts(calls, to)), frame_(frame_size) {}

    double turn(std::uint8_t leg = media::READ_LEG, int frames = FRAMES_PER_TURN) {
        const auto start = Clock::now();
        for (int i = 0; i < frames; ++i) {
            sender_.transfer.media_data(nullptr, *contexts_[next_], leg, frame_.get());
            next_ = next_ + 1 == contexts_.size() ? 0 : next_ + 1;
        }
        return nanoseconds_since(start) / frames;
    }

    // Sends only for call number `call`. Several threads may call it at the same time, each with
    // its own call or leg.
    void turn_of(std::size_t call, std::uint8_t leg) {
        for (int i = 0; i < FRAMES_PER_TURN; ++i) {
            sender_.transfer.media_data(nullptr, *contexts_[call], leg, frame_.get());
        }
    }

  private:
    Sender sender_;
    std::vector<std::unique_ptr<freeswitch::AppContext>> contexts_;
    Frame frame_;
    std::size_t next_ = 0;
};

// Runs `a` and `b` alternately. Reports the cost of a frame in each, and the median of the ratios
// a/b of neighbouring runs, because load on the machine slows both.
template <typename A, typename B>
void compare(benchmark::State& state, A a, B b) {
    std::vector<double> costs_a;
    std::vector<double> costs_b;
    std::vector<double> ratios;
    for (auto _ : state) {
        const double cost_a = a();
        const double cost_b = b();
        costs_a.push_back(cost_a);
        costs_b.push_back(cost_b);
        ratios.push_back(cost_a / cost_b);
        state.SetIterationTime((cost_a + cost_b) * FRAMES_PER_TURN * 1e-9);
    }
    state.counters["ns_frame"] = median(costs_a);
    state.counters["ns_other"] = median(costs_b);
    state.counters["ratio"] = median(ratios);
}

void media_data_over_bare_sendto(benchmark::State& state) {
    const Sink sink;
    BareSender bare(sink.address());
    ModuleSender module(1, sink.address());
    compare(
        state, [&] { return module.turn(); }, [&] { return bare.turn(); });
}

// Both sides send bare, which shows the error of the method.
void bare_sendto_over_bare_sendto(benchmark::State& state) {
    const Sink sink;
    BareSender first(sink.address());
    BareSender second(sink.address());
    compare(
        state, [&] { return first.turn(); }, [&] { return second.turn(); });
}

// Empties the processor's caches, as the host's own work between two frames would.
class Eviction {
  public:
    void operator()() {
        for (std::size_t i = 0; i < room_.size(); i += LINE) {
            ++room_[i];
        }
    }

  private:
    static constexpr std::size_t LINE = 64;
    std::vector<unsigned char> room_ = std::vector<unsigned char>(std::size_t{4} << 20U);
};

// Single frames with cold caches, each beside a bare sendto with cold caches.
void cold_media_data_over_bare_sendto(benchmark::State& state) {
    const Sink sink;
    const BareSender bare(sink.address());
    ModuleSender module(1, sink.address());
    Eviction evict;
    std::vector<double> costs;
    std::vector<double> others;
    for (auto _ : state) {
        evict();
        costs.push_back(module.turn(media::READ_LEG, 1));
        evict();
        others.push_back(bare.turn(1));
        state.SetIterationTime((costs.back() + others.back()) * 1e-9);
    }
    state.counters["ns_frame"] = median(costs);
    state.counters["ns_other"] = median(others);
    state.counters["ratio"] = median(costs) / median(others);
}

void many_contexts_over_one(benchmark::State& state) {
    const Sink sink;
    ModuleSender many(static_cast<std::size_t>(state.range(0)), sink.address());
    ModuleSender one(1, sink.address());
    compare(
        state, [&] { return many.turn(); }, [&] { return one.turn(); });
}

void frame_size(benchmark::State& state) {
    const Sink sink;
    ModuleSender module(1, sink.address(), static_cast<std::uint32_t>(state.range(0)));
    std::vector<double> costs;
    for (auto _ : state) {
        costs.push_back(module.turn());
        state.SetIterationTime(costs.back() * FRAMES_PER_TURN * 1e-9);
    }
    state.counters["ns_frame"] = median(costs);
}

// Measures how much more two threads send than one in the same time.
template <typename Turn>
void scale(benchmark::State& state, Turn turn) {
    constexpr int TURNS = 10;
    const auto run = [&turn](int thread) {
        for (int i = 0; i < TURNS; ++i) {
            turn(thread);
        }
    };
    std::vector<double> costs;
    std::vector<double> ratios;
    for (auto _ : state) {
        const auto alone = Clock::now();
        run(0);
        const double one = nanoseconds_since(alone);
        const auto together = Clock::now();
        std::thread other(run, 1);
        run(0);
        other.join();
        const double two = nanoseconds_since(together);
        costs.push_back(one / (TURNS * FRAMES_PER_TURN));
        ratios.push_back(2 * one / two);
        state.SetIterationTime((one + two) * 1e-9);
    }
    state.counters["ns_frame"] = median(costs);
    state.counters["ratio"] = median(ratios);
}

void two_threads_two_calls(benchmark::State& state) {
    const Sink sink;
    ModuleSender module(2, sink.address());
    scale(state,
          [&](int thread) { module.turn_of(static_cast<std::size_t>(thread), media::READ_LEG); });
}

void two_threads_two_legs(benchmark::State& state) {
    const Sink sink;
    ModuleSender module(1, sink.address());
    scale(state, [&](int thread) { module.turn_of(0, static_cast<std::uint8_t>(thread)); });
}

// Two threads send bare through one socket, like the module. What they lose is due to the system.
void two_threads_bare_sendto(benchmark::State& state) {
    const Sink sink;
    const BareSender sender(sink.address());
    scale(state, [&](int) { sender.turn(); });
}

void two_threads_bare_sendto_two_sockets(benchmark::State& state) {
    const Sink sink;
    const BareSender first(sink.address());
    const BareSender second(sink.address());
    scale(state, [&](int thread) { (thread == 0 ? first : second).turn(); });
}

BENCHMARK(media_data_over_bare_sendto)->UseManualTime()->Iterations(100);
BENCHMARK(bare_sendto_over_bare_sendto)->UseManualTime()->Iterations(100);
BENCHMARK(cold_media_data_over_bare_sendto)->UseManualTime()->Iterations(1000);
BENCHMARK(many_contexts_over_one)->Arg(100)->Arg(10000)->UseManualTime()->Iterations(100);
BENCHMARK(frame_size)->Arg(320)->Arg(640)->Arg(1920)->Arg(3000)->UseManualTime()->Iterations(50);
BENCHMARK(two_threads_two_calls)->UseManualTime()->Iterations(100);
BENCHMARK(two_threads_two_legs)->UseManualTime()->Iterations(100);
BENCHMARK(two_threads_bare_sendto)->UseManualTime()->Iterations(100);
BENCHMARK(two_threads_bare_sendto_two_sockets)->UseManualTime()->Iterations(100);

}  // namespace

}  // namespace qv::bench

int main(int argc, char** argv) {
    return qv::bench::run_benchmarks(argc, argv);
}
