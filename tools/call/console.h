// Prints the lines of a run and, on a terminal, a status line below them, rewritten in place.
//
// Any thread may call it.
#pragma once

#include <ostream>
#include <string>

#include "quorvane_lib/mutex.h"

namespace qv::tools::call {

class Console {
  public:
    // The number of columns of the terminal now; 0 when it is unknown.
    using Columns = std::size_t (*)();

    // Lines go to `out`, the status line to `status`, if that is a terminal. Both streams must
    // outlive the console. The status line is cut to `columns`, since a line that wraps cannot
    // be rewritten.
    Console(std::ostream& out, std::ostream& status, bool terminal, Columns columns)
        : out_(out), status_(status), terminal_(terminal), columns_(columns) {}

    bool terminal() const { return terminal_; }
    void line(const std::string& text);
    // Replaces the status line; an empty text removes it.
    void set_status(const std::string& text);

  private:
    void erase_status() QV_REQUIRES(lock_);
    void draw_status() QV_REQUIRES(lock_);

    Mutex lock_;
    std::ostream& out_ QV_GUARDED_BY(lock_);
    std::ostream& status_ QV_GUARDED_BY(lock_);
    const bool terminal_;
    const Columns columns_;
    std::string status_text_ QV_GUARDED_BY(lock_);
};

}  // namespace qv::tools::call
