#include "host/faults.h"

namespace qv::host {

void Faults::set(Fault fault, bool on) {
    const auto bit = static_cast<std::uint32_t>(fault);
    if (on) {
        bits_ |= bit;
    } else {
        bits_ &= ~bit;
    }
}

bool Faults::on(Fault fault) const {
    return (bits_.load(std::memory_order_relaxed) & static_cast<std::uint32_t>(fault)) != 0;
}

void Faults::hide_header(const std::string& name) {
    const LockGuard guard(lock_);
    headers_.insert(name);
    hiding_ = true;
}

bool Faults::hidden(const std::string& name) const {
    if (!hiding_) {
        return false;
    }
    const LockGuard guard(lock_);
    return headers_.count(name) > 0;
}

void Faults::clear() {
    const LockGuard guard(lock_);
    headers_.clear();
    hiding_ = false;
    bits_ = 0;
}

}  // namespace qv::host
