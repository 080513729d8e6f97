#include "node/web/web_output.h"

#include <stdexcept>
#include <utility>

#include "node/web/secret.h"
#include "tools/address.h"

namespace qv::node::web {

WebOutput::WebOutput(const Options& options, Site::MetricsText metrics, OnListen on_listen)
    : settings_(options.settings),
      folder_(options.folder),
      feed_(board_, options.timelines),
      metrics_(std::move(metrics)),
      on_listen_(std::move(on_listen)) {}

std::string WebOutput::open() {
    std::string token;
    if (!settings_.token_file.empty()) {
        const std::string error = read_token(settings_.token_file, token);
        if (!error.empty()) {
            return "cannot use the token file " + settings_.token_file + ": " + error;
        }
    }
    access_.emplace(token);
    site_.emplace(board_, rows_, folder_, *access_, metrics_);
    try {
        open_port();
    } catch (const std::runtime_error& error) {
        return "cannot serve the page on " + tools::address_text(*settings_.address) + ": " +
               error.what();
    }
    return {};
}

void WebOutput::open_port() {
    if (settings_.certificate.empty()) {
        server_ = std::make_unique<Server>(*settings_.address, handlers());
        return;
    }
    server_ = std::make_unique<Server>(tools::parse_address("127.0.0.1:0").value(), handlers());
    relay_ = std::make_unique<TlsRelay>(*settings_.address, settings_.certificate, server_->port());
    present_relay_ = relay_.get();
}

void WebOutput::close() {
    server_.reset();
    present_relay_ = nullptr;
    relay_.reset();
}

Server::Handlers WebOutput::handlers() {
    Server::Handlers handlers;
    if (!settings_.certificate.empty()) {
        handlers.relayed_peer = [this](const std::string& from) {
            const TlsRelay* const relay = present_relay_;
            return relay != nullptr ? relay->peer_of(from) : std::nullopt;
        };
    }
    handlers.answer = [this](const Request& request) {
        return site_->answer(request, steady_now());
    };
    handlers.refuse_live = [this](const Request& request) {
        return site_->refuse_live(request, steady_now());
    };
    handlers.may_stay = [this](const Request& request) {
        return site_->may_stay(request, steady_now());
    };
    handlers.open_page = [this](const Request& request) {
        return std::make_unique<LivePage>(
            board_, rows_, access_->demands_token(),
            [this, from = request.from](const ListenNotice& notice) { on_listen_(from, notice); });
    };
    return handlers;
}

std::string WebOutput::url() const {
    sockaddr_in address = *settings_.address;
    address.sin_port = htons(relay_ != nullptr ? relay_->port() : server_->port());
    return std::string(settings_.certificate.empty() ? "http" : "https") + "://" +
           tools::address_text(address) + "/";
}

bool WebOutput::is_in_the_clear() const {
    return settings_.certificate.empty() && !settings_.is_loopback();
}

}  // namespace qv::node::web
