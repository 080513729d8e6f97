#include "tools/call/fault_names.h"

#include <stdexcept>
#include <utility>

#include "tools/call/text.h"

namespace qv::tools::call {
namespace {

using host::Fault;

constexpr char HIDE_HEADER[] = "hide-header:";

struct Named {
    Fault fault;
    const char* name;
    const char* what;
};

constexpr Named FAULT_NAMES[] = {
    {Fault::BIND_CHANNEL_DESTROY_FAILS, "bind-channel-destroy-fails",
     "the module cannot bind the channel-destroy event"},
    {Fault::BIND_ALL_FAILS, "bind-all-fails", "the module cannot bind all events"},
    {Fault::NO_TIMETABLE, "no-timetable", "a channel has no times"},
    {Fault::MEDIA_NOT_READY, "media-not-ready", "the media of a channel are not ready"},
    {Fault::BUG_REFUSED, "bug-refused", "no media bug can be added"},
    {Fault::SESSION_NOT_FOUND, "session-not-found", "no session is found by its UUID"},
    {Fault::UUID_GARBAGE, "uuid-garbage", "the UUID of a session is not a UUID"},
    {Fault::OUT_OF_MEMORY, "out-of-memory", "the host has no memory for bugs and event bindings"},
    {Fault::NULL_FRAME, "null-frame", "the frame of a media bug is null"},
    {Fault::COMPLETION_FAILS, "completion-fails", "no console completion can be added"},
    {Fault::REFUSED_BUG_CLOSED, "refused-bug-closed",
     "the host closes a bug that refused to start"},
    {Fault::BUG_LOST, "bug-lost", "a bug that has started cannot be added"},
};

std::string all_names() {
    std::vector<std::string> names;
    for (const FaultHelp& help : fault_help()) {
        names.push_back(help.name);
    }
    return joined(names, ", ");
}

void set_name(FaultSpan& span, const std::string& name) {
    const std::string prefix = HIDE_HEADER;
    if (name.compare(0, prefix.size(), prefix) == 0 && name.size() > prefix.size()) {
        span.header = name.substr(prefix.size());
        return;
    }
    for (const Named& named : FAULT_NAMES) {
        if (name == named.name) {
            span.fault = named.fault;
            return;
        }
    }
    throw std::invalid_argument("no fault is named '" + name + "'; there are: " + all_names());
}

double time_in(const std::string& text) {
    const auto seconds = parse_number(text);
    if (!seconds || *seconds < 0) {
        throw std::invalid_argument("'" + text +
                                    "' is no time in seconds; a fault is NAME, "
                                    "NAME@FROM or NAME@FROM-UNTIL");
    }
    return *seconds;
}

void set_times(FaultSpan& span, const std::string& text) {
    const auto dash = text.find('-');
    span.from_s = time_in(text.substr(0, dash));
    if (dash == std::string::npos) {
        return;
    }
    if (!span.fault) {
        throw std::invalid_argument("a hidden header stays hidden: '" + text + "' names an end");
    }
    span.until_s = time_in(text.substr(dash + 1));
    if (*span.until_s < *span.from_s) {
        throw std::invalid_argument("the fault '" + text + "' ends before it begins");
    }
}

}  // namespace

FaultSpan parse_fault(const std::string& text) {
    FaultSpan span;
    const auto at = text.find('@');
    set_name(span, text.substr(0, at));
    if (at != std::string::npos) {
        set_times(span, text.substr(at + 1));
    }
    return span;
}

std::string name_of(const FaultSpan& span) {
    for (const Named& named : FAULT_NAMES) {
        if (span.fault == named.fault) {
            return named.name;
        }
    }
    return HIDE_HEADER + span.header;
}

void switch_fault(host::Faults& faults, const FaultSpan& span, bool on) {
    if (span.fault) {
        faults.set(*span.fault, on);
    } else if (on) {
        faults.hide_header(span.header);
    }
}

const std::vector<FaultHelp>& fault_help() {
    static const std::vector<FaultHelp> everything = [] {
        std::vector<FaultHelp> all;
        for (const Named& named : FAULT_NAMES) {
            all.push_back({named.name, named.what});
        }
        all.push_back({std::string(HIDE_HEADER) + "HEADER", "events lack this header"});
        return all;
    }();
    return everything;
}

}  // namespace qv::tools::call
