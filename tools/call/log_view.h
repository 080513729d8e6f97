// Counts the lines that the module logs and shows them as the host would.
//
// The listener runs on the thread that logs; any thread may read the numbers.
#pragma once

#include <switch.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "host/log.h"
#include "tools/call/console.h"

namespace qv::tools::call {

// The host's name of a level: CONSOLE, ALERT, CRIT, ERR, WARNING, NOTICE, INFO or DEBUG.
std::string level_name(switch_log_level_t level);
// The level of a name in either case, "ERROR" included.
std::optional<switch_log_level_t> level_of(const std::string& name);

// "2024-05-06 07:08:09.123456 [ERR] mod_quorvane.cpp:42 [quorvane]: text", behind the UUID of
// the call if the line has one, without its line end.
std::string shown_line(const host::LogLine& line, switch_time_t now);

class LogView {
  public:
    struct Counts {  // of the module's lines; the host's own are only shown
        std::uint64_t lines = 0;
        std::uint64_t warnings = 0;
        std::uint64_t errors = 0;  // ERR and more important levels
    };

    // Shows the lines up to the level `most_detailed`, or only the first few errors without
    // one. The console must outlive the view.
    LogView(Console& console, std::optional<switch_log_level_t> most_detailed)
        : console_(console), most_detailed_(most_detailed) {}

    // Becomes the listener of the log. The view must live as long as the log is used.
    void listen(host::Log& log);
    Counts counts() const { return {lines_.load(), warnings_.load(), errors_.load()}; }

  private:
    void on_line(const host::LogLine& line);
    void show_error(const std::string& text, std::uint64_t number);

    Console& console_;
    const std::optional<switch_log_level_t> most_detailed_;
    std::atomic<std::uint64_t> lines_{0};
    std::atomic<std::uint64_t> warnings_{0};
    std::atomic<std::uint64_t> errors_{0};
};

}  // namespace qv::tools::call
