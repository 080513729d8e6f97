#include "module/api_command.h"

#include <array>
#include <functional>
#include <new>
#include <stdexcept>
#include <string_view>

#include "build_identifier.h"
#include "module/host_log.h"
#include "quorvane_lib/utils_bytes.h"
#include "quorvane_lib/utils_str.h"

namespace qv::freeswitch {

namespace {

using media::Features;
using media::features16_t;
using Words = std::vector<std::string>;

// Writes a printf-style answer. A write that fails is ignored: there is nobody to report it to.
template <typename... Values>
void answer(switch_stream_handle_t* stream, const char* format, Values... values) {
    stream->write_function(stream, format, values...);
}

unsigned as_unsigned(std::size_t count) {
    return static_cast<unsigned>(count);
}

// ---- global commands --------------------------------------------------------------

// A command that runs one action; an empty action does nothing.
class ActionApiCommand : public ApiCommand {
  public:
    using Action = std::function<void(ApiCommand&)>;

    ActionApiCommand(switch_stream_handle_t* stream, Action action)
        : ApiCommand(stream), action_(std::move(action)) {}

    void execute() override {
        if (action_) {
            action_(*this);
        }
    }

  private:
    Action action_;
};

// A table could replace the five classes below; their names are kept for their users.
class VersionApiCommand : public ActionApiCommand {
  public:
    VersionApiCommand(switch_stream_handle_t* stream, Configuration& /*config*/)
        : ActionApiCommand(stream, [](ApiCommand& command) {
              answer(command.stream(), QUORVANE_BUILD_IDENTIFIER "\n");
          }) {}
};

class DumpEventsApiCommand : public ActionApiCommand {
  public:
    DumpEventsApiCommand(switch_stream_handle_t* stream, Configuration& config)
        : ActionApiCommand(stream, [&config](ApiCommand& command) {
              answer(command.stream(), "%s\n", dump_mode_name(config.dump_mode));
          }) {}
};

class MediaNodeApiCommand : public ActionApiCommand {
  public:
    MediaNodeApiCommand(switch_stream_handle_t* stream, Configuration& config)
        : ActionApiCommand(stream, [&config](ApiCommand& command) {
              answer(command.stream(), "%s:%u\n", config.media_node_host.c_str(),
                     static_cast<unsigned>(config.media_node_port));
          }) {}
};

class DefaultAudioActivityApiCommand : public ActionApiCommand {
  public:
    DefaultAudioActivityApiCommand(switch_stream_handle_t* stream, Configuration& config)
        : ActionApiCommand(stream, [&config](ApiCommand& command) {
              answer(command.stream(), "%s\n", config.default_audio_activity.c_str());
          }) {}
};

class DefaultDetectionApiCommand : public ActionApiCommand {
  public:
    DefaultDetectionApiCommand(switch_stream_handle_t* stream, Configuration& config)
        : ActionApiCommand(stream, [&config](ApiCommand& command) {
              answer(command.stream(), "%s\n", config.default_detection.c_str());
          }) {}
};

// ---- session commands -------------------------------------------------------------

// A command for one call. While it holds the session's read lock, the host does not destroy the
// session. The destructor releases the lock on every path.
class SessionApiCommand : public ApiCommand {
  public:
    SessionApiCommand(switch_stream_handle_t* stream, ModuleContext& module,
                      const std::string& uuid_text)
        : ApiCommand(stream), module_(module), uuid_text_(uuid_text) {
        if (!utils::bytes::decode_uuid(uuid_text_.c_str(), uuid_, tag::direct_update_t())) {
            answer(stream, "-ERR, failed to parse uuid: %s\n", uuid_text_.c_str());
            uuid_invalid_ = true;
        }
        id_ = call_key(uuid_);
    }

    ~SessionApiCommand() override { unlock(); }

  protected:
    // Locates the session and takes its read lock. Logs an error and returns null if there is no
    // such session.
    switch_core_session* lock() {
        if (uuid_invalid_) {
            return fail(__LINE__, "uuid is not specified");
        }
        if (session_ != nullptr) {
            return fail(__LINE__, "session already locked");
        }
        session_ = switch_core_session_perform_locate(
            uuid_text_.c_str(), log::source_base_name(__FILE__), __func__, __LINE__);
        return session_ != nullptr ? session_
                                   : fail(__LINE__, "session is not found: " + uuid_text_);
    }

