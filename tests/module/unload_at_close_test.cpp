// The host unloads the module while the last tapped call ends: the call's context is no longer
// in the registry, but the handler has not returned yet.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <utility>

#include "tests/support/module_test.h"

namespace {

// Called once, when the next context is freed, on the thread that frees it.
std::function<void()> on_release;

}  // namespace

// Only contexts use the aligned operator delete: each of their directions has its own cache
// line.
__attribute__((visibility("default"))) void operator delete(void* memory, std::size_t /*size*/,
                                                            std::align_val_t /*a*/) noexcept {
    if (on_release) {
        std::exchange(on_release, nullptr)();
    }
    std::free(memory);
}

namespace qv::tests {

namespace {

class UnloadAtClose : public ModuleTest {};

TEST_F(UnloadAtClose, TheObjectStaysMappedUntilTheHandlerHasReturned) {
    load();
    const auto call = start_tapped_call();
    bool shut_down = false;
    on_release = [&] { shut_down = host.shutdown_module("mod_quorvane").error.empty(); };
    hangup(*call);
    ASSERT_TRUE(shut_down) << "the context was not given back, or not by itself";
    EXPECT_FALSE(unload().left_memory) << "the handler would have returned into nothing";

    load();
    EXPECT_TRUE(unload().left_memory);
}

}  // namespace

}  // namespace qv::tests
