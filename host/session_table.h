// The sessions that are alive, by UUID. Any thread may call it.
#pragma once

#include <switch.h>

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/media_bugs.h"
#include "quorvane_lib/mutex.h"

namespace qv::host {

class Session;

class SessionTable {
  public:
    // False when a session with this UUID exists.
    bool add(const std::shared_ptr<Session>& session);
    void remove(const std::string& uuid);
    // Takes the session's read lock; null when there is no session or it is ending.
    switch_core_session_t* locate(const std::string& uuid) const;
    std::vector<std::shared_ptr<Session>> all() const;
    std::size_t size() const;

    // Keeps a session whose read lock was not released, for its holder.
    void keep(std::shared_ptr<Session> session);

    // While it exists, no bug of the present sessions is called.
    struct Pause {
        std::vector<std::shared_ptr<Session>> sessions;
        std::vector<MediaBugs::Pause> bugs;  // destroyed before the sessions that own the bugs
    };
    Pause pause_bugs() const;

  private:
    std::shared_ptr<Session> find(const std::string& name) const QV_REQUIRES(lock_);

    mutable Mutex lock_;
    std::unordered_map<std::string, std::shared_ptr<Session>> sessions_ QV_GUARDED_BY(lock_);
    std::vector<std::shared_ptr<Session>> kept_ QV_GUARDED_BY(lock_);
};

}  // namespace qv::host
