// Measures the module without its system calls: sendto does nothing in this program.
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include "bench/bench_support.h"
#include "module/host_log.h"
#include "module/mod_quorvane.h"
#include "module/module_options.h"
#include "quorvane_lib/hash_crc64.h"
#include "quorvane_lib/utils_bytes.h"

namespace qv::bench {

namespace {

constexpr const char* UUID_TEXT = "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";

sockaddr_in nowhere() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    return address;
}

// Measures reading the clock, which the module does once per packet.
void steady_clock(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::chrono::steady_clock::now());
    }
}

void media_data(benchmark::State& state) {
    Sender sender;
    const auto contexts = make_contexts(1, nowhere());
    const Frame frame(static_cast<std::uint32_t>(state.range(0)));
    for (auto _ : state) {
        sender.transfer.media_data(nullptr, *contexts[0], media::READ_LEG, frame.get());
    }
}

// The frames go to the calls in turn, so that no context is in the cache.
void media_data_round_robin(benchmark::State& state) {
    Sender sender;
    const auto contexts = make_contexts(static_cast<std::size_t>(state.range(0)), nowhere());
    const Frame frame(320);
    std::size_t next = 0;
    for (auto _ : state) {
        sender.transfer.media_data(nullptr, *contexts[next], media::READ_LEG, frame.get());
        next = next + 1 == contexts.size() ? 0 : next + 1;
    }
}

// The read leg and the write leg of one call run on two threads, which must not write to shared
// data.
void media_data_two_legs(benchmark::State& state) {
    static Sender sender;
    static const auto contexts = make_contexts(1, nowhere());
    const Frame frame(320);
    const auto leg = static_cast<std::uint8_t>(state.thread_index());
    for (auto _ : state) {
        sender.transfer.media_data(nullptr, *contexts[0], leg, frame.get());
    }
}

// An iteration has 64 lines without a loop, so that only the lines are measured. Each line reads
// the threshold again.
constexpr int LINES = 64;

template <log::Level LEVEL>
void dropped_line(benchmark::State& state) {
    for (auto _ : state) {
#pragma GCC unroll 64
        for (int number = 0; number < LINES; ++number) {
            freeswitch::log_session_line<LEVEL>(nullptr, QV_PLACE, "a line of ", number, " pieces");
            benchmark::ClobberMemory();
        }
    }
}

void crc64_of_uuid(benchmark::State& state) {
    unsigned char uuid[media::UUID_SIZE] = {1, 2, 3};
    for (auto _ : state) {
        benchmark::DoNotOptimize(uuid);
        benchmark::DoNotOptimize(hash::CRC64::compute(uuid, sizeof(uuid)));
    }
}

void decode_uuid(benchmark::State& state) {
    unsigned char uuid[media::UUID_SIZE];
    for (auto _ : state) {
        utils::bytes::decode_uuid(UUID_TEXT, uuid, tag::direct_update_t());
        benchmark::DoNotOptimize(uuid);
    }
}

void parse_feature_text(benchmark::State& state) {
    for (auto _ : state) {
        media::features16_t features{};
        freeswitch::AppContext::parse_audio_activity("terminator::active", features);
        benchmark::DoNotOptimize(features);
    }
}

void parse_configuration(benchmark::State& state) {
    const std::string line = "media_node = 127.0.0.1:4000";
    freeswitch::Configuration configuration;
    for (auto _ : state) {
        configuration.parse_line(line, 0);
    }
}

BENCHMARK(steady_clock);
BENCHMARK(media_data)->Arg(320)->Arg(640)->Arg(1920)->Arg(3000);
BENCHMARK(media_data_round_robin)->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(media_data_two_legs)->Threads(2)->UseRealTime();
BENCHMARK_TEMPLATE(dropped_line, log::DEBUG);
BENCHMARK_TEMPLATE(dropped_line, log::TRACE);
BENCHMARK(crc64_of_uuid);
BENCHMARK(decode_uuid);
BENCHMARK(parse_feature_text);
BENCHMARK(parse_configuration);

}  // namespace

}  // namespace qv::bench

int main(int argc, char** argv) {
    return qv::bench::run_benchmarks(argc, argv);
}
