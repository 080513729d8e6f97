// The sessions that are alive, by UUID. Any thread.
#pragma once

#include <switch.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace qv::host {

class Session;

class SessionTable {
  public:
    // False when a session with this UUID is there already.
    bool add(const std::shared_ptr<Session>& session);
    void remove(const std::string& uuid);
    // Under its read lock; null when there is none, or it is ending.
    switch_core_session_t* locate(const std::string& uuid) const;
    std::vector<std::shared_ptr<Session>> all() const;
    std::size_t size() const;

    // Keeps a session whose read lock was never given back, for whoever still holds it.
    void keep(std::shared_ptr<Session> session);

    // Drops the bugs of all sessions whose code lies in the loaded object at `base`.
    std::size_t drop_bugs_of(const void* base);

  private:
    mutable std::mutex lock_;  // guards the two below
    std::unordered_map<std::string, std::shared_ptr<Session>> sessions_;
    std::vector<std::shared_ptr<Session>> kept_;
};

}  // namespace qv::host
