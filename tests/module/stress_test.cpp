// Hundreds of calls start and end while API threads send commands of all kinds to calls that are
// running, ending, over or unknown. The API creates some contexts first, some applications run
// twice, some starts fail. Nothing may be left behind, and what each call sends must be complete,
// in order and its own. Run it under the sanitizers.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quorvane_lib/mutex.h"
#include "tests/support/call_transfer.h"
#include "tests/support/call_uuids.h"
#include "tests/support/media_listener.h"
#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

using host::Direction;

constexpr unsigned CALL_THREADS = 4;
constexpr unsigned API_THREADS = 8;
constexpr unsigned CALLS_A_THREAD = 60;
constexpr unsigned CALLS = CALL_THREADS * CALLS_A_THREAD;

const std::vector<std::string> WORDS = {
    "features",        "audio_activity start",      "audio_activity stop both",
    "detection start", "audio_activity start orig", "detection stop term start orig",
    "detection",       "audio_activity halt",       "nonsense"};

// The UUID of a call as its packets carry it.
std::string packet_uuid_of(unsigned number) {
    std::string text = uuid_of(number);
    text.erase(std::remove(text.begin(), text.end(), '-'), text.end());
    return text;
}

// ---- audio ------------------------------------------------------------------------

// No two calls, and no two legs of one, have the same samples.
std::uint16_t sample(unsigned call, std::size_t leg, std::size_t position) {
    return static_cast<std::uint16_t>(call * 40503U + leg * 20011U + position * 31U);
}

Bytes audio(unsigned call, std::size_t leg, std::size_t samples) {
    Bytes bytes;
    for (std::size_t i = 0; i < samples; ++i) {
        const std::uint16_t value = sample(call, leg, i);
        bytes.push_back(static_cast<unsigned char>(value & 0xFF));
        bytes.push_back(static_cast<unsigned char>(value >> 8));
    }
    return bytes;
}

// The samples of one leg of a call, in frames of several sizes: one is empty, and one is too
// large for a packet.
class NumberedFrames : public host::FrameSource {
  public:
    NumberedFrames(unsigned call, std::size_t leg, unsigned frames)
        : call_(call), leg_(leg), frames_(frames) {}

    std::optional<std::uint32_t> next(std::uint8_t* buffer, std::uint32_t capacity) override {
        constexpr std::array<std::uint32_t, 5> SAMPLES = {160, 80, 0, 700, 160};
        if (played_ == frames_) {
            return std::nullopt;
        }
        const std::uint32_t samples = std::min(SAMPLES[played_++ % SAMPLES.size()], capacity / 2);
        for (std::uint32_t i = 0; i < samples; ++i) {
            const std::uint16_t value = sample(call_, leg_, position_++);
            std::memcpy(buffer + std::size_t{2} * i, &value, 2);
        }
        return samples * 2;
    }

  private:
    const unsigned call_;
    const std::size_t leg_;
    const unsigned frames_;
    unsigned played_ = 0;
    std::size_t position_ = 0;
};

// ---- the record of a call -----------------------------------------------------------

// What the host passed to the module's bug on one leg, as the packets should show it.
struct Delivered {
    std::uint32_t packets = 0;
    std::uint32_t samples = 0;
};

// Counts the frames that the bug saw. Each leg has a thread of its own.
class DeliveryCounter : public host::FrameObserver {
  public:
    void played(Direction direction, const host::FrameResult& result,
                std::chrono::nanoseconds /*lateness*/) override {
        constexpr std::uint32_t MOST_SAMPLES = 661;  // Of one packet.
        if (result.bugs == 0) {
            return;
        }
        Delivered& leg = legs[static_cast<std::size_t>(direction)];
        const std::uint32_t samples = result.bytes / 2;
        leg.packets += std::max((samples + MOST_SAMPLES - 1) / MOST_SAMPLES, 1U);
        leg.samples += samples;
    }

    Delivered legs[2];
};

// A command that the API confirmed: the active features before and after.
using Switch = std::pair<unsigned, unsigned>;

struct CallRecord {
    bool tapped = false;
    unsigned configured = 0;  // The active features that its variables request.
    Delivered legs[2];        // Once the call is over.

    std::atomic<bool> ending{false};
    mutable Mutex lock;
    // Active features after commands that sent no packet.
    std::vector<unsigned> requests QV_GUARDED_BY(lock);
    // Commands that sent a control packet.
    std::vector<Switch> switches QV_GUARDED_BY(lock);
    // How many of these were answered after the end began.
    unsigned late_switches QV_GUARDED_BY(lock) = 0;
};

