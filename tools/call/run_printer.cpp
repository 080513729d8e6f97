#include "tools/call/run_printer.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "tools/call/text.h"

namespace qv::tools::call {
namespace {

constexpr std::size_t BAR_WIDTH = 10;
constexpr double BAR_FROM_SECONDS = 2;     // a shorter run gets no bar
constexpr double LINES_FROM_SECONDS = 10;  // a shorter run gets no progress lines
constexpr double LINES_EVERY_SECONDS = 5;

std::string right_aligned(const std::string& text, std::size_t width) {
    return std::string(width - std::min(width, text.size()), ' ') + text;
}

}  // namespace

double part_done(const Progress& progress) {
    const double by_time = progress.expected_s > 0 ? progress.elapsed_s / progress.expected_s : 1;
    const double by_calls = static_cast<double>(progress.calls_over) /
                            static_cast<double>(std::max<std::size_t>(progress.calls_planned, 1));
    // If calls wait for others, the run takes longer than expected; its progress is then the share
    // of calls that have ended.
    return std::min(by_time < 1 ? by_time : by_calls, 1.0);
}

std::string progress_line(const Progress& progress) {
    return duration_text(progress.elapsed_s) + " of " + duration_text(progress.expected_s) + ", " +
           counted(progress.calls_live, "call") + " up, " + grouped(progress.calls_over) + " of " +
           grouped(progress.calls_planned) + " over, " + counted(progress.frames, "frame");
}

std::string progress_bar(const Progress& progress) {
    const double part = part_done(progress);
    const auto filled = static_cast<std::size_t>(part * static_cast<double>(BAR_WIDTH));
    return "[" + std::string(filled, '#') + std::string(BAR_WIDTH - filled, '.') + "] " +
           right_aligned(fixed(std::floor(part * 100), 0), 3) + " %  " + progress_line(progress);
}

void RunPrinter::tell(Time at, std::size_t call, const std::string& text) {
    std::string line = right_aligned(fixed(seconds_of(at), 3), 8) + " s  ";
    if (several_calls_) {
        line += "call " + std::to_string(call) + ": ";
    }
    console_.line(line + text);
}

void RunPrinter::call_begun(Time at, std::size_t call, const std::string& uuid) {
    if (call_lines_) {
        tell(at, call, "begins, " + uuid);
    }
}

void RunPrinter::call_tapped(Time at, std::size_t call, bool tapped) {
    if (call_lines_) {
        tell(at, call, tapped ? "tapped" : "NOT tapped: the module did not add its media bug");
    }
}

void RunPrinter::command_run(Time at, std::size_t call, const std::string& command,
                             const std::string& answer) {
    if (!call_lines_) {
        return;
    }
    tell(at, call, "> " + command);
    std::istringstream lines(answer);
    std::string line;
    bool any = false;
    while (std::getline(lines, line)) {
        tell(at, call, "< " + line);
        any = true;
    }
    if (!any) {
        tell(at, call, "< (no answer)");
    }
}

void RunPrinter::command_missed(Time at, std::size_t call, const std::string& command) {
    if (call_lines_) {
        tell(at, call, "over before its command: " + command);
    }
}

void RunPrinter::call_over(Time at, std::size_t call) {
    if (call_lines_) {
        tell(at, call, "hung up");
    }
}

void RunPrinter::fault_switched(Time at, const FaultSpan& fault, bool on) {
    console_.line(right_aligned(fixed(seconds_of(at), 3), 8) + " s  fault " + name_of(fault) +
                  (on ? " on" : " off"));
}

void RunPrinter::progress(const Progress& progress) {
    if (console_.terminal()) {
        if (progress.expected_s > BAR_FROM_SECONDS) {
            console_.set_status(progress_bar(progress));
        }
        return;
    }
    if (progress.expected_s <= LINES_FROM_SECONDS || progress.elapsed_s < next_progress_s_) {
        return;
    }
    console_.line("          " + progress_line(progress));
    next_progress_s_ = progress.elapsed_s + LINES_EVERY_SECONDS;
}

}  // namespace qv::tools::call
