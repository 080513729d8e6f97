// Prints what happens in a run, and its progress.
//
// Belongs to the thread that drives the run.
#pragma once

#include <string>
#include <vector>

#include "tools/call/console.h"
#include "tools/call/driver.h"

namespace qv::tools::call {

// "[#####.....]  50 %  15.0 of 30.0 s, 1,000 calls up, 3 of 2,000 over, 1,500,000 frames"
std::string progress_bar(const Progress& progress);
// The same without the bar, for outputs that cannot rewrite a line.
std::string progress_line(const Progress& progress);
// Between 0 and 1.
double part_done(const Progress& progress);

class RunPrinter : public RunListener {
  public:
    // The console must outlive the printer. Without `call_lines` it prints only the progress.
    RunPrinter(Console& console, bool call_lines, bool several_calls)
        : console_(console), call_lines_(call_lines), several_calls_(several_calls) {}

    void call_begun(Time at, std::size_t call, const std::string& uuid) override;
    void call_tapped(Time at, std::size_t call, bool tapped) override;
    void command_run(Time at, std::size_t call, const std::string& command,
                     const std::string& answer) override;
    void command_missed(Time at, std::size_t call, const std::string& command) override;
    void call_over(Time at, std::size_t call) override;
    void fault_switched(Time at, const FaultSpan& fault, bool on) override;
    void progress(const Progress& progress) override;

  private:
    void tell(Time at, std::size_t call, const std::string& text);

    Console& console_;
    const bool call_lines_;
    const bool several_calls_;
    double next_progress_s_ = 0;
};

}  // namespace qv::tools::call
