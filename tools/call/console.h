// The lines of a run, and below them, on a terminal, a status line that is rewritten in
// place.
//
// Any thread may call.
#pragma once

#include <mutex>
#include <ostream>
#include <string>

namespace qv::tools::call {

class Console {
  public:
    // Tells how many columns the terminal has now, 0 when it does not say.
    using Columns = std::size_t (*)();

    // Lines go to `out`, the status line to `status`; without a terminal there is none.
    // Both streams must outlive the console. The status line is cut to what `columns`
    // tells: a line that wraps could not be rewritten.
    Console(std::ostream& out, std::ostream& status, bool terminal, Columns columns)
        : out_(out), status_(status), terminal_(terminal), columns_(columns) {}

    bool terminal() const { return terminal_; }
    void line(const std::string& text);
    // Replaces the status line; an empty text takes it away.
    void set_status(const std::string& text);

  private:
    void erase_status();  // lock_ held
    void draw_status();   // lock_ held

    std::mutex lock_;  // guards all below
    std::ostream& out_;
    std::ostream& status_;
    const bool terminal_;
    const Columns columns_;
    std::string status_text_;
};

}  // namespace qv::tools::call
