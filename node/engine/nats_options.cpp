#include "node/engine/nats_options.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

namespace qv::node::nats {

namespace {

// Sets options until the first that is refused.
class Setter {
  public:
    Setter(natsOptions* options, const EngineSettings& settings)
        : options_(options), settings_(settings) {}

    // Returns what was refused, or an empty text.
    std::string set_all() {
        set_servers();
        set_credentials();
        set_tls();
        return error_;
    }

  private:
    void set(natsStatus result, const std::string& what) {
        if (error_.empty() && result != NATS_OK) {
            error_ = what + ": " + text_of(result);
        }
    }

    // The library reads the file when it connects, which is too late for a mistake.
    bool readable(const std::string& path, const std::string& what) {
        const bool can = access(path.c_str(), R_OK) == 0;
        set(can ? NATS_OK : NATS_NOT_FOUND, what + ' ' + path);
        return can;
    }

    void set_servers() {
        std::vector<const char*> urls;
        for (const std::string& url : settings_.urls) {
            urls.push_back(url.c_str());
        }
        set(natsOptions_SetServers(options_, urls.data(), static_cast<int>(urls.size())), "url");
        set(natsOptions_SetName(options_, ("quorvane-node " + settings_.node).c_str()), "node");
        set(natsOptions_SetAllowReconnect(options_, true), "reconnect");
        set(natsOptions_SetMaxReconnect(options_, -1), "reconnect");
        set(natsOptions_SetReconnectWait(options_, settings_.reconnect_ms), "reconnect");
        set(natsOptions_SetTimeout(options_, REQUEST_MS), "timeout");
        set(natsOptions_SetPingInterval(options_, settings_.ping_ms), "ping");
        set(natsOptions_SetWriteDeadline(options_, REQUEST_MS), "write deadline");
    }

    void set_credentials() {
        if (!settings_.user.empty()) {
            set(natsOptions_SetUserInfo(options_, settings_.user.c_str(),
                                        settings_.password.c_str()),
                "user");
        }
        if (!settings_.token.empty()) {
            set(natsOptions_SetToken(options_, settings_.token.c_str()), "token");
        }
        if (!settings_.credentials.empty() && readable(settings_.credentials, "credentials")) {
            set(natsOptions_SetUserCredentialsFromFiles(options_, settings_.credentials.c_str(),
                                                        nullptr),
                "credentials " + settings_.credentials);
        }
        if (!settings_.nkey.empty() && readable(settings_.seed, "seed")) {
            set(natsOptions_SetNKeyFromSeed(options_, settings_.nkey.c_str(),
                                            settings_.seed.c_str()),
                "seed " + settings_.seed);
        }
    }

    void set_tls() {
        // The library takes tls:// for nats:// where the server offers no TLS.
        const bool demanded =
            std::any_of(settings_.urls.begin(), settings_.urls.end(),
                        [](const std::string& url) { return url.rfind("tls://", 0) == 0; });
        if (demanded || settings_.tls || !settings_.ca.empty() || !settings_.certificate.empty()) {
            set(natsOptions_SetSecure(options_, true), "tls");
        }
        if (!settings_.ca.empty()) {
            set(natsOptions_LoadCATrustedCertificates(options_, settings_.ca.c_str()),
                "ca " + settings_.ca);
        }
        if (!settings_.certificate.empty()) {
            set(natsOptions_LoadCertificatesChain(options_, settings_.certificate.c_str(),
                                                  settings_.key.c_str()),
                "certificate " + settings_.certificate + " with key " + settings_.key);
        }
        if (!settings_.server_name.empty()) {
            set(natsOptions_SetExpectedHostname(options_, settings_.server_name.c_str()),
                "server_name");
        }
    }

    natsOptions* const options_;
    const EngineSettings& settings_;
    std::string error_;
};

}  // namespace

Options make_options(const EngineSettings& settings, std::string& error) {
    natsOptions* made = nullptr;
    const natsStatus status = natsOptions_Create(&made);
    Options options(made);
    error = status == NATS_OK ? Setter(made, settings).set_all() : text_of(status);
    return error.empty() ? std::move(options) : nullptr;
}

}  // namespace qv::node::nats
