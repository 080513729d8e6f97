// What happens to the connection, as lines for the user: bounded, and without repetitions.
//
// Much of it is what servers say, so it is made safe for a terminal. Belongs to one thread at a
// time; the publisher guards it with its lock.
#pragma once

#include <set>
#include <string>
#include <string_view>

#include "node/engine/publisher.h"

namespace qv::node {

class EngineNews {
  public:
    void tell(const std::string& what, std::string_view details);
    // Each complaint is reported once while a connection lasts.
    void complain(const std::string& text);
    void connected(const std::string& url);

    // Why events are not taken. Each reason is reported once until all are taken again.
    void refused(const std::string& reason);
    // Events are taken and none is refused.
    void stored();

    Publisher::News take();

    static constexpr std::size_t MOST = 100;          // Lines at a time.
    static constexpr std::size_t MOST_REASONS = 8;    // Further ones are not reported.
    static constexpr std::size_t LONGEST_LINE = 300;  // Bytes.

  private:
    Publisher::News news_;
    std::set<std::string> complaints_;
    std::set<std::string> reasons_;
};

}  // namespace qv::node
