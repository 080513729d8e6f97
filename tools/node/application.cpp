#include "tools/node/application.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <numeric>
#include <utility>

#include "quorvane_lib/utils_str.h"
#include "tools/node/recording.h"
#include "tools/node/text.h"

namespace qv::tools::node {

namespace {

constexpr auto TICK = std::chrono::milliseconds(50);
constexpr std::size_t SPARE_DESCRIPTORS = 64;
// Malformed datagrams are shown one by one up to here, then only counted.
constexpr std::uint64_t MALFORMED_LINES_PER_REASON = 3;

// Raises the limit of open files as far as allowed; returns how many WAV files fit.
std::size_t possible_open_files() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return SPARE_DESCRIPTORS;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto possible = static_cast<std::size_t>(limit.rlim_cur);
    return std::clamp<std::size_t>(possible, SPARE_DESCRIPTORS * 2, 100'000) - SPARE_DESCRIPTORS;
}

}  // namespace

Application::Application(const Options& options, std::ostream& out, std::ostream& errors)
    : options_(options),
      out_(out),
      errors_(errors),
      signals_(loop_),
      timer_(loop_),
      lines_(out),
      receiver_(loop_, [this](const unsigned char* data, std::size_t size, Micros now) {
          on_datagram(data, size, now);
      }) {}

int Application::run() {
    if (!open()) {
        return EXIT_NO_START;
    }
    signals_.async_wait([this](std::error_code error, int number) {
        if (!error) {
            lines_.say(number == SIGINT ? "interrupted" : "asked to end", "");
            loop_.stop();
        }
    });
    last_packet_ = steady_now();
    receiver_.start();
    schedule_tick();
    loop_.run();
    finish();
    return exit_code_;
}

bool Application::open() {
    const std::size_t possible = possible_open_files();
    const std::size_t wanted = options_.max_open_files;
    folder_ = std::make_unique<WavFolder>(
        options_.folder, wanted != 0 ? std::min(wanted, possible) : possible, options_.overwrite);
    const std::string folder_error = folder_->prepare();
    if (!folder_error.empty()) {
        errors_ << "quorvane-node: cannot write to folder " << options_.folder << ": "
                << folder_error << std::endl;
        return false;
    }
    const std::string socket_error =
        receiver_.open(options_.listen, options_.receive_buffer_mib * 1024 * 1024);
    if (!socket_error.empty()) {
        errors_ << "quorvane-node: cannot listen on " << options_.listen_text << ": "
                << socket_error << std::endl;
        return false;
    }
    std::error_code error;
    signals_.add(SIGINT, error);
    signals_.add(SIGTERM, error);

    const std::size_t block = options_.block_kib * 1024 / sizeof(std::int16_t);
    const RecordingFactory recordings = [this, block](const Uuid& uuid, RateSource rate) {
        return std::make_unique<SideRecording>(*folder_, uuid, std::move(rate), block);
    };
    std::vector<CallListener*> listeners;
    if (!options_.quiet) {
        listeners.push_back(&lines_);
    }
    calls_ = std::make_unique<CallTable>(options_.limits, recordings, std::move(listeners));

    const auto* address = reinterpret_cast<const unsigned char*>(&options_.listen.sin_addr);
    lines_.say("listening on " + address_text(address, receiver_.port()),
               "writing to " + options_.folder + ", receive buffer " +
                   grouped(static_cast<std::uint64_t>(receiver_.granted_buffer()) / 1024) + " KiB");
    return true;
}

void Application::on_datagram(const unsigned char* data, std::size_t size, Micros now) {
    last_packet_ = now;
    media::Packet packet;
    const media::DecodeResult result = media::decode_packet(data, size, packet);
    if (result != media::DecodeResult::OK) {
        count_malformed(result, data, size);
        return;
    }
    calls_->receive(packet, now);
}

void Application::count_malformed(media::DecodeResult reason, const unsigned char* data,
                                  std::size_t size) {
    const std::uint64_t count = ++malformed_[static_cast<std::size_t>(reason)];
    if (count > MALFORMED_LINES_PER_REASON) {
        return;
    }
    std::string beginning;
    for (std::size_t i = 0; i < std::min<std::size_t>(size, 8); ++i) {
        static constexpr char DIGITS[] = "0123456789abcdef";
        beginning += {' ', DIGITS[data[i] >> 4], DIGITS[data[i] & 15]};
    }
    lines_.say("malformed packet",
               std::string(describe(reason)) + ": " + counted(size, "byte") +
                   (beginning.empty() ? "" : ", beginning with" + beginning) +
                   (count == MALFORMED_LINES_PER_REASON ? "; further ones are only counted" : ""));
}

void Application::schedule_tick() {
    timer_.expires_after(TICK);
    timer_.async_wait([this](std::error_code error) {
        if (!error) {
            tick();
        }
    });
}

void Application::tick() {
    const Micros now = steady_now();
    calls_->tick(now);
    report_losses();
    const bool idle_too_long =
        options_.idle_exit_s > 0 &&
        std::chrono::duration<double>(now - last_packet_).count() >= options_.idle_exit_s;
    if (enough()) {
        loop_.stop();
    } else if (idle_too_long) {
        lines_.say("idle for " + duration_text(options_.idle_exit_s), "");
        exit_code_ = options_.calls != 0 ? EXIT_TROUBLE : exit_code_;
        loop_.stop();
    } else {
        schedule_tick();
    }
}

bool Application::enough() const {
    return options_.calls != 0 && calls_->totals().calls_ended >= options_.calls;
}

void Application::report_losses() {
    if (receiver_.overflowed() != reported_overflow_) {
        const std::uint64_t fresh = receiver_.overflowed() - reported_overflow_;
        reported_overflow_ = receiver_.overflowed();
        lines_.say("receive buffer full", "the system dropped " + counted(fresh, "packet"));
    }
}

void Application::finish() {
    receiver_.drain_and_stop();
    calls_->shut_down();
    report_losses();
    if (calls_->totals().file_errors != 0) {
        exit_code_ = EXIT_TROUBLE;
    }
    print_summary();
}

void Application::print_summary() {
    const Totals& totals = calls_->totals();
    std::string calls = counted(totals.calls_ended, "call");
    if (totals.calls_not_terminated != 0) {
        calls += " (" + grouped(totals.calls_not_terminated) + " without terminate packet)";
    }
    if (totals.calls_without_start != 0) {
        calls += " (" + grouped(totals.calls_without_start) + " without start packet)";
    }
    lines_.say("summary", calls + ", " + counted(receiver_.received(), "packet") + ", " +
                              grouped(totals.audio_bytes) + " bytes of audio, " +
                              counted(totals.gaps, "gap"));
    for (std::size_t i = 0; i < malformed_.size(); ++i) {
        if (malformed_[i] != 0) {
            lines_.say("  malformed: " + grouped(malformed_[i]),
                       describe(static_cast<media::DecodeResult>(i)));
        }
    }
    for (std::size_t i = 0; i < DROP_COUNT; ++i) {
        if (totals.dropped[i] != 0) {
            lines_.say("  not used: " + grouped(totals.dropped[i]), describe(static_cast<Drop>(i)));
        }
    }
    if (receiver_.overflowed() != 0) {
        lines_.say("  lost in the socket: " + grouped(receiver_.overflowed()), "buffer full");
    }
}

}  // namespace qv::tools::node
