// The applications and API commands that modules registered, by name, and how many threads
// are inside them. The case of names does not count. Any thread may call it.
#pragma once

#include <switch.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "quorvane_lib/mutex.h"

// A module's load function fills it; the module holds its address.
struct switch_loadable_module_interface {
    std::string name;
    std::vector<std::unique_ptr<switch_application_interface_t>> applications;
    std::vector<std::unique_ptr<switch_api_interface_t>> apis;
    std::atomic<std::size_t> users{0};  // threads inside one of the functions
};

// A pool lives as long as its module.
struct fspr_pool_t {
    std::vector<std::unique_ptr<switch_loadable_module_interface>> interfaces;
};

namespace qv::host {

using ModuleInterface = switch_loadable_module_interface;

// A registered function in use; keeps its module from being unloaded.
template <typename Interface>
class InUse {
  public:
    InUse() = default;
    explicit InUse(const Interface* found) : interface_(found) { ++interface_->parent->users; }
    InUse(InUse&& other) noexcept : interface_(other.interface_) { other.interface_ = nullptr; }
    InUse& operator=(InUse&&) = delete;
    ~InUse() {
        if (interface_) {
            --interface_->parent->users;
        }
    }

    explicit operator bool() const { return interface_ != nullptr; }
    const Interface* operator->() const { return interface_; }

  private:
    const Interface* interface_ = nullptr;
};

class Registry {
  public:
    void add(ModuleInterface& module);
    // False, without any change, while a thread is inside the module.
    bool remove(ModuleInterface& module);

    InUse<switch_application_interface_t> application(const std::string& name) const;
    InUse<switch_api_interface_t> api(const std::string& name) const;
    std::vector<const switch_application_interface_t*> applications() const;
    std::vector<const switch_api_interface_t*> apis() const;

    void add_completion(const std::string& text);
    std::vector<std::string> completions() const;

  private:
    mutable Mutex lock_;
    std::vector<ModuleInterface*> modules_ QV_GUARDED_BY(lock_);
    std::vector<std::string> completions_ QV_GUARDED_BY(lock_);
};

}  // namespace qv::host
