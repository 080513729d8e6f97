// How the node connects to NATS: from the command line, and from a configuration file for
// what must not be in the list of processes. No state.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace qv::node {

struct EngineSettings {
    std::vector<std::string> urls;  // "nats://host:port" or "tls://host:port". Empty: no engine.
    std::string node;               // Name of this node in the headers. Empty: the host's name.
    int chunk_ms = 100;
    std::uint64_t queue_mib = 64;  // For events that wait, and as much for audio.
    std::string spool;             // Folder that keeps waiting events. Empty: none.
    bool audio = true;

    // From the file only.
    std::string user;
    std::string password;
    std::string token;
    std::string credentials;  // File with a user's JWT and seed.
    std::string nkey;         // Public key, and
    std::string seed;         // file with its seed.
    bool tls = false;
    std::string ca;  // Files.
    std::string certificate;
    std::string key;
    std::string server_name;  // That the server's certificate must have.
    int reconnect_ms = 1000;
    int ping_ms = 5000;
    bool create_stream = true;
    std::string stream = "quorvane-events";
    int replicas = 1;
    std::uint64_t stream_mib = 1024;
    double stream_hours = 7 * 24;
    double duplicates_s = 600;  // How long the server recognises an event that is sent again.
    double exit_wait_s = 10;
};

// Adds the URLs of a comma-separated list. Returns what is wrong with one, or an empty text. A URL
// with a user or a password is refused unless `secrets` allows them.
std::string add_urls(EngineSettings& settings, const std::string& list, bool secrets);

// Reads a file of `name = value` lines; # begins a comment. If `required` is false, the file may be
// missing. Values of the file leave alone what is set in `given`: the names that the command line
// has set already. Returns what is wrong, with the line, or an empty text.
std::string read_settings(EngineSettings& settings, const std::string& path, bool required,
                          const std::vector<std::string>& given);

// Returns the URL without user and password.
std::string plain_url(const std::string& url);

}  // namespace qv::node
