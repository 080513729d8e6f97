// A private network of the test program: the loopback, and a link 10.9.0.1/24 on which no host
// answers unless the test adds it. Nothing sent there leaves the machine.
//
// It is the network of the thread that creates it, and of the threads that this thread starts
// afterwards. Needs the right to create network namespaces, or user namespaces, and iproute2.
#pragma once

#include <string>

namespace qv::tests {

class OwnNetwork {
  public:
    OwnNetwork();
    OwnNetwork(const OwnNetwork&) = delete;
    OwnNetwork& operator=(const OwnNetwork&) = delete;
    // Returns to the previous network, where that is allowed.
    ~OwnNetwork();

    // Why this machine has no such network. Empty if it has one.
    const std::string& why_not() const { return why_not_; }

    // Adds the host 10.9.0.`host`, 2 to 254. Data to a host that was not added waits in the
    // sender's send buffer; afterwards it leaves the buffer and is lost.
    void answer_from(int host) const;

    // Refuses every packet to 127.0.0.1 with a rule of `kind`, see ip-rule(8), until the loopback
    // is opened again. The route in table 7 leads nowhere.
    void bar_loopback(const std::string& kind) const;
    void open_loopback() const;

  private:
    std::string why_not_;
    int before_ = -1;  // A descriptor of the previous network.
};

}  // namespace qv::tests