    void unlock() {
        if (session_ != nullptr) {
            switch_core_session_rwunlock(session_);
            session_ = nullptr;
        }
    }

    switch_core_session* session() const { return session_; }
    ModuleContext& module() const { return module_; }
    std::uint64_t id() const { return id_; }
    const std::string& uuid_text() const { return uuid_text_; }
    bool uuid_invalid() const { return uuid_invalid_; }

  private:
    static switch_core_session* fail(int line, const std::string& text) {
        log::ErrorMessage message;
        message.stream << text;
        QV_LOG_WRITE_AT(line, message);
        return nullptr;
    }

    switch_core_session* session_ = nullptr;
    ModuleContext& module_;
    std::uint64_t id_ = 0;
    unsigned char uuid_[media::UUID_SIZE] = {};
    std::string uuid_text_;
    bool uuid_invalid_ = false;
};

// One character per feature and side: `alphabet` is indexed by supported + 2 * active.
struct FeatureCode {
    std::uint8_t bit;
    const char* alphabet;
};

constexpr const char* RECORD_ALPHABET = "-R-R";  // Does not show the active bit.
constexpr const char* DETECTION_ALPHABET = "-s?S";
constexpr const char* ACTIVITY_ALPHABET = "-a?A";

constexpr std::array<FeatureCode, 6> FEATURE_CODES = {{
    {0x80, RECORD_ALPHABET},
    {0x40, RECORD_ALPHABET},
    {0x20, DETECTION_ALPHABET},
    {0x10, DETECTION_ALPHABET},
    {0x08, ACTIVITY_ALPHABET},
    {0x04, ACTIVITY_ALPHABET},
}};

std::string feature_codes(features16_t features) {
    std::string text;
    for (const FeatureCode& code : FEATURE_CODES) {
        const int supported = (features.supported & code.bit) != 0 ? 1 : 0;
        const int active = (features.active & code.bit) != 0 ? 2 : 0;
        text += code.alphabet[supported + active];
    }
    return text;
}

class FeatureStatusApiCommand : public SessionApiCommand {
  public:
    using SessionApiCommand::SessionApiCommand;

    void execute() override {
        if (uuid_invalid()) {
            answer(stream(), "-ERR, command invalid state");
            return;
        }
        if (lock() == nullptr) {
            return;
        }
        features16_t features{};
        const bool found = read_features(features);
        unlock();
        if (found) {
            answer(stream(), "%s\n", feature_codes(features).c_str());
        }
    }

  private:
    // Answers with an error and returns false if the call has no context.
    bool read_features(features16_t& features) {
        const RegistryGuard registry_guard(module().contexts_lock);
        AppContext* context = find_context(module().contexts, id());
        if (context == nullptr) {
            answer(stream(), "-ERR, features: session context not found, uuid/id: %s/%lu",
                   uuid_text().c_str(), id());
            return false;
        }
        const ContextGuard context_guard(context->context_lock);
        features = context->requested_features;
        return true;
    }
};

class FeatureApiCommand : public SessionApiCommand {
  public:
    // `words` is the whole command line.
    FeatureApiCommand(switch_stream_handle_t* stream, ModuleContext& module, const Words& words)
        : SessionApiCommand(stream, module, words.front()), words_(words) {}

  protected:
    const Words& words() const { return words_; }

  private:
    const Words& words_;
};

template <Features FEATURE>
constexpr const char* FEATURE_NAME = nullptr;
template <>
constexpr const char* FEATURE_NAME<Features::AudioActivity> = "audio_activity";
template <>
constexpr const char* FEATURE_NAME<Features::SampleDetection> = "detection";

// The bits of the side that `word` names; 0 for any other word. Compares only the first four
// letters. See docs/design.md, Odd on purpose: API.
std::uint8_t parse_leg(std::string_view word, Features feature) {
    const std::string_view beginning = word.substr(0, 4);
    if (beginning == "orig") {
        return media::originator_bit(feature);
    }
    if (beginning == "term") {
        return media::terminator_bit(feature);
    }
    return beginning == "both" ? media::feature_mask(feature) : std::uint8_t{0};
}

// Starts and stops one feature per side.
template <Features FEATURE>
class FeatureApiCommandImpl : public FeatureApiCommand {
  public:
    using FeatureApiCommand::FeatureApiCommand;

