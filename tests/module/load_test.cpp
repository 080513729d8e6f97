// Load and shutdown of the complete module, in every order and with every failure.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <regex>
#include <string>

#include "host/registry.h"
#include "tests/support/module_test.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

using host::Fault;

constexpr const char* BUILD_VERSION =
    R"(NOTICE log mod_quorvane\.cpp:mod_quorvane_load build version: )"
    R"("[0-9]{6}:[0-9]{6} [0-9a-f]{16}@[a-z]+")";

std::string config_line(const std::string& text, const std::string& level = "NOTICE") {
    return level + " log conf_configuration.cpp:- CONFIGURATION: " + text;
}

std::string load_line(const std::string& text, const std::string& level = "NOTICE") {
    return level + " log mod_quorvane.cpp:mod_quorvane_load " + text;
}

const std::string READING = config_line(std::string("reading from file [") + CONFIG_PATH + "]");
const std::string CONFIG_FAILED =
    load_line(std::string("failed to load config file [") + CONFIG_PATH + "]", "ERROR");

class ModuleLoad : public ModuleTest {
  protected:
    // The lines after the first one, which must have the build version.
    Lines take_load_log() {
        Lines lines = take_log();
        if (lines.empty() || !std::regex_match(lines.front(), std::regex(BUILD_VERSION))) {
            ADD_FAILURE() << "the first line does not tell the build: "
                          << (lines.empty() ? "there is none" : lines.front());
            return lines;
        }
        lines.erase(lines.begin());
        return lines;
    }

    static void expect_refused(const host::LoadResult& result) {
        EXPECT_FALSE(result.loaded);
        EXPECT_EQ(result.status, SWITCH_STATUS_TERM);
    }
};

// ---- success ----------------------------------------------------------------------

