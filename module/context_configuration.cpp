#include "module/context_configuration.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>

#include "module/host_log.h"
#include "module/steady_time.h"
#include "quorvane_lib/net_socket.h"
#include "quorvane_lib/utils_str.h"

namespace qv::freeswitch {

namespace {

// Log lines from here name the module's main file, because users filter the host's log by it.
constexpr const char* LOG_FILE = "mod_quorvane.cpp";

// Fills a context from the channel variables of its call and the module's defaults. It takes
// no lock, because no other thread uses the context yet.
class ContextConfigurator {
  public:
    ContextConfigurator(AppContext& context, switch_core_session_t* session,
                        const Configuration& defaults)
        : context_(context),
          session_(session),
          defaults_(defaults),
          channel_(switch_core_session_get_channel(session)) {}

    // Returns false only if the media node cannot be parsed; it reads nothing further then.
    bool configure() {
        if (!set_media_node()) {
            return false;
        }
        set_recording();
        set_rule_id();
        if ((context_.flags & media::FLAG_RULE_ID) != 0) {
            set_feature("quorvane_detection", AppContext::parse_sample_detection,
                        media::Features::SampleDetection, defaults_.default_detection);
            set_feature("quorvane_audio_activity", AppContext::parse_audio_activity,
                        media::Features::AudioActivity, defaults_.default_audio_activity);
        }
        set_report_node();
        set_call_id();
        set_direction();
        set_times();
        return true;
    }

  private:
    static constexpr const char* FUNCTION = "configure_context";

    // The variable's value, owned by the channel; null if it is not set.
    const char* variable(const char* name) const {
        return switch_channel_get_variable_dup(channel_, name, SWITCH_FALSE, -1);
    }

    void report(const LogPlace& place, const char* name, const char* value,
                const char* consequence) const {
        log_session_line<log::ERROR>(session_, place, "failed to parse channel variable \"", name,
                                     "\": ", value, "; ", consequence);
    }

    bool set_media_node() {
        const char* value = variable("quorvane_media_node");
        if (value == nullptr) {
            context_.media_node = defaults_.media_node_addr;
            return true;
        }
        if (!net::parse_addr(value, nullptr, context_.media_node)) {
            report(LogPlace{LOG_FILE, FUNCTION, __LINE__}, "quorvane_media_node", value,
                   "discarding!");
            return false;
        }
        return true;
    }

    // Accepts more words than the host's own truth test. See docs/design.md, Odd on purpose:
    // `quorvane_record`.
    static bool means_record(const char* value) {
        constexpr std::array<const char*, 7> words = {"yes",     "on",     "true", "t",
                                                      "enabled", "active", "allow"};
        const bool word = std::any_of(words.begin(), words.end(), [value](const char* candidate) {
            return ::strcasecmp(value, candidate) == 0;
        });
        return word || (switch_is_number(value) && std::strtol(value, nullptr, 10) != 0);
    }

    // No lock: no other thread touches the features before the media bug is attached.
    void set_recording() QV_NO_THREAD_SAFETY_ANALYSIS {
        const char* value = variable("quorvane_record");
        if (value != nullptr && means_record(value)) {
            media::merge_features(context_.features,
                                  {media::FEATURE_RECORD, media::FEATURE_RECORD});
        }
    }

    void set_rule_id() {
        context_.rule_id = 0;
        set_flag(context_.flags, media::FLAG_RULE_ID, false);
        const char* value = variable("quorvane_rule_id");
        if (value == nullptr) {
            return;
        }
        // If other characters follow a number, it is refused, but stored. See docs/design.md, Odd
        // on purpose: `quorvane_rule_id`.
        if (utils::str::try_parse_value<std::uint64_t>(value, context_.rule_id)) {
            context_.flags |= media::FLAG_RULE_ID;
        } else {
            report(LogPlace{LOG_FILE, FUNCTION, __LINE__}, "quorvane_rule_id", value, "ignored!");
        }
    }

    // If the variable names no side for the feature, the module's default is used. No lock, as
    // above.
    void set_feature(const char* name, ParseFeature parse, media::Features feature,
                     const std::string& default_text) QV_NO_THREAD_SAFETY_ANALYSIS {
        const char* value = variable(name);
        if (value != nullptr && !parse(value, context_.features)) {
            report(LogPlace{LOG_FILE, FUNCTION, __LINE__}, name, value,
                   default_text.empty() ? "discarding!" : "default used!");
        }
        const bool configured = (context_.features.supported & media::feature_mask(feature)) != 0;
        if (!configured && !default_text.empty()) {
            parse(default_text.c_str(), context_.features);
        }
    }

    void set_report_node() {
        context_.report_node_addr = 0;
        context_.report_node_port = 0;
        set_flag(context_.flags, media::FLAG_REPORT_NODE, false);
        const char* value = variable("quorvane_report_node");
        if (value == nullptr) {
            return;
        }
        sockaddr_in address{};
        if (!net::parse_addr(value, nullptr, address)) {
            report(LogPlace{LOG_FILE, FUNCTION, __LINE__}, "quorvane_report_node", value,
                   "ignored!");
            return;
        }
        context_.report_node_addr = address.sin_addr.s_addr;
        context_.report_node_port = address.sin_port;
        context_.flags |= media::FLAG_REPORT_NODE;
    }

    void set_call_id() {
        const char* reference = variable("quorvane_call_id_ref");
        const char* name = reference != nullptr ? reference : "sip_call_id";
        const char* value = variable(name);
        if (value != nullptr) {
            context_.call_id = value;
        } else {
            log_session_line<log::ERROR>(session_, LogPlace{LOG_FILE, FUNCTION, __LINE__},
                                         "channel variable \"", name, "\" is not set; ignoring");
        }
    }

    void set_direction() {
        const bool outbound = switch_channel_direction(channel_) != 0;
        set_flag(context_.flags, media::FLAG_OUTBOUND, outbound);
        set_flag(context_.legs[media::READ_LEG].leg_flags, media::LEG_TERMINATOR_SIDE, outbound);
        set_flag(context_.legs[media::WRITE_LEG].leg_flags, media::LEG_TERMINATOR_SIDE, !outbound);
    }

    static void set_flag(std::uint16_t& word, std::uint16_t flag, bool value) {
        word = static_cast<std::uint16_t>(value ? word | flag : word & ~flag);
    }

    void set_times() {
        context_.configured_time = static_cast<std::uint64_t>(switch_time_now());
        context_.configured_clock_us = steady_time_us();
    }

    AppContext& context_;
    switch_core_session_t* session_;
    const Configuration& defaults_;
    switch_channel_t* channel_;
};

}  // namespace

bool configure_context(AppContext& context, switch_core_session_t* session,
                       const Configuration& defaults) {
    return ContextConfigurator(context, session, defaults).configure();
}

}  // namespace qv::freeswitch
