// The lines logged through switch_log_printf, of the module and of the host itself, in the
// order of the calls.
//
// Owned by EmbeddedHost. Every function may be called from any thread.
#pragma once

#include <switch.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "quorvane_lib/mutex.h"

namespace qv::host {

// One call of switch_log_printf. Absent texts were null pointers.
struct LogLine {
    switch_text_channel_t channel = SWITCH_CHANNEL_ID_LOG;
    switch_log_level_t level = SWITCH_LOG_DEBUG;
    std::optional<std::string> file;
    std::optional<std::string> function;
    int line = 0;
    std::optional<std::string> userdata;  // for SWITCH_CHANNEL_ID_SESSION the session's UUID
    std::string format;                   // the format string, without its arguments
    std::string text;                     // line end included
    bool by_host = false;                 // written by the host's own code
};

class Log {
  public:
    // Is called on the thread that logs, one call at a time. It must neither log nor call
    // this Log.
    using Listener = std::function<void(const LogLine&)>;

    // Off: the log keeps no lines, and formats them only for a listener.
    void set_recording(bool on);
    void set_listener(Listener listener);

    // The module's lines (the host's own are left out), oldest first.
    std::vector<LogLine> lines() const;
    std::vector<LogLine> all_lines() const;
    // Module lines whose text holds `part`.
    std::size_t count(const std::string& part) const;
    bool contains(const std::string& part) const { return count(part) > 0; }
    // True as soon as a module line holds `part`; false after the timeout.
    bool wait_for(const std::string& part, std::chrono::milliseconds timeout) const;
    void clear();

    // For the host: false while neither the record nor a listener needs the text of a line.
    bool formatting() const { return formatting_.load(std::memory_order_relaxed); }
    // For the host: formats the text of the line and keeps the line.
    void write(LogLine line, va_list arguments);
    // For the host: logs a line of the host itself.
    void note(switch_log_level_t level, const std::string& text);

  private:
    void keep(LogLine line);
    std::size_t count_locked(const std::string& part) const QV_REQUIRES(lock_);

    std::atomic<bool> formatting_{true};  // recording_, or there is a listener_
    mutable Mutex lock_;
    mutable Condition added_;
    bool recording_ QV_GUARDED_BY(lock_) = true;
    Listener listener_ QV_GUARDED_BY(lock_);
    std::vector<LogLine> lines_ QV_GUARDED_BY(lock_);
};

}  // namespace qv::host