TEST_F(ModuleLoad, WritesALineForEachStepInOrder) {
    configure("log_level=INFO\nmedia_node=192.0.2.1:4000\n# nothing\nfoo=1\n");
    const host::LoadResult result = try_load();
    EXPECT_TRUE(result.loaded) << result.error;
    EXPECT_EQ(result.status, SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(
        take_load_log(),
        (Lines{READING, config_line("option [log_level] is set to [INFO]"),
               config_line("option [media_node] is set to [192.0.2.1:4000]"),
               config_line("option [foo] is unknown", "WARNING"), load_line("configuration loaded"),
               load_line("transfer socket opened"), load_line("module has been loaded")}));
}

TEST_F(ModuleLoad, EmptyFileLoadsWithTheDefaults) {
    configure("");
    EXPECT_TRUE(try_load().loaded);
    EXPECT_EQ(take_load_log(),
              (Lines{READING, load_line("configuration loaded"),
                     load_line("transfer socket opened"), load_line("module has been loaded")}));
    EXPECT_EQ(api("media_node"), "127.0.0.1:0\n");
    EXPECT_EQ(api("dump_events"), "none\n");
    EXPECT_EQ(api("default_audio_activity"), "\n");
    EXPECT_EQ(api("default_detection"), "\n");
}

// Every level that the file can set admits notices and more severe lines.
TEST_F(ModuleLoad, LevelErrorLoadsAndStillTellsTheBuildAndTheSteps) {
    configure("log_level=ERROR\n");
    EXPECT_TRUE(try_load().loaded);
    EXPECT_EQ(take_load_log(),
              (Lines{READING, config_line("option [log_level] is set to [ERROR]"),
                     load_line("configuration loaded"), load_line("transfer socket opened"),
                     load_line("module has been loaded")}));
}

TEST_F(ModuleLoad, LevelOfTheFileRulesFromThenOn) {
    load("log_level=ERROR\n");
    const auto call = start_call({{"sip_call_id", "x"}});
    call->execute("quorvane");
    EXPECT_EQ(take_log(), (Lines{session_line("NOTICE", "execute_quorvane_app",
                                              std::string("app context added, id: ") + KEY)}));
}

// The default level still applies while the file is read.
TEST_F(ModuleLoad, LevelOfTheFileDoesNotSilenceTheFilesOwnWarnings) {
    configure("log_level=ERROR\nfoo=1\n");
    EXPECT_TRUE(try_load().loaded);
    EXPECT_TRUE(host.log().contains("option [foo] is unknown"));
}

TEST_F(ModuleLoad, ApplicationHasItsTexts) {
    load();
    ASSERT_EQ(host.applications().size(), 1U);
    const host::ApplicationInfo application = host.applications().front();
    EXPECT_EQ(application.name, "quorvane");
    EXPECT_EQ(application.short_desc, "Start quorvane detection");
    EXPECT_EQ(application.long_desc, "Start quorvane detection on the corresponding session");
    EXPECT_EQ(application.syntax, "");
    EXPECT_EQ(application.flags, 0U);
}

// The syntax text keeps its misspelling.
TEST_F(ModuleLoad, ApiHasItsTexts) {
    load();
    ASSERT_EQ(host.apis().size(), 1U);
    const host::ApiInfo info = host.apis().front();
    EXPECT_EQ(info.name, "quorvane");
    EXPECT_EQ(info.desc, "quorvane analyzes and detection");
    EXPECT_EQ(info.syntax,
              "version|dump_events|media_node|default_audio_activity|default_detection || <uuid> "
              "audio_acttivity|detection|features");
}

TEST_F(ModuleLoad, CompletionsAreRegisteredInOrder) {
    load();
    EXPECT_EQ(host.completions(),
              (std::vector<std::string>{
                  "add quorvane version", "add quorvane dump_events", "add quorvane media_node",
                  "add quorvane default_audio_activity", "add quorvane default_detection",
                  "add quorvane ::console::list_uuid features",
                  "add quorvane ::console::list_uuid audio_activity ::[start:stop "
                  "::[both:orig:originator:term:terminator",
                  "add quorvane ::console::list_uuid detection ::[start:stop "
                  "::[both:orig:originator:term:terminator"}));
}

TEST_F(ModuleLoad, CompletionsThatTheHostRefusesDoNotStopTheLoad) {
    host.faults().set(Fault::COMPLETION_FAILS);
    configure("");
    EXPECT_TRUE(try_load().loaded);
}

TEST_F(ModuleLoad, WithoutDumpsOnlyChannelDestroyIsBound) {
    load();
    EXPECT_EQ(host.report().bindings_alive, 1U);
    EXPECT_TRUE(host.events().wanted(SWITCH_EVENT_CHANNEL_DESTROY));
    EXPECT_FALSE(host.events().wanted(SWITCH_EVENT_CHANNEL_CREATE));
    host.shutdown_module("mod_quorvane");
    EXPECT_EQ(host.report().bindings_alive, 0U);
}

TEST_F(ModuleLoad, EveryDumpModeBindsAllEvents) {
    for (const char* option :
         {"dump_events", "dump_events=all", "dump_events=channel", "dump_events=channel-short"}) {
        load(std::string(option) + "\n");
        EXPECT_EQ(host.report().bindings_alive, 2U) << option;
        EXPECT_TRUE(host.events().wanted(SWITCH_EVENT_HEARTBEAT)) << option;
        unload();
        EXPECT_EQ(host.report().bindings_alive, 0U) << option;
    }
}

TEST_F(ModuleLoad, SocketIsBoundToAnyAddressAndPort) {
    SystemCalls calls;
    load();
    ASSERT_EQ(calls.seen("bind").size(), 1U);
    EXPECT_EQ(calls.seen("bind").front().text, "0.0.0.0:0");
}

// ---- failure ----------------------------------------------------------------------

TEST_F(ModuleLoad, MissingFileFailsTheLoad) {
    const SystemCalls calls;
    const host::LoadResult result = try_load();
    expect_refused(result);
    EXPECT_EQ(take_load_log(),
              (Lines{config_line(std::string("failed to open file [") + CONFIG_PATH + "]", "ERROR"),
                     CONFIG_FAILED}));
    EXPECT_TRUE(calls.seen("socket").empty());
    EXPECT_TRUE(result.left_memory);
}

TEST_F(ModuleLoad, MalformedLineFailsTheLoad) {
    configure("media_node=127.0.0.1:1\na=b=c\ndump_events\n");
    expect_refused(try_load());
    EXPECT_EQ(take_load_log(),
              (Lines{READING, config_line("option [media_node] is set to [127.0.0.1:1]"),
                     config_line("incorrect option format at line 1: \"a=b=c\"", "ERROR"),
                     CONFIG_FAILED}));
}

TEST_F(ModuleLoad, BadValueFailsTheLoad) {
    configure("log_level=debug\n");
    expect_refused(try_load());
    EXPECT_EQ(take_load_log(),
              (Lines{READING,
                     config_line("failed to set option [log_level] to [debug]: unexpected value "
                                 "format",
                                 "ERROR"),
                     CONFIG_FAILED}));
}

TEST_F(ModuleLoad, LevelSystemThrows) {
    configure("log_level=SYSTEM\n");
    const SystemCalls calls;
    const host::LoadResult result = try_load();
    EXPECT_FALSE(result.loaded);
    EXPECT_FALSE(result.status.has_value());
    EXPECT_EQ(result.exception, "impossible to set log level stricter than 'error' level");
    EXPECT_EQ(take_load_log(),
              (Lines{READING, config_line("option [log_level] is set to [SYSTEM]")}));
    EXPECT_TRUE(calls.seen("socket").empty());
}

TEST_F(ModuleLoad, SocketThatCannotBeCreatedFailsTheLoad) {
    configure("");
    SystemCalls calls;
    calls.next("socket", Outcome::fail(EMFILE));
    expect_refused(try_load());
    EXPECT_EQ(take_load_log(),
              (Lines{READING, load_line("configuration loaded"),
                     "ERROR log net_socket.cpp:- SOCKET[ ]: failed to create a socket, error "
                     "(24): Too many open files"}));
    EXPECT_TRUE(host.completions().empty());
    EXPECT_EQ(host.report().bindings_alive, 0U);
}

TEST_F(ModuleLoad, SocketThatCannotBeBoundFailsTheLoad) {
    configure("");
    SystemCalls calls;
    calls.next("bind", Outcome::fail(EADDRINUSE));
    expect_refused(try_load());
    const std::string descriptor = std::to_string(calls.seen("socket").front().result);
    EXPECT_EQ(take_load_log(),
              (Lines{READING, load_line("configuration loaded"),
                     "ERROR log net_socket.cpp:- SOCKET[" + descriptor +
                         "]: failed to bind a socket, error (98): Address already in use"}));
}

TEST_F(ModuleLoad, FailedBindingOfChannelDestroyFailsTheLoad) {
    configure("dump_events=all\n");
    host.faults().set(Fault::BIND_CHANNEL_DESTROY_FAILS);
    const host::LoadResult result = try_load();
    expect_refused(result);
    const Lines lines = take_load_log();
    EXPECT_EQ(lines.back(),
              load_line("RAW [quorvane]: couldn't bind channel destroy event hook!\n", "ERROR"));
    EXPECT_EQ(lines[lines.size() - 2], load_line("transfer socket opened"));
    EXPECT_EQ(result.bindings_dropped, 0U);
    EXPECT_TRUE(result.left_memory);
}

TEST_F(ModuleLoad, FailedBindingOfTheDumpFailsTheLoadAndLeavesTheOtherBound) {
    configure("dump_events=channel\n");
    host.faults().set(Fault::BIND_ALL_FAILS);
    const host::LoadResult result = try_load();
    expect_refused(result);
    EXPECT_EQ(take_load_log().back(),
              load_line("RAW [quorvane]: couldn't bind event hook!\n", "ERROR"));
    // The hook points into the shared object, which therefore stays mapped.
    EXPECT_FALSE(result.left_memory);
}

TEST_F(ModuleLoad, LineOfAFailedBindingIsTheFormatItself) {
    configure("");
    host.faults().set(Fault::BIND_CHANNEL_DESTROY_FAILS);
    try_load();
    EXPECT_EQ(host.log().lines().back().format,
              "[quorvane]: couldn't bind channel destroy event hook!\n");
}

TEST_F(ModuleLoad, LoadSucceedsOnceTheFaultIsGone) {
    configure("dump_events=all\n");
    for (const Fault fault : {Fault::BIND_CHANNEL_DESTROY_FAILS, Fault::BIND_ALL_FAILS}) {
        host.faults().set(fault);
        EXPECT_FALSE(try_load().loaded);
        host.faults().clear();
        EXPECT_TRUE(try_load().loaded);
        EXPECT_EQ(host.report().bindings_alive, 2U);
        EXPECT_TRUE(unload().left_memory);
    }
}

// ---- without the host's loader ----------------------------------------------------

// Opens the module and calls its functions directly, so that a test can check what a failed
// load leaves behind before the object is closed.
class LoadByHand : public ModuleLoad {
  protected:
    LoadByHand() {
        object_ = ::dlopen(QUORVANE_RELOCATED_MODULE, RTLD_NOW | RTLD_LOCAL);
        table = static_cast<switch_loadable_module_function_table_t*>(
            ::dlsym(object_, "mod_quorvane_module_interface"));
    }
    ~LoadByHand() override {
        table->shutdown();
        ::dlclose(object_);
    }

    switch_status_t call_load() { return table->load(&interface, &pool); }

    switch_loadable_module_function_table_t* table = nullptr;
    switch_loadable_module_interface_t* interface = nullptr;
    fspr_pool_t pool;

  private:
    void* object_ = nullptr;
};

TEST_F(LoadByHand, TableIsFilledStatically) {
    EXPECT_EQ(table->switch_api_version, 5);
    EXPECT_NE(table->load, nullptr);
    EXPECT_NE(table->shutdown, nullptr);
    EXPECT_EQ(table->runtime, nullptr);
    EXPECT_EQ(table->flags, 0U);
}

TEST_F(LoadByHand, ModuleInterfaceIsNamedAfterTheModule) {
    configure("");
    ASSERT_EQ(call_load(), SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(interface->name, "mod_quorvane");
    EXPECT_EQ(interface->applications.size(), 1U);
    EXPECT_EQ(interface->apis.size(), 1U);
}

TEST_F(LoadByHand, LevelSystemThrowsAString) {
    configure("log_level=SYSTEM\n");
    try {
        call_load();
        FAIL() << "nothing was thrown";
    } catch (const std::string& text) {
        EXPECT_EQ(text, "impossible to set log level stricter than 'error' level");
    }
    EXPECT_EQ(interface, nullptr);
}

TEST_F(LoadByHand, FailedFirstBindingUndoesNothing) {
    configure("");
    const SystemCalls calls;
    host.faults().set(Fault::BIND_CHANNEL_DESTROY_FAILS);
    EXPECT_EQ(call_load(), SWITCH_STATUS_TERM);
    ASSERT_NE(interface, nullptr);
    EXPECT_EQ(interface->applications.size(), 1U);
    EXPECT_EQ(interface->apis.size(), 1U);
    EXPECT_EQ(host.completions().size(), 8U);
    EXPECT_TRUE(calls.seen("close").empty());
}

TEST_F(LoadByHand, FailedSecondBindingUndoesNothing) {
    configure("dump_events=all\n");
    const SystemCalls calls;
    host.faults().set(Fault::BIND_ALL_FAILS);
    EXPECT_EQ(call_load(), SWITCH_STATUS_TERM);
    EXPECT_EQ(host.report().bindings_alive, 1U);
    EXPECT_TRUE(host.events().wanted(SWITCH_EVENT_CHANNEL_DESTROY));
    EXPECT_TRUE(calls.seen("close").empty());
}

TEST_F(LoadByHand, ShutdownAfterAFailedSocketIsHarmless) {
    configure("");
    SystemCalls calls;
    calls.next("socket", Outcome::fail(EMFILE));
    EXPECT_EQ(call_load(), SWITCH_STATUS_TERM);
    take_log();
    EXPECT_EQ(table->shutdown(), SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(take_log(), (Lines{"NOTICE log mod_quorvane.cpp:mod_quorvane_shutdown module has "
                                 "been shutdown"}));
    EXPECT_TRUE(calls.seen("close").empty());
}

// A later load replaces the hook that a failed load left, so that there are not two of it.
TEST_F(LoadByHand, LoadAfterAFailedSecondBindingLeavesTwoBindings) {
    configure("dump_events=all\n");
    host.faults().set(Fault::BIND_ALL_FAILS);
    EXPECT_EQ(call_load(), SWITCH_STATUS_TERM);
    host.faults().clear();
    EXPECT_EQ(call_load(), SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(host.report().bindings_alive, 2U);
}

// The socket keeps its descriptor after a failed bind, so the next load finds it open.
TEST_F(LoadByHand, LoadAfterAFailedBindOfTheSocketTakesTheSocketThatIsThere) {
    configure("");
    SystemCalls calls;
    calls.next("bind", Outcome::fail(EADDRINUSE));
    EXPECT_EQ(call_load(), SWITCH_STATUS_TERM);
    EXPECT_EQ(call_load(), SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(calls.seen("socket").size(), 1U);
    EXPECT_EQ(calls.seen("bind").size(), 1U);
}

// ---- shutdown ---------------------------------------------------------------------

TEST_F(ModuleLoad, ShutdownClosesTheSocketAndUnbindsBothHooks) {
    SystemCalls calls;
    load("dump_events=all\n");
    const long descriptor = calls.seen("socket").front().result;
    const host::UnloadResult result = host.shutdown_module("mod_quorvane");
    EXPECT_EQ(result.status, SWITCH_STATUS_SUCCESS);
    ASSERT_EQ(calls.seen("close").size(), 1U);
    EXPECT_EQ(calls.seen("close").front().numbers, (std::vector<long>{descriptor}));
    EXPECT_EQ(host.report().bindings_alive, 0U);
}

TEST_F(ModuleLoad, ShutdownSendsNothingAndLeavesTheCallsBug) {
    load();
    const auto call = start_tapped_call();
    host.shutdown_module("mod_quorvane");
    EXPECT_TRUE(node.receive_all().empty());
    EXPECT_EQ(call->bugs().size(), 1U);
    EXPECT_EQ(take_log(), (Lines{"NOTICE log mod_quorvane.cpp:mod_quorvane_shutdown module has "
                                 "been shutdown"}));
}

TEST_F(ModuleLoad, UnloadAsksForShutdownOnceAndLeavesMemory) {
    load();
    const host::UnloadResult result = unload();
    EXPECT_TRUE(result.unloaded) << result.error;
    EXPECT_EQ(result.status, SWITCH_STATUS_SUCCESS);
    EXPECT_TRUE(result.left_memory);
    EXPECT_EQ(result.bindings_dropped, 0U);
    EXPECT_EQ(take_log(), (Lines{"NOTICE log mod_quorvane.cpp:mod_quorvane_shutdown module has "
                                 "been shutdown"}));
}

}  // namespace

}  // namespace qv::tests
