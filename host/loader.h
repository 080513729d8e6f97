// Opens modules and closes them again, as the host's loader does.
//
// Owned by EmbeddedHost. Any thread may load and unload; one waits for the other.
#pragma once

#include <switch.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "host/registry.h"
#include "quorvane_lib/mutex.h"

namespace qv::host {

struct LoadResult;
struct UnloadResult;

class Loader {
  public:
    Loader();
    ~Loader();
    Loader(const Loader&) = delete;
    Loader& operator=(const Loader&) = delete;

    LoadResult load(const std::string& path);
    UnloadResult shutdown(const std::string& name);
    UnloadResult unload(const std::string& name);
    void unload_all();
    std::size_t modules() const;

  private:
    struct Module;

    void run_load(Module& module, LoadResult& result) QV_REQUIRES(lock_);
    struct Closed {
        bool left_memory = false;
        std::size_t bindings_dropped = 0;
        std::size_t bugs_dropped = 0;
    };
    Closed close(Module& module) QV_REQUIRES(lock_);

    mutable Mutex lock_;
    std::map<std::string, std::unique_ptr<Module>> modules_ QV_GUARDED_BY(lock_);
};

}  // namespace qv::host
