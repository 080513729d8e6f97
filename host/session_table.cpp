#include "host/session_table.h"

#include "host/parts.h"
#include "host/session.h"

namespace qv::host {

bool SessionTable::add(const std::shared_ptr<Session>& session) {
    const LockGuard guard(lock_);
    return sessions_.emplace(session->uuid(), session).second;
}

void SessionTable::remove(const std::string& uuid) {
    const LockGuard guard(lock_);
    sessions_.erase(uuid);
}

// Held until the read lock is taken, so that the session cannot end in between.
switch_core_session_t* SessionTable::locate(const std::string& uuid) const {
    const LockGuard guard(lock_);
    const std::shared_ptr<Session> session = find(uuid);
    if (session == nullptr || !session->read_lock().try_lock()) {
        return nullptr;
    }
    if (session->channel().down()) {
        session->read_lock().unlock();
        return nullptr;
    }
    auto& counters = current_host().counters;
    ++counters.read_locks_held;
    ++counters.read_locks_taken;
    return session->handle();
}

// By its UUID, else by its external id.
std::shared_ptr<Session> SessionTable::find(const std::string& name) const {
    const auto found = sessions_.find(name);
    if (found != sessions_.end()) {
        return found->second;
    }
    for (const auto& [uuid, session] : sessions_) {
        if (!name.empty() && session->options().external_id == name) {
            return session;
        }
    }
    return nullptr;
}

std::vector<std::shared_ptr<Session>> SessionTable::all() const {
    std::vector<std::shared_ptr<Session>> sessions;
    const LockGuard guard(lock_);
    sessions.reserve(sessions_.size());
    for (const auto& [uuid, session] : sessions_) {
        sessions.push_back(session);
    }
    return sessions;
}

std::size_t SessionTable::size() const {
    const LockGuard guard(lock_);
    return sessions_.size();
}

void SessionTable::keep(std::shared_ptr<Session> session) {
    const LockGuard guard(lock_);
    kept_.push_back(std::move(session));
}

SessionTable::Pause SessionTable::pause_bugs() const {
    Pause pause{all(), {}};
    for (const auto& session : pause.sessions) {
        pause.bugs.emplace_back(session->bugs());
    }
    return pause;
}

}  // namespace qv::host