    void execute() override {
        features16_t wanted{};
        if (!parse(wanted) || lock() == nullptr) {
            return;
        }
        update(wanted);
        unlock();
    }

  private:
    static constexpr std::size_t FIRST_ACTION = 2;
    static constexpr const char* NAME = FEATURE_NAME<FEATURE>;

    // Reads pairs of an action and a side. The last side is optional.
    bool parse(features16_t& wanted) const {
        if (words().size() <= FIRST_ACTION) {
            answer(stream(), "-ERR, %s: not enough args (%u), should be at least (3)", NAME,
                   as_unsigned(words().size()));
            return false;
        }
        for (std::size_t i = FIRST_ACTION; i < words().size(); i += 2) {
            const bool start = words()[i] == "start";
            if (!start && words()[i] != "stop") {
                return refuse(i);
            }
            const bool leg_given = i + 1 < words().size();
            const std::uint8_t bits = parse_leg(leg_given ? words()[i + 1] : "both", FEATURE);
            if (bits == 0) {
                return refuse(i + 1);
            }
            // A "stop" does not revoke a "start" of the same command. See docs/design.md, Odd on
            // purpose: API.
            wanted.supported |= bits;
            wanted.active |= start ? bits : std::uint8_t{0};
        }
        return true;
    }

    bool refuse(std::size_t position) const {
        answer(stream(), "-ERR, %s: unknown arg \"%s\" at pos (%u)", NAME,
               words()[position].c_str(), as_unsigned(position));
        return false;
    }

    void update(features16_t wanted) {
        const RegistryGuard registry_guard(module().contexts_lock);
        AppContext* context = find_context(module().contexts, id());
        const bool created = context == nullptr;
        if (created) {
            context = create_context();
        }
        if (context != nullptr) {
            const ContextGuard context_guard(context->context_lock);
            update(*context, created, wanted);
        }
    }

    // The answers below do not end their lines. See docs/design.md, Odd on purpose: texts.
    AppContext* create_context() QV_REQUIRES(module().contexts_lock, registry_rank) {
        const char* session_uuid = switch_core_session_get_uuid(session());
        note_other_name(session_uuid);
        AppContext* context = add_context(module().contexts, id());
        if (context == nullptr) {
            log::ErrorMessage message;
            message.stream << "app context allocation failure (is there enough memory?)";
            QV_LOG_WRITE(message);
            return nullptr;
        }
        context->set_session_uuid(session_uuid);
        log::SystemMessage message;
        message.stream << "app context added, id: " << id();
        QV_LOG_WRITE(message);
        answer(stream(), "%s: app context added, id: %lu", NAME, id());
        return context;
    }

    // The command may name the session by its external id: the host also finds it by that.
    void note_other_name(const char* session_uuid)
        QV_REQUIRES(module().contexts_lock, registry_rank) {
        CallIdentity session_call;
        if (session_uuid != nullptr && identify(session_uuid, session_call) &&
            session_call.id != id()) {
            module().other_names.emplace(session_call.id, id());
        }
    }

    // Under the registry lock, the context cannot be erased meanwhile.
    void update(AppContext& context, bool created, features16_t wanted)
        QV_REQUIRES(registry_rank, context.context_lock) {
        features16_t& requested = context.requested_features;
        const std::uint8_t supported = requested.supported & media::feature_mask(FEATURE);
        if (context.start_sent && supported != wanted.supported) {
            refuse_legs(requested.supported, wanted.supported);
            return;
        }
        const unsigned before = requested.active;
        media::merge_features(requested, wanted);
        const unsigned after = requested.active;
        if (before == after && !created) {
            answer(stream(), "+OK, %s: nothing to update: old = %u, new = %u", NAME, before, after);
            return;
        }
        if (context.start_sent) {
            send_update(context);
        }
        answer(stream(), "+OK, %s: updated: old = %u, new = %u", NAME, before, after);
    }

