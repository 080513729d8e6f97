#include "host/loader.h"

#include <dlfcn.h>
#include <link.h>

#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "host/code_address.h"
#include "host/parts.h"
#include "host/session.h"

namespace qv::host {
namespace {

// "mod_x" for "/a/b/mod_x.so".
std::string module_name(const std::string& path) {
    const std::string file = path.substr(path.find_last_of('/') + 1);
    return file.substr(0, file.find('.'));
}

std::string last_dl_error() {
    const char* text = dlerror();  // NOLINT(concurrency-mt-unsafe): one answer for each thread
    return text ? text : "unknown error of the dynamic linker";
}

// Runs a function of the module and turns an exception into text.
template <typename Function>
std::optional<switch_status_t> run_guarded(Function function,
                                           std::optional<std::string>& exception) {
    try {
        return function();
    } catch (const std::exception& thrown) {
        exception = thrown.what();
    } catch (const std::string& thrown) {
        exception = thrown;
    } catch (const char* thrown) {
        exception = thrown;
    } catch (...) {
        exception = "exception of an unknown type";
    }
    return std::nullopt;
}

bool loaded(switch_status_t status) {
    return status == SWITCH_STATUS_SUCCESS || status == SWITCH_STATUS_NOUNLOAD;
}

struct Search {
    const void* base;
    bool found;
};

int look_for_base(dl_phdr_info* info, std::size_t /*size*/, void* data) {
    auto& search = *static_cast<Search*>(data);
    const auto address = reinterpret_cast<std::uintptr_t>(search.base);
    search.found = search.found || info->dlpi_addr == address;
    return 0;
}

bool still_loaded(const void* base) {
    Search search{base, false};
    dl_iterate_phdr(look_for_base, &search);
    return search.found;
}

}  // namespace

struct Loader::Module {
    explicit Module(const std::string& given)
        : path(given.find('/') == std::string::npos ? "./" + given : given),
          name(module_name(given)) {}

    bool open(int visibility);