// ---- the test -----------------------------------------------------------------------

class Stress : public ModuleTest {
  protected:
    Stress() : records(CALLS), listener(std::make_unique<MediaListener>(node)) {}

    // Runs calls of all kinds, one after the other.
    void run_calls(unsigned thread) {
        std::minstd_rand random(thread + 1);
        for (unsigned i = 0; i < CALLS_A_THREAD; ++i) {
            run_call(thread * CALLS_A_THREAD + i, random);
            EXPECT_TRUE(node.wait_for_room());
        }
        threads_left -= 1;
    }

    void run_call(unsigned number, std::minstd_rand& random) {
        CallRecord& record = records[number];
        host::CallOptions options;
        options.uuid = uuid_of(number);
        const auto kind = static_cast<unsigned>(random() % 6);
        record.tapped = kind != 0 && kind != 1 && kind != 3;
        options.variables = {{"quorvane_rule_id", "1"}, {"sip_call_id", "stress"}};
        if (random() % 2 == 0) {
            options.variables["quorvane_audio_activity"] = "true";
            record.configured = 0x0C;
        }
        if (kind == 0) {
            options.variables["quorvane_media_node"] = "no address";
        }
        if (kind == 1) {
            options.variables["sip_call_id"] = std::string(2000, 'x');  // Makes its start fail.
        }
        newest = number;
        const auto call = host.start_call(std::move(options));
        if (kind == 2) {
            command(number, "audio_activity start");
        }
        if (kind != 3) {  // Calls of kind 3 get API commands only.
            call->execute("quorvane");
        }
        if (kind == 4) {
            call->execute("quorvane");
        }
        play(*call, number, static_cast<unsigned>(random() % 40));
    }

    // Plays both legs at the same time, on the call's own threads, and then hangs up. Every other
    // call is hung up while it plays.
    void play(host::Call& call, unsigned number, unsigned frames) {
        const auto counter = std::make_shared<DeliveryCounter>();
        host::MediaPlan plan;
        plan.read = std::make_unique<NumberedFrames>(number, 0, frames);
        plan.write = std::make_unique<NumberedFrames>(number, 1, frames);
        plan.pace = host::Pace::FREE_RUNNING;
        plan.threads = host::MediaThreads::OWN;
        plan.observer = counter;
        call.start_media(std::move(plan));
        if (frames % 2 == 0) {
            call.wait_media(std::chrono::seconds(10));
        }
        CallRecord& record = records[number];
        record.ending = true;
        call.hangup();
        std::copy(std::begin(counter->legs), std::end(counter->legs), std::begin(record.legs));
    }

    // Sends most commands to calls that are running or have just ended.
    void run_commands(unsigned seed) {
        std::minstd_rand random(100 + seed);
        while (threads_left > 0) {
            const bool near = random() % 4 != 0;
            const unsigned around = newest + static_cast<unsigned>(random() % 8);
            const unsigned number = near ? around - 4 : static_cast<unsigned>(random() % 1000);
            command(number, WORDS[random() % WORDS.size()]);
        }
    }

    // Sends a command and records its result.
    void command(unsigned number, const std::string& words) {
        const std::string answer = api(uuid_of(number) + " " + words);
        const std::size_t result = answer.find(": old = ");
        Switch change;
        if (number >= CALLS || result == std::string::npos ||
            std::sscanf(answer.c_str() + result, ": old = %u, new = %u", &change.first,
                        &change.second) != 2) {
            return;
        }
        CallRecord& record = records[number];
        const LockGuard guard(record.lock);
        if (answer.find("control packet for feature update was sent") == std::string::npos) {
            record.requests.push_back(change.second);
        } else {
            record.switches.push_back(change);
            record.late_switches += record.ending ? 1U : 0U;
        }
    }

    // ---- afterwards, when no other thread runs

    void expect_nothing_left_behind() {
        const host::Report report = host.report();
        EXPECT_EQ(report.read_locks_held, 0U);
        EXPECT_EQ(report.bugs_attached, 0U);
        EXPECT_EQ(report.bugs_added, report.bugs_closed);
        EXPECT_GT(report.bugs_refused, 0U);
        EXPECT_EQ(report.sessions_alive, 0U);
        EXPECT_EQ(report.frames_altered, 0U);
        // The channel-destroy handler would have reported a context that was left over.
        host.events().wait_drained();
        host.log().clear();
        host.log().set_recording(true);
        for (unsigned number = 0; number < CALLS; ++number) {
            host.events().fire(
                {SWITCH_EVENT_CHANNEL_DESTROY, {{"Unique-ID", uuid_of(number)}}, ""});
        }
        host.events().wait_drained();
        EXPECT_FALSE(host.log().contains("on channel destroy"));
        // The module would stay mapped if it still counted a media bug.
        EXPECT_TRUE(unload().left_memory);
    }

