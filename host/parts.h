// The parts of an EmbeddedHost. For the host's own sources only.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "host/counters.h"
#include "host/embedded_host.h"
#include "host/loader.h"
#include "host/media_threads.h"
#include "host/session_table.h"
#include "quorvane_lib/mutex.h"

namespace qv::host {

// The host's variables; a channel variable that is not set takes its value from here.
class GlobalVariables {
  public:
    void set(const std::string& name, const std::string& value);
    // Null without such a variable. The text lives as long as the host, even when the variable
    // is set again.
    const char* find(const std::string& name) const;

  private:
    mutable Mutex lock_;
    std::map<std::string, const char*> values_ QV_GUARDED_BY(lock_);
    std::deque<std::string> texts_ QV_GUARDED_BY(lock_);
};

struct EmbeddedHost::Parts {
    explicit Parts(HostOptions given) : options(given), pool(given.media_threads) {}

    const HostOptions options;
    Counters counters;
    Faults faults;
    Log log;
    EventBus events;
    GlobalVariables variables;
    Registry registry;
    SessionTable sessions;
    MediaPool pool;
    Loader loader;
};

// The parts of the process's host. Without a host it ends the process with a message.
EmbeddedHost::Parts& current_host();

}  // namespace qv::host
