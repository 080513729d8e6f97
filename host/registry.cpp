#include "host/registry.h"

#include <strings.h>

#include <algorithm>

#include "host/parts.h"

namespace qv::host {
namespace {

template <typename Interface>
bool named(const Interface& interface, const std::string& name) {
    return interface.interface_name && strcasecmp(interface.interface_name, name.c_str()) == 0;
}

template <typename Interface>
const Interface* find(const std::vector<std::unique_ptr<Interface>>& list,
                      const std::string& name) {
    const auto found = std::find_if(list.begin(), list.end(),
                                    [&name](const auto& item) { return named(*item, name); });
    return found == list.end() ? nullptr : found->get();
}

template <typename Interface>
void* create(std::vector<std::unique_ptr<Interface>>& list, ModuleInterface* parent) {
    list.push_back(std::make_unique<Interface>());
    list.back()->parent = parent;
    return list.back().get();
}

}  // namespace

void Registry::add(ModuleInterface& module) {
    const LockGuard guard(lock_);
    modules_.push_back(&module);
}

bool Registry::remove(ModuleInterface& module) {
    const LockGuard guard(lock_);
    if (module.users > 0) {
        return false;
    }
    modules_.erase(std::remove(modules_.begin(), modules_.end(), &module), modules_.end());
    return true;
}

InUse<switch_application_interface_t> Registry::application(const std::string& name) const {
    const LockGuard guard(lock_);
    for (const ModuleInterface* module : modules_) {
        if (const auto* found = find(module->applications, name)) {
            return InUse<switch_application_interface_t>(found);
        }
    }
    return {};
}

InUse<switch_api_interface_t> Registry::api(const std::string& name) const {
    const LockGuard guard(lock_);
    for (const ModuleInterface* module : modules_) {
        if (const auto* found = find(module->apis, name)) {
            return InUse<switch_api_interface_t>(found);
        }
    }
    return {};
}

std::vector<const switch_application_interface_t*> Registry::applications() const {
    std::vector<const switch_application_interface_t*> all;
    const LockGuard guard(lock_);
    for (const ModuleInterface* module : modules_) {
        for (const auto& item : module->applications) {
            all.push_back(item.get());
        }
    }
    return all;
}

std::vector<const switch_api_interface_t*> Registry::apis() const {
    std::vector<const switch_api_interface_t*> all;
    const LockGuard guard(lock_);
    for (const ModuleInterface* module : modules_) {
        for (const auto& item : module->apis) {
            all.push_back(item.get());
        }
    }
    return all;
}

void Registry::add_completion(const std::string& text) {
    const LockGuard guard(lock_);
    completions_.push_back(text);
}

std::vector<std::string> Registry::completions() const {
    const LockGuard guard(lock_);
    return completions_;
}

}  // namespace qv::host

extern "C" {

switch_loadable_module_interface_t* switch_loadable_module_create_module_interface(
    switch_memory_pool_t* pool, const char* name) {
    pool->interfaces.push_back(std::make_unique<switch_loadable_module_interface>());
    auto* created = pool->interfaces.back().get();
    created->name = name ? name : "";
    return created;
}

// Null for the kinds of interface that this host does not offer.
void* switch_loadable_module_create_interface(switch_loadable_module_interface_t* mod,
                                              switch_module_interface_name_t iname) {
    switch (iname) {
        case SWITCH_APPLICATION_INTERFACE:
            return qv::host::create(mod->applications, mod);
        case SWITCH_API_INTERFACE:
            return qv::host::create(mod->apis, mod);
        default:
            return nullptr;
    }
}

switch_status_t switch_console_set_complete(const char* string) {
    auto& host = qv::host::current_host();
    if (!string || host.faults.on(qv::host::Fault::COMPLETION_FAILS)) {
        return SWITCH_STATUS_FALSE;
    }
    host.registry.add_completion(string);
    return SWITCH_STATUS_SUCCESS;
}
}