    const std::string path;
    const std::string name;
    fspr_pool_t pool;
    void* object = nullptr;
    const void* base = nullptr;
    const switch_loadable_module_function_table_t* table = nullptr;
    ModuleInterface* interface = nullptr;
    bool registered = false;
    bool shut_down = false;
    bool permanent = false;
};

// If it returns false, dlerror() has the reason.
bool Loader::Module::open(int visibility) {
    object = dlopen(path.c_str(), RTLD_NOW | visibility);
    if (!object) {
        return false;
    }
    const void* found = dlsym(object, (name + "_module_interface").c_str());
    if (!found) {
        return false;
    }
    table = static_cast<const switch_loadable_module_function_table_t*>(found);
    base = object_base(found);
    return true;
}

Loader::Loader() = default;
Loader::~Loader() = default;

LoadResult Loader::load(const std::string& path) {
    const LockGuard guard(lock_);
    auto module = std::make_unique<Module>(path);
    LoadResult result;
    result.name = module->name;
    if (modules_.count(module->name) > 0) {
        result.error = "module " + module->name + " is loaded already";
        return result;
    }
    run_load(*module, result);
    if (!result.error.empty()) {
        current_host().log.note(SWITCH_LOG_CRIT,
                                "cannot load module " + path + ": " + result.error);
        const Closed closed = close(*module);
        result.left_memory = closed.left_memory;
        result.bindings_dropped = closed.bindings_dropped;
        return result;
    }
    current_host().registry.add(*module->interface);
    module->registered = true;
    result.loaded = true;
    current_host().log.note(SWITCH_LOG_CONSOLE, "module " + module->name + " is loaded");
    modules_[result.name] = std::move(module);
    return result;
}

// Stores the reason of a failure in result.error.
void Loader::run_load(Module& module, LoadResult& result) {
    if (!module.open(RTLD_LOCAL)) {
        result.error = last_dl_error();
        return;
    }
    if (module.table->switch_api_version != SWITCH_API_VERSION) {
        result.error =
            "the module is for version " + std::to_string(module.table->switch_api_version) +
            " of the module interface, this host has version " + std::to_string(SWITCH_API_VERSION);
        return;
    }
    if (module.table->flags & SMODF_GLOBAL_SYMBOLS) {
        dlclose(module.object);
        if (!module.open(RTLD_GLOBAL)) {
            result.error = last_dl_error();
            return;
        }
    }
    if (!module.table->load) {
        result.error = "the module has no load function";
        return;
    }
    result.status =
        run_guarded([&module] { return module.table->load(&module.interface, &module.pool); },
                    result.exception);
    if (result.exception) {
        result.error = "the load function threw: " + *result.exception;
    } else if (!loaded(*result.status)) {
        result.error = "the load function returned " + std::to_string(*result.status);
    } else if (!module.interface) {
        result.error = "the load function created no module interface";
    }
    module.permanent = result.status == SWITCH_STATUS_NOUNLOAD;
}

// Drops the bugs and bindings of an object that is unmapped. An object that has opened
// itself once more stays mapped and keeps them; the host goes on calling them.
Loader::Closed Loader::close(Module& module) {
    Closed closed;
    auto& events = current_host().events;
    auto bindings =
        module.base ? events.take_bindings_of(module.base) : std::vector<EventBus::Binding>();
    SessionTable::Pause pause = current_host().sessions.pause_bugs();
    if (module.object) {
        dlclose(module.object);
    }
    closed.left_memory = !module.base || !still_loaded(module.base);
    if (!closed.left_memory) {
        events.put_back(std::move(bindings));
        return closed;
    }
    closed.bindings_dropped = bindings.size();
    for (MediaBugs::Pause& bugs : pause.bugs) {
        closed.bugs_dropped += bugs.drop_unmapped();
    }
    return closed;
}

UnloadResult Loader::shutdown(const std::string& name) {
    const LockGuard guard(lock_);
    UnloadResult result;
    const auto found = modules_.find(name);
    if (found == modules_.end()) {
        result.error = "no module " + name + " is loaded";
        return result;
    }
    Module& module = *found->second;
    if (module.permanent) {
        result.error = "module " + name + " does not allow to be unloaded";
        return result;
    }
    if (module.registered && !current_host().registry.remove(*module.interface)) {
        result.error = "module " + name + " is in use";
        return result;
    }
    module.registered = false;
    if (!module.shut_down && module.table->shutdown) {
        result.status = run_guarded(module.table->shutdown, result.exception);
    }
    module.shut_down = true;
    if (result.exception) {
        result.error = "the shutdown function threw: " + *result.exception;
    }
    return result;
}

UnloadResult Loader::unload(const std::string& name) {
    UnloadResult result = shutdown(name);
    if (!result.error.empty() && !result.exception) {
        return result;
    }
    const LockGuard guard(lock_);
    const auto found = modules_.find(name);
    if (found == modules_.end()) {
        return result;
    }
    Module& module = *found->second;
    if (result.status == SWITCH_STATUS_NOUNLOAD) {
        module.permanent = true;
        result.error = "module " + name + " does not allow to be unloaded";
        return result;
    }
    const Closed closed = close(module);
    result.left_memory = closed.left_memory;
    result.bindings_dropped = closed.bindings_dropped;
    result.bugs_dropped = closed.bugs_dropped;
    modules_.erase(found);
    result.unloaded = true;
    current_host().log.note(SWITCH_LOG_CONSOLE, "module " + name + " is unloaded");
    return result;
}

void Loader::unload_all() {
    std::vector<std::string> names;
    {
        const LockGuard guard(lock_);
        for (const auto& [name, module] : modules_) {
            names.push_back(name);
        }
    }
    for (const std::string& name : names) {
        unload(name);
    }
}

std::size_t Loader::modules() const {
    const LockGuard guard(lock_);
    return modules_.size();
}

}  // namespace qv::host
