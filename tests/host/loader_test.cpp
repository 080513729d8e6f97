#include "host/loader.h"

#include <dlfcn.h>

#include <chrono>
#include <thread>

#include "tests/host/host_fixture.h"

namespace qv::host {
namespace {

using Lines = std::vector<std::string>;

class LoaderTest : public HostTest {};

TEST_F(LoaderTest, LoadRunsBetweenConstructionAndRegistration) {
    const LoadResult result = host_.load_module(probe_path("mod_probe"));
    EXPECT_TRUE(result.loaded);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.name, "mod_probe");
    EXPECT_EQ(result.status, SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(said(), (Lines{"constructed", "loading"}));
    EXPECT_EQ(host_.report().modules_loaded, 1u);
}

TEST_F(LoaderTest, WhatAModuleOffersIsRegistered) {
    load_probe();
    ASSERT_EQ(host_.applications().size(), 1u);
    EXPECT_EQ(host_.applications()[0].name, "probe");
    EXPECT_EQ(host_.applications()[0].short_desc, "short");
    EXPECT_EQ(host_.applications()[0].long_desc, "long");
    EXPECT_EQ(host_.applications()[0].syntax, "[text]");
    ASSERT_EQ(host_.apis().size(), 1u);
    EXPECT_EQ(host_.apis()[0].desc, "tries out the host");
    EXPECT_EQ(host_.completions(), (Lines{"add probe wait", "add probe fail"}));
    EXPECT_EQ(host_.report().bindings_alive, 1u);
}

TEST_F(LoaderTest, UnloadShutsDownAndTakesTheObjectOutOfMemory) {
    load_probe();
    const UnloadResult result = host_.unload_module("mod_probe");
    EXPECT_TRUE(result.unloaded) << result.error;
    EXPECT_EQ(result.status, SWITCH_STATUS_SUCCESS);
    EXPECT_TRUE(result.left_memory);
    EXPECT_EQ(result.bindings_dropped, 0u);
    EXPECT_EQ(said(), (Lines{"constructed", "loading", "shutting down", "destroyed"}));
    EXPECT_TRUE(host_.applications().empty());
    EXPECT_TRUE(host_.apis().empty());
    EXPECT_EQ(host_.report().bindings_alive, 0u);
}

TEST_F(LoaderTest, AModuleCanBeLoadedAgain) {
    load_probe();
    host_.unload_module("mod_probe");
    host_.log().clear();
    load_probe();
    EXPECT_EQ(said(), (Lines{"constructed", "loading"}));
}

TEST_F(LoaderTest, ALoadedModuleIsNotLoadedTwice) {
    load_probe();
    const LoadResult result = host_.load_module(probe_path("mod_probe"));
    EXPECT_FALSE(result.loaded);
    EXPECT_EQ(result.error, "module mod_probe is loaded already");
}

TEST_F(LoaderTest, AFailedLoadIsClosedWithoutAShutdown) {
    const LoadResult result = host_.load_module(probe_path("mod_probe_term"));
    EXPECT_FALSE(result.loaded);
    EXPECT_EQ(result.status, SWITCH_STATUS_TERM);
    EXPECT_EQ(result.error, "the load function returned 21");
    EXPECT_TRUE(result.left_memory);
    EXPECT_EQ(said(), (Lines{"constructed", "loading", "destroyed"}));
    EXPECT_TRUE(host_.applications().empty());
}

TEST_F(LoaderTest, BindingsOfAFailedLoadAreDropped) {
    const LoadResult result = host_.load_module(probe_path("mod_probe_term"));
    EXPECT_EQ(result.bindings_dropped, 1u);
    EXPECT_EQ(host_.report().bindings_alive, 0u);
    host_.start_call()->hangup();
    host_.events().wait_drained();
}

TEST_F(LoaderTest, AnExceptionThatLeavesTheLoadFunctionIsReported) {
    const LoadResult result = host_.load_module(probe_path("mod_probe_throws"));
    EXPECT_FALSE(result.loaded);
    EXPECT_FALSE(result.status);
    EXPECT_EQ(result.exception, "no wish to load");
    EXPECT_EQ(result.error, "the load function threw: no wish to load");
    EXPECT_TRUE(result.left_memory);
}

TEST_F(LoaderTest, AModuleOfAnotherInterfaceVersionIsNotRun) {
    const LoadResult result = host_.load_module(probe_path("mod_probe_old"));
    EXPECT_FALSE(result.loaded);
    EXPECT_EQ(result.error,
              "the module is for version 4 of the module interface, this host has version 5");
    EXPECT_EQ(said(), (Lines{"constructed", "destroyed"}));
}

TEST_F(LoaderTest, AModuleWithoutALoadFunctionIsRefused) {
    EXPECT_EQ(host_.load_module(probe_path("mod_probe_no_load")).error,
              "the module has no load function");
}

TEST_F(LoaderTest, AModuleThatCreatesNoInterfaceIsRefused) {
    EXPECT_EQ(host_.load_module(probe_path("mod_probe_no_interface")).error,
              "the load function created no module interface");
}

TEST_F(LoaderTest, AMissingFileIsNamed) {
    const LoadResult result = host_.load_module("/nowhere/mod_probe.so");
    EXPECT_FALSE(result.loaded);
    EXPECT_NE(result.error.find("/nowhere/mod_probe.so"), std::string::npos) << result.error;
}

TEST_F(LoaderTest, AnObjectWithoutTheTableIsRefused) {
    const LoadResult result = host_.load_module(probe_path("mod_probe_misnamed"));
    EXPECT_FALSE(result.loaded);
    EXPECT_NE(result.error.find("mod_probe_misnamed_module_interface"), std::string::npos)
        << result.error;
    EXPECT_EQ(said(), (Lines{"constructed", "destroyed"}));
}

TEST_F(LoaderTest, UnloadIsRefusedWhileAnApiCommandRuns) {
    load_probe();
    std::thread api([this] { host_.api("probe wait"); });
    while (host_.report().api_calls_inside == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const UnloadResult refused = host_.unload_module("mod_probe");
    api.join();
    EXPECT_FALSE(refused.unloaded);
    EXPECT_EQ(refused.error, "module mod_probe is in use");
    EXPECT_TRUE(host_.unload_module("mod_probe").unloaded);
}

TEST_F(LoaderTest, BugsOfAnUnloadedModuleGoWithoutAClose) {
    load_probe();
    const auto call = host_.start_call();
    call->execute("probe");
    const UnloadResult result = host_.unload_module("mod_probe");
    EXPECT_EQ(result.bugs_dropped, 1u);
    EXPECT_EQ(feed(*call, Direction::READ, {1, 2}).bugs, 0u);
    call->hangup();
    EXPECT_EQ(host_.report().bugs_attached, 0u);
    EXPECT_EQ(host_.report().bugs_closed, 0u);
}

// The object is also opened elsewhere, so it stays mapped. Like the real host, this one keeps the
// object's bugs and bindings and continues to call them.
class LastingObject {
  public:
    explicit LastingObject(const std::string& path) : object_(dlopen(path.c_str(), RTLD_NOW)) {}
    ~LastingObject() { dlclose(object_); }
    LastingObject(const LastingObject&) = delete;
    LastingObject& operator=(const LastingObject&) = delete;

  private:
    void* object_;
};

TEST_F(LoaderTest, BugsOfAnUnloadedModuleThatStaysMappedGoOn) {
    const LastingObject lasting(probe_path("mod_probe"));
    load_probe();
    const auto call = host_.start_call();
    call->execute("probe");
    const UnloadResult result = host_.unload_module("mod_probe");
    EXPECT_TRUE(result.unloaded);
    EXPECT_FALSE(result.left_memory);
    EXPECT_EQ(result.bugs_dropped, 0u);
    EXPECT_EQ(feed(*call, Direction::READ, {1, 2}).bugs, 1u);
    call->hangup();
    EXPECT_EQ(host_.report().bugs_closed, 1u);
}

TEST_F(LoaderTest, BindingsOfAFailedLoadThatStaysMappedGoOn) {
    const LastingObject lasting(probe_path("mod_probe_term"));
    const LoadResult result = host_.load_module(probe_path("mod_probe_term"));
    EXPECT_FALSE(result.left_memory);
    EXPECT_EQ(result.bindings_dropped, 0u);
    const auto call = host_.start_call();
    call->hangup();
    host_.events().wait_drained();
    EXPECT_EQ(said().back(), "destroy event of " + call->uuid());
    EXPECT_EQ(host_.report().bindings_alive, 1u);
}

TEST_F(LoaderTest, ShutdownAloneLeavesTheBugsAttached) {
    load_probe();
    const auto call = host_.start_call();
    call->execute("probe");
    EXPECT_EQ(host_.shutdown_module("mod_probe").status, SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(feed(*call, Direction::READ, {1, 2}).bugs, 1u);
    EXPECT_FALSE(call->execute("probe"));
    call->hangup();
    EXPECT_TRUE(host_.unload_module("mod_probe").unloaded);
    EXPECT_EQ(host_.log().count("shutting down"), 1u);
}

TEST_F(LoaderTest, UnloadOfAnUnknownModuleIsRefused) {
    EXPECT_EQ(host_.unload_module("mod_nothing").error, "no module mod_nothing is loaded");
}

TEST_F(LoaderTest, OnlyOneHostExistsAtATime) {
    EXPECT_THROW(EmbeddedHost second, std::logic_error);
}

}  // namespace
}  // namespace qv::host
