#include "fuzz/support/module_host.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include "fuzz/support/require.h"
#include "host/answer_stream.h"
#include "tools/private_config.h"

#ifndef QUORVANE_RELOCATED_MODULE
#error "QUORVANE_RELOCATED_MODULE must name the relocated module"
#endif

namespace {

std::vector<qv::fuzz::Datagram>& sent() {
    static auto* const datagrams = new std::vector<qv::fuzz::Datagram>;
    return *datagrams;
}

constexpr char CONFIGURATION[] =
    "media_node = 127.0.0.1:5000\n"
    "default_audio_activity = term::true\n";

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t sendto(int /*descriptor*/,
                                                                 const void* data, size_t size,
                                                                 int /*flags*/, const sockaddr* to,
                                                                 socklen_t /*to_size*/) {
    const auto* const bytes = static_cast<const std::uint8_t*>(data);
    qv::fuzz::Datagram datagram;
    std::memcpy(&datagram.to, to, sizeof(datagram.to));
    datagram.bytes.assign(bytes, bytes + size);
    sent().push_back(std::move(datagram));
    return static_cast<ssize_t>(size);
}

// Loads the module before the fuzzer runs the first input.
// NOLINTNEXTLINE(readability-identifier-naming): the name is the fuzzer's.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    qv::fuzz::ModuleHost::instance();
    return 0;
}

namespace qv::fuzz {

std::string Datagram::destination() const {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &to.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(to.sin_port));
}

ModuleHost& ModuleHost::instance() {
    // Never destroyed, because the fuzzer reads the module's counters until the process ends.
    static auto* const instance = new ModuleHost;
    return *instance;
}

ModuleHost::ModuleHost() {
    namespace fs = std::filesystem;
    const fs::path before = fs::current_path();
    std::string folder = (fs::temp_directory_path() / "quorvane_fuzz_XXXXXX").string();
    require(::mkdtemp(folder.data()) != nullptr, "a folder for the configuration can be made");
    if (const auto error = tools::use_relocated_config(folder, CONFIGURATION)) {
        fail(*error);
    }
    const host::LoadResult loaded = host_.load_module(QUORVANE_RELOCATED_MODULE);
    fs::current_path(before);
    fs::remove_all(folder);
    if (!loaded.loaded) {
        fail(loaded.error);
    }
    host_.log().set_recording(false);
    host_.log().set_listener([this](const host::LogLine& line) {
        constexpr char prefix[] = "[quorvane]: ";
        if (!line.by_host) {
            require(line.format == "[quorvane]: %s\n", "a line's text is an argument");
            lines_.push_back(line.text.substr(std::strlen(prefix)));
            lines_.back().pop_back();
        }
    });
}

std::string ModuleHost::api(const std::string& arguments) {
    host::AnswerStream stream;
    const switch_status_t status =
        host_.call_api("quorvane", arguments.c_str(), nullptr, stream.get());
    require_equal("status", static_cast<int>(status), static_cast<int>(SWITCH_STATUS_SUCCESS));
    return stream.text();
}

std::vector<std::string> ModuleHost::take_lines() {
    return std::exchange(lines_, {});
}

std::vector<Datagram> ModuleHost::take_datagrams() {
    return std::exchange(sent(), {});
}

void ModuleHost::require_clean() const {
    const host::Report report = host_.report();
    require_equal("sessions alive", report.sessions_alive, 0u);
    require_equal("read locks held", report.read_locks_held, 0u);
    require_equal("unlocks without lock", report.unlocks_without_lock, 0u);
    require_equal("sessions destroyed locked", report.sessions_destroyed_locked, 0u);
    require_equal("bugs attached", report.bugs_attached, 0u);
    require_equal("frames altered", report.frames_altered, 0u);
    require_equal("API calls inside", report.api_calls_inside, 0u);
}

}  // namespace qv::fuzz
