// The fixture for tests of the whole module: the built mod_quorvane.so in an embedded host, its
// configuration in a temporary folder, and a media node.
//
// The module is the build that reads etc/delmaren/quorvane/freeswitch_mod.conf under the
// current directory; the fixture makes a temporary folder the current one.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/embedded_host.h"
#include "tests/support/log_text.h"
#include "tests/support/media_node.h"

#ifndef QUORVANE_RELOCATED_MODULE
#error "QUORVANE_RELOCATED_MODULE must name the module under test"
#endif

namespace qv::tests {

// A call of the golden datagrams, and its key.
constexpr const char* UUID = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37";
constexpr const char* KEY = "3813542450166248352";  // 0x34ec6ca7460833a0

constexpr const char* CONFIG_PATH = "etc/delmaren/quorvane/freeswitch_mod.conf";

// Makes a new folder the current directory, and removes it at the end.
class TemporaryFolder {
  public:
    TemporaryFolder() : before_(std::filesystem::current_path()) {
        std::string pattern = std::filesystem::temp_directory_path() / "quorvane-test-XXXXXX";
        folder_ = ::mkdtemp(pattern.data());
        std::filesystem::current_path(folder_);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(folder_);
    }

  private:
    const std::filesystem::path before_;
    std::filesystem::path folder_;
};

class ModuleTest : public ::testing::Test {
  protected:
    using Variables = std::map<std::string, std::string>;

    // Checks that the module has released everything.
    void TearDown() override {
        const host::Report report = host.report();
        EXPECT_EQ(report.read_locks_held, 0U);
        EXPECT_EQ(report.unlocks_without_lock, 0U);
        EXPECT_EQ(report.sessions_destroyed_locked, 0U);
        EXPECT_EQ(report.frames_altered, 0U);
    }

    // Writes the module's configuration file.
    static void configure(const std::string& text) {
        const std::filesystem::path path = CONFIG_PATH;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }

    // Loads the module with the present configuration file.
    host::LoadResult try_load() { return host.load_module(QUORVANE_RELOCATED_MODULE); }

    // Loads the module with the test's media node and `options`, and clears the log.
    void load(const std::string& options = "") {
        configure("media_node=" + node.address() + "\n" + options);
        const host::LoadResult result = try_load();
        ASSERT_TRUE(result.loaded) << result.error;
        host.log().clear();
    }

    host::UnloadResult unload() { return host.unload_module("mod_quorvane"); }

    std::unique_ptr<host::Call> start_call(Variables variables = {}) {
        host::CallOptions options;
        options.variables = std::move(variables);
        return start_call_as(std::move(options));
    }
    std::unique_ptr<host::Call> start_call_as(host::CallOptions options) {
        if (options.uuid.empty()) {
            options.uuid = UUID;
        }
        return host.start_call(std::move(options));
    }

    // Starts a call that has run the application; clears the log and the node.
    std::unique_ptr<host::Call> start_tapped_call(Variables variables = {}) {
        auto call = start_call(std::move(variables));
        EXPECT_TRUE(call->execute("quorvane"));
        EXPECT_EQ(field(node.receive(), 4, 1), "81") << "no start packet";
        host.log().clear();
        return call;
    }

    // Hangs up and waits until the module has handled the hang-up.
    void hangup(host::Call& call) {
        call.hangup();
        host.events().wait_drained();
    }

    std::string api(const std::string& words) { return host.api("quorvane " + words).text; }
    std::string call_api(const std::string& words) { return api(std::string(UUID) + " " + words); }

    // The lines that the module has logged since the last call.
    Lines take_log() {
        Lines texts;
        for (const host::LogLine& line : host.log().lines()) {
            texts.push_back(to_text(line));
        }
        host.log().clear();
        return texts;
    }

    // "LEVEL session UUID mod_quorvane.cpp:FUNCTION TEXT" for the usual call.
    static std::string session_line(const std::string& level, const std::string& function,
                                    const std::string& text,
                                    const std::string& file = "mod_quorvane.cpp") {
        return level + " session " + UUID + " " + file + ":" + function + " " + text;
    }

    TemporaryFolder folder;
    MediaNode node;
    host::EmbeddedHost host;
};

}  // namespace qv::tests
