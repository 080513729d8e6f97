// A second description of the module, in plain code: what it logs, sends and answers for each
// thing that the host does.
//
// The model knows the host's calls as a module can see them. Each function stands for one thing
// that the host does; it predicts what the module writes then. It is compared with the module
// by fuzz_module.cpp. Nothing in here calls the module.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/support/options_model.h"
#include "fuzz/support/system_double.h"

namespace qv::fuzz {

using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

// One direction of a tapped call.
struct LegModel {
    std::uint32_t bytes = 0;  // Sent.
    std::uint32_t odd_frames = 0;
    std::uint32_t sequence = 0;
    std::uint32_t offset = 0;  // In samples.
    unsigned word = 0;
};

// A feature set: which legs have a feature, and on which of them it runs.
struct FeatureSet {
    unsigned supported = 0;
    unsigned active = 0;
    void merge(const FeatureSet& other) {
        supported |= other.supported;
        active = (active & ~other.supported) | (other.active & other.supported);
    }
};

// What the module keeps of a call that it taps, or that an API command has named.
struct TapModel {
    Bytes uuid = Bytes(16);
    std::uint64_t key = 0;
    std::uint64_t created_us = 0;
    std::uint64_t configured_us = 0;
    std::uint64_t configured_clock_us = 0;
    std::uint64_t rule_id = 0;
    Bytes report_node = Bytes(6);
    unsigned flags = 0;
    FeatureSet features;
    FeatureSet requested;
    std::string reference;
    OptionsModel::Node node{0, {0, 0, 0, 0}, 0};
    LegModel legs[2];
    bool start_sent = false;
    std::string name;     // The text under whose key it is registered.
    std::string session;  // The UUID of the session that it was made for.
};

using Tap = std::shared_ptr<TapModel>;

enum class Media { ANSWERED, EARLY, ON_DEMAND, REFUSED };

// A session of the host.
struct CallModel {
    std::string uuid;
    std::string external_id;  // A second name of the session; may be empty.
    bool outbound = false;
    Media media = Media::ANSWERED;
    std::optional<std::uint64_t> created_us;  // Nothing: the channel has no timetable.
    std::optional<std::string> codec;
    std::map<std::string, std::string> variables;  // Names in lower case.

    bool alive = true;
    bool hung_up = false;   // The host has hung up the channel; the session still exists.
    std::vector<Tap> bugs;  // What each media bug of the module belongs to.
};

// What the host does wrong at the moment.
struct HostFaults {
    bool no_timetable = false;
    bool media_not_ready = false;
    bool bug_refused = false;         // Before the bug's first event.
    bool bug_lost = false;            // After a first event that succeeded.
    bool refused_bug_closed = false;  // A bug that refuses its first event gets the last one, too.
    bool session_not_found = false;
    bool uuid_garbage = false;
    bool no_frame = false;
    bool no_memory = false;
    bool bind_destroy_fails = false;
    bool bind_all_fails = false;
};

// An event that the host has delivered.
struct EventModel {
    int id = 0;
    std::string serialized;
    std::optional<std::string> name;   // Event-Name
    std::optional<std::string> uuid;   // Unique-ID
    std::optional<std::string> state;  // Channel-State
    std::optional<std::string> call_state;
};

class ModuleModel {
  public:
    explicit ModuleModel(std::string build) : build_(std::move(build)) {}

    // Before each step: the time, and what the sends of this step met.
    void begin(std::int64_t steady_us, std::int64_t wall_us, std::vector<SendAttempt> attempts);
    // What has been predicted since the last call. The events' lines come from another thread.
    Texts take_output() { return std::exchange(output_, {}); }
    Texts take_event_lines() { return std::exchange(event_lines_, {}); }
    // The destroy events that the module has to hear of, since the last call; none for an event
    // without a UUID.
    std::vector<std::optional<std::string>> take_destroyed() {
        return std::exchange(destroyed_, {});
    }

    HostFaults faults;
    std::deque<SendOutcome> sends;  // As SystemDouble::outcomes.
    std::int64_t room_at_us = 0;
    std::vector<CallModel> calls;
    int socket_error = 0;
    int bind_error = 0;
    int last_socket = -1;

