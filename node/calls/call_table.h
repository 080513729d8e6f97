// All calls that the receiver knows: finds the call of a packet, makes and ends calls,
// keeps the limits.
//
// Calls are told apart by their UUID; the call key must stay the same throughout a call.
// After its terminate packet a call stays a moment for what was overtaken; after that
// its UUID is remembered for a while, so that a straggler does not look like a new call.
// A call that timed out, perhaps on hold, or became too old may go on as another call,
// without start packet: how far its sides had come is remembered for as long as a call
// may last.
// Time is told by the caller. Belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "node/calls/call.h"
#include "node/calls/call_listener.h"
#include "node/calls/expiring_map.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"

namespace qv::node {

struct CallLimits {
    std::size_t max_calls = 10'000;       // At once; packets of further calls are dropped.
    Micros linger{300'000};               // Between terminate packet and end.
    Micros idle{120'000'000};             // Without any packet.
    Micros max_age{12LL * 3600'000'000};  // A WAV file at 48 kHz is nearly full by then.
    Micros remember_ended{60'000'000};
    int sample_rate = 0;         // 0: told from the packets.
    double max_silence_s = 120;  // For one gap.
    ReorderBuffer::Limits side;  // Its gap_samples follows from max_silence_s.
};

// Why a well-formed packet was not used.
enum class Drop : std::uint8_t {
    TOO_MANY_CALLS,
    AFTER_END,       // The call has ended; also a second terminate packet, or one of an
                     // unknown call.
    OTHER_CALL_KEY,  // The UUID is known with another key.
    OTHER_LEG,       // The other leg already carries this call side.
    REPEATED_START,  // The same start packet again.
    OLD_CONTROL,     // A control packet again, or one that a later one has overtaken.
    DUPLICATE,       // Data packets, as the reorder buffer counts them:
    LATE,
    IMPLAUSIBLE,
};
constexpr std::size_t DROP_COUNT = 9;
const char* describe(Drop reason);

// Since the receiver began.
struct Totals {
    std::array<std::uint64_t, 4> packets{};  // Start, terminate, data, control: type - 0x81.
    std::array<std::uint64_t, DROP_COUNT> dropped{};
    std::uint64_t calls_begun = 0;
    std::uint64_t calls_ended = 0;
    std::uint64_t calls_not_terminated = 0;  // Ended without their terminate packet.
    std::uint64_t calls_without_start = 0;
    std::uint64_t audio_bytes = 0;
    std::uint64_t gaps = 0;
    std::uint64_t lost_packets = 0;  // Given up; those that came later are dropped as LATE.
    std::uint64_t reordered = 0;     // Of ended calls.
    std::uint64_t silence_samples = 0;
    std::uint64_t file_errors = 0;

    std::uint64_t all_packets() const { return packets[0] + packets[1] + packets[2] + packets[3]; }
};

using RecordingFactory = std::function<std::unique_ptr<Recording>(const Uuid&, RateSource)>;

class CallTable {
  public:
    // `listeners` are not owned and must outlive the table.
    CallTable(const CallLimits& limits, RecordingFactory recordings,
              std::vector<CallListener*> listeners);
    ~CallTable();

    // Takes in a decoded packet that came at `now`.
    void receive(const media::Packet& packet, Micros now);

    // Ends what is due; called some times a second.
    void tick(Micros now);

    // Ends all calls.
    void shut_down();

    // Tells the listeners that a file which one of them writes for that call has failed, and
    // counts it. For a listener, while it is told of the call.
    void report_failed_file(const Call& call, const FileReport& file);

    const Totals& totals() const { return totals_; }
    std::size_t size() const { return calls_.size(); }
    template <typename Visit>
    void for_each(Visit visit) {
        for (auto& entry : calls_) {
            visit(*entry.second);
        }
    }

  private:
    using Calls = std::unordered_map<Uuid, std::unique_ptr<Call>, UuidHash>;

    Call* find_or_add(const media::Packet& packet, Micros now);
    bool is_after_end(const Uuid& uuid, const media::Packet& packet) const;
    Call* add(const Uuid& uuid, const media::Packet& packet, Micros now);
    void take_up(Call& call, const media::Packet& packet);
    Call* replace(Call& call, const media::Packet& packet, Micros now);
    void use(Call& call, const media::Packet& packet, Micros now);
    void on_start(Call& call, const media::Packet& packet);
    void on_control(Call& call, const media::Packet& packet);
    void on_terminate(Call& call, const media::Packet& packet, Micros now);
    void on_data(Call& call, const media::Packet& packet, Micros now);
    void begin_side(Call& call, Side side, const media::Packet& packet);
    void update_rate(CallSide& side, const media::Packet& packet);
    int decide_rate(Call& call, Side side, bool last) const;
    void report_file_errors(Call& call);
    void report_failed_file(Call& call, const FileReport& file);
    void end(Call& call, EndReason reason, Micros now);
    void end_due_calls(Micros now);
    void remember(const Call& call, EndReason reason, Micros now);
    void drop(Drop reason) { ++totals_.dropped[static_cast<std::size_t>(reason)]; }
    std::uint64_t gap_limit(int sample_rate) const;

    CallLimits limits_;
    RecordingFactory recordings_;
    std::vector<CallListener*> listeners_;
    Calls calls_;
    Call* last_ = nullptr;  // Of the latest packet: packets of a call often come together.
    ExpiringMap<std::int64_t> ended_;      // Terminated; when, in send time.
    ExpiringMap<SidePlaces> left_behind_;  // Not terminated.
    Totals totals_;
};

}  // namespace qv::node
