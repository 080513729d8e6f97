// Measures the module in the host: setup and teardown of calls, API commands while calls
// stream.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "host/embedded_host.h"
#include "tools/private_config.h"

namespace qv::bench {

namespace {

// A host with the module loaded; its calls stream to a sink.
class TappedHost {
  public:
    TappedHost() {
        host_.log().set_recording(false);
        const host::LoadResult loaded = host_.load_module(QUORVANE_RELOCATED_MODULE);
        if (!loaded.loaded) {
            std::fprintf(stderr, "bench: %s\n", loaded.error.c_str());
            std::exit(1);
        }
    }

    std::unique_ptr<host::Call> start_call() {
        host::CallOptions options;
        const auto port = std::to_string(ntohs(sink_.address().sin_port));
        options.variables["quorvane_media_node"] = "127.0.0.1:" + port;
        options.variables["sip_call_id"] = "bench";
        options.variables["quorvane_rule_id"] = "1";
        options.variables["quorvane_audio_activity"] = "true";
        auto call = host_.start_call(options);
        call->execute("quorvane");
        return call;
    }

    host::EmbeddedHost& host() { return host_; }

  private:
    Sink sink_;
    host::EmbeddedHost host_;
};

// Tapped calls. On the first of them, frames flow on both legs.
class StreamingCalls {
  public:
    explicit StreamingCalls(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            calls_.push_back(tapped_.start_call());
        }
        host::MediaPlan plan;
        plan.read = host::play_silence(1U << 30, 160);
        plan.write = host::play_silence(1U << 30, 160);
        plan.pace = host::Pace::PACED;
        calls_.front()->start_media(std::move(plan));
    }

    // Uses each call in turn, so that none is in the processor's cache.
    host::ApiAnswer command(const std::string& words) { return command(next(), words); }

    // Uses the same call every time.
    host::ApiAnswer command_to_first(const std::string& words) {
        return command(calls_.front()->uuid(), words);
    }

    // Measures what the host does for a command of any module.
    void locate_session() {
        switch_core_session_rwunlock(
            switch_core_session_perform_locate(next().c_str(), __FILE__, __func__, __LINE__));
    }

  private:
    const std::string& next() {
        next_ = next_ + 1 == calls_.size() ? 0 : next_ + 1;
        return calls_[next_]->uuid();
    }

    host::ApiAnswer command(const std::string& uuid, const std::string& words) {
        return tapped_.host().api("quorvane " + uuid + " " + words);
    }

    TappedHost tapped_;
    std::vector<std::unique_ptr<host::Call>> calls_;
    std::size_t next_ = 0;
};

void call_set_up_and_tear_down(benchmark::State& state) {
    TappedHost tapped;
    for (auto _ : state) {
        tapped.start_call()->hangup();
    }
}

void api_features(benchmark::State& state) {
    StreamingCalls calls(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(calls.command("features"));
    }
}

void api_features_of_one_call(benchmark::State& state) {
    StreamingCalls calls(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(calls.command_to_first("features"));
    }
}

void locate_session(benchmark::State& state) {
    StreamingCalls calls(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        calls.locate_session();
    }
}

// Switches a feature on and off. Every second command of a call sends a control packet.
void api_feature_switch(benchmark::State& state) {
    StreamingCalls calls(static_cast<std::size_t>(state.range(0)));
    bool start = false;
    for (auto _ : state) {
        start = !start;
        benchmark::DoNotOptimize(
            calls.command(start ? "audio_activity start" : "audio_activity stop"));
    }
}

BENCHMARK(call_set_up_and_tear_down);
BENCHMARK(api_features)->Arg(1)->Arg(10)->Arg(100)->Arg(10000);
BENCHMARK(api_features_of_one_call)->Arg(10)->Arg(10000);
BENCHMARK(locate_session)->Arg(10)->Arg(10000);
BENCHMARK(api_feature_switch)->Arg(1)->Arg(100)->Arg(10000);

}  // namespace

}  // namespace qv::bench

int main(int argc, char** argv) {
    const auto folder = std::filesystem::temp_directory_path() / "quorvane-bench";
    if (const auto error = qv::tools::use_relocated_config(folder.string(), "log_level=ERROR\n")) {
        std::fprintf(stderr, "bench: %s\n", error->c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::current_path(folder.parent_path());
    std::filesystem::remove_all(folder);
    return 0;
}
