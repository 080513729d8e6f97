// A network of the test program's own: the loopback, and a link 10.9.0.1/24 on which nobody
// answers until the test says so. Nothing that is sent there leaves the machine.
//
// It is the network of the thread that makes it and of those that this thread starts
// afterwards. Needs the right to make network namespaces, or user namespaces, and iproute2.
#pragma once

#include <string>

namespace qv::tests {

class OwnNetwork {
  public:
    OwnNetwork();
    OwnNetwork(const OwnNetwork&) = delete;
    OwnNetwork& operator=(const OwnNetwork&) = delete;
    // Goes back to the network of before, where that is allowed.
    ~OwnNetwork();

    // Why there is no such network here; empty when there is one.
    const std::string& why_not() const { return why_not_; }

    // Nobody is at 10.9.0.`host`, 2 to 254, as long as this has not been called for it: what is
    // sent there waits for an answer in the sender's send buffer. Now it goes out, into the void.
    void answer_from(int host) const;

    // Has every packet to 127.0.0.1 refused by a rule of `kind`, see ip-rule(8), until the
    // loopback is opened again. Table 7 has a route that leads nowhere.
    void bar_loopback(const std::string& kind) const;
    void open_loopback() const;

  private:
    std::string why_not_;
    int before_ = -1;  // A descriptor of the network of before.
};

}  // namespace qv::tests