    bool loaded() const { return loaded_; }
    bool dumps_events() const { return dump_hook_; }
    bool hears_destroy() const { return destroy_hook_; }
    bool has_socket() const { return socket_open_; }
    // The names under which something is still registered.
    Texts registered_names() const;
    // Whether every send of the step was one of the model's.
    bool sends_are_explained() const { return next_attempt_ == attempts_.size(); }

    void load(const ConfigurationFile& file);
    void unload();
    // `memory`: there is memory for a new record.
    void run_application(CallModel& call, bool memory = true);
    bool needs_memory_for(const CallModel& call) const;
    void frame(CallModel& call, int leg, const std::uint8_t* data, std::size_t size);
    void remove_bugs(CallModel& call);
    void hang_up(CallModel& call);
    // An event that somebody sends; it reaches the module with destroy_event().
    void fire_destroy(const std::optional<std::string>& uuid) { destroyed_.push_back(uuid); }
    void destroy_event(const std::optional<std::string>& uuid);
    void dumped_event(const EventModel& event);
    // The answer.
    std::string api(const std::string& line);
    // A command that would add something finds no memory for it, and answers nothing.
    void report_missing_memory();

  private:
    // ---- output: lines and packets
    void line(Level level, const CallModel* call, const std::string& text);
    void event_line(Level level, const std::string& text);
    bool send(const OptionsModel::Node& to, const Bytes& packet);
    std::int64_t send_time();

    // ---- load; each says whether the next step follows
    bool read(const ConfigurationFile& file);
    bool open_socket();
    bool bind_hooks();

    // ---- packets
    Bytes header(unsigned type, unsigned word, const TapModel& tap);
    bool send_start(const CallModel& call, const TapModel& tap);
    bool send_data(const CallModel& call, TapModel& tap, int leg, const std::uint8_t* data,
                   std::size_t size);
    void send_control(const CallModel& call, const TapModel& tap);
    bool send_terminate(const CallModel& call, const TapModel& tap);

    // ---- a call's life
    Tap claim(const CallModel& call, std::uint64_t key, bool memory);
    void attach(CallModel& call, const Tap& tap);
    bool start_bug(const CallModel& call, TapModel& tap);
    void close_bug(const CallModel& call, const Tap& tap);
    void give_up_descriptor_after_last_bug();
    bool ready(const CallModel& call) const;
    bool make_ready(CallModel& call);
    const CallModel* find_session(const std::string& name) const;
    void drop_taps_of_ended_calls();

    // ---- options from channel variables
    bool configure(const CallModel& call, TapModel& tap);
    void configure_features(const CallModel& call, TapModel& tap, const std::string& name,
                            unsigned orig, unsigned term, const std::string& default_text);
    void configure_report_node(const CallModel& call, TapModel& tap);
    void configure_reference(const CallModel& call, TapModel& tap);
    void complain(const CallModel& call, const std::string& name, const std::string& consequence);

    // ---- the API
    std::string answer_for_session(const Texts& words);
    std::string feature_codes(const std::string& name, std::uint64_t key);
    std::string switch_feature(const Texts& words, std::uint64_t key);
    std::string update(const CallModel& session, TapModel& tap, bool created,
                       const std::string& name, const FeatureSet& wanted, unsigned feature);

    const std::string build_;
    bool loaded_ = false;
    bool destroy_hook_ = false;
    bool dump_hook_ = false;
    OptionsModel options_;
    Level level_ = Level::INFO;

    bool socket_open_ = false;
    int socket_number_ = -1;
    int reserved_number_ = -1;  // Kept for calls that are tapped while the module is unloaded.

    std::map<std::uint64_t, Tap> registry_;
    // The clock may show any time between the two: a start packet may have waited.
    std::int64_t earliest_us_ = 0;
    std::int64_t latest_us_ = 0;
    std::int64_t wall_us_ = 0;
    std::vector<SendAttempt> attempts_;
    std::size_t next_attempt_ = 0;

    Texts output_;
    Texts event_lines_;
    std::vector<std::optional<std::string>> destroyed_;
};

// One log line as fuzz_module.cpp notes those of the module.
std::string line_text(int host_level, const std::string& session, const std::string& text);

struct IdentityModel {
    bool valid = false;
    Bytes uuid = Bytes(16);
    std::uint64_t key = 0;
};
IdentityModel identity_of(const std::string& uuid_text);

}  // namespace qv::fuzz