    void refuse_legs(unsigned present, unsigned wanted) const {
        answer(stream(),
               "-ERR, %s: not possible to change supported features (%u -> %u) when start packet "
               "had been sent",
               NAME, present, wanted);
        log::ErrorMessage message;
        message.stream << NAME << ": not possible to change supported features (" << present
                       << " -> " << wanted << ") when start packet had been sent";
        QV_LOG_WRITE(message);
    }

    void send_update(const AppContext& context) QV_REQUIRES(context.context_lock) {
        module().transfer.media_features_update(session(), context);
        log::SystemMessage message;
        // The line has no blank after the name. See docs/design.md, Odd on purpose: texts.
        message.stream << NAME << "control packet for feature update was sent";
        QV_LOG_WRITE(message);
        answer(stream(), "%s: control packet for feature update was sent", NAME);
    }
};

using AudioActivityApiCommand = FeatureApiCommandImpl<Features::AudioActivity>;
using DetectionApiCommand = FeatureApiCommandImpl<Features::SampleDetection>;

// ---- choice -----------------------------------------------------------------------

// The global command called `word`; null if there is none.
std::unique_ptr<ApiCommand> create_global(const std::string& word, Configuration& config,
                                          switch_stream_handle_t* stream) {
    if (word == "version") {
        return std::make_unique<VersionApiCommand>(stream, config);
    }
    if (word == "dump_events") {
        return std::make_unique<DumpEventsApiCommand>(stream, config);
    }
    if (word == "media_node") {
        return std::make_unique<MediaNodeApiCommand>(stream, config);
    }
    if (word == "default_audio_activity") {
        return std::make_unique<DefaultAudioActivityApiCommand>(stream, config);
    }
    if (word == "default_detection") {
        return std::make_unique<DefaultDetectionApiCommand>(stream, config);
    }
    return nullptr;
}

// The session command that the second word names, for the UUID in the first word; null if there
// is none.
std::unique_ptr<ApiCommand> create_session(const Words& words, ModuleContext& module,
                                           switch_stream_handle_t* stream) {
    if (words[1] == "audio_activity") {
        return std::make_unique<AudioActivityApiCommand>(stream, module, words);
    }
    if (words[1] == "detection") {
        return std::make_unique<DetectionApiCommand>(stream, module, words);
    }
    if (words[1] == "features") {
        return std::make_unique<FeatureStatusApiCommand>(stream, module, words.front());
    }
    return nullptr;
}

bool is_uuid(const std::string& word) {
    unsigned char uuid[media::UUID_SIZE];
    return utils::bytes::decode_uuid(word.c_str(), uuid, tag::direct_update_t());
}

}  // namespace

ApiCommand::ApiCommand(switch_stream_handle_t* stream) : stream_(stream) {
    if (stream == nullptr) {
        throw std::invalid_argument("stream must be not null");
    }
}

std::unique_ptr<ApiCommand> ApiCommand::create(const Words& words, ModuleContext& module,
                                               switch_stream_handle_t* stream) {
    if (words.empty()) {
        answer(stream, "-ERR, arguments are not specified\n");
        return nullptr;
    }
    if (auto command = create_global(words.front(), module.config, stream)) {
        return command;
    }
    if (!is_uuid(words.front())) {
        answer(stream, "-ERR, neither uuid nor known command \"%s\"!\n-USAGE: %s\n",
               words.front().c_str(), API_USAGE);
        return nullptr;
    }
    if (words.size() < 2) {
        answer(stream,
               "-ERR, there should be at least 2 arguments for uuid-based command (<uuid> <cmd>), "
               "specified %u args\n",
               as_unsigned(words.size()));
        return nullptr;
    }
    auto command = create_session(words, module, stream);
    if (command == nullptr) {
        answer(stream, "-ERR, unknown command \"%s\"!\n-USAGE: %s\n", words[1].c_str(), API_USAGE);
    }
    return command;
}

void run_api_command(const char* text, ModuleContext& module, switch_stream_handle_t* stream) {
    const std::string line = text == nullptr ? "" : text;
    if (line.empty()) {
        answer(stream, "-ERR, bad command!\n-USAGE: %s\n", API_USAGE);
        return;
    }
    Words words;
    utils::str::split(line, ' ', words, false);
    if (const auto command = ApiCommand::create(words, module, stream)) {
        command->execute();
    }
}

}  // namespace qv::freeswitch