    // Checks that calls that were not tapped sent nothing, and all others all of their audio.
    void expect_whole_transfers() {
        const MediaListener::Packets& packets = listener->finish();
        ASSERT_EQ(node.dropped(), 0U)
            << "the test's own socket was full: what came says nothing about the module";
        std::size_t tapped = 0;
        for (unsigned number = 0; number < CALLS; ++number) {
            SCOPED_TRACE(uuid_of(number));
            const auto found = packets.find(packet_uuid_of(number));
            ASSERT_EQ(found != packets.end(), records[number].tapped);
            if (found != packets.end()) {
                ++tapped;
                expect_whole(number, CallTransfer(found->second));
            }
        }
        EXPECT_EQ(packets.size(), tapped) << "packets of no call";
        RecordProperty("control_packets", std::to_string(controls_seen));
        RecordProperty("control_packets_behind_a_terminate", std::to_string(late_seen));
        EXPECT_GT(controls_seen, 0U) << "no command met a call that was tapped";
    }

    void expect_whole(unsigned number, const CallTransfer& transfer) {
        const CallRecord& record = records[number];
        EXPECT_EQ(transfer.flaws(), "");
        for (std::size_t leg = 0; leg < 2; ++leg) {
            SCOPED_TRACE(leg == 0 ? "read leg" : "write leg");
            EXPECT_EQ(transfer.legs[leg].packets, record.legs[leg].packets);
            EXPECT_EQ(transfer.legs[leg].samples, record.legs[leg].samples);
            EXPECT_TRUE(transfer.legs[leg].audio == audio(number, leg, record.legs[leg].samples))
                << "audio that is not this leg's";
        }
        expect_requested_start(record, transfer);
        expect_accepted_controls(record, transfer);
    }

    // Checks that each active feature of the start was requested, by a command or by the
    // variables. If there were commands, some may be missing: a command may also stop features.
    static void expect_requested_start(const CallRecord& record, const CallTransfer& transfer) {
        unsigned asked_for = record.configured;
        const LockGuard guard(record.lock);
        for (const unsigned request : record.requests) {
            asked_for |= request;
        }
        EXPECT_EQ(transfer.start.active & ~asked_for, 0U);
        if (record.requests.empty()) {
            EXPECT_EQ(transfer.start.active, record.configured);
        }
    }

    // Checks that there is one control packet for each switch and no other, and that each starts
    // from the features of the previous one. The API may carry out a command while the call ends;
    // only such a command's packet may follow the terminate packet.
    void expect_accepted_controls(const CallRecord& record, const CallTransfer& transfer) {
        std::vector<Switch> sent;
        unsigned active = transfer.start.active;
        for (const CallTransfer::Features& control : transfer.controls) {
            EXPECT_EQ(control.supported, transfer.start.supported);
            sent.emplace_back(active, control.active);
            active = control.active;
        }
        const LockGuard guard(record.lock);
        std::vector<Switch> accepted = record.switches;
        std::sort(accepted.begin(), accepted.end());
        std::sort(sent.begin(), sent.end());
        EXPECT_EQ(sent, accepted);
        EXPECT_LE(transfer.controls_after_terminate, record.late_switches);
        controls_seen += transfer.controls.size();
        late_seen += transfer.controls_after_terminate;
    }

    std::vector<CallRecord> records;  // Indexed by the number of the call.
    std::unique_ptr<MediaListener> listener;
    std::atomic<unsigned> threads_left{CALL_THREADS};
    std::atomic<unsigned> newest{0};
    std::size_t controls_seen = 0;
    std::size_t late_seen = 0;
};

TEST_F(Stress, CallsOfAllKindsUnderCommandsOfAllKindsArriveWholeAndLeaveNothingBehind) {
    load("log_level=WARNING\n");
    host.log().set_recording(false);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < CALL_THREADS; ++i) {
        threads.emplace_back([this, i] { run_calls(i); });
    }
    for (unsigned i = 0; i < API_THREADS; ++i) {
        threads.emplace_back([this, i] { run_commands(i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    host.events().wait_drained();

    expect_whole_transfers();
    expect_nothing_left_behind();
}

}  // namespace

}  // namespace qv::tests
