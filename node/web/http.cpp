#include "node/web/http.h"

#include <algorithm>

namespace qv::node::web {

namespace {

using Header = std::pair<std::string, std::string>;

const std::vector<Header>& common_headers() {
    static const std::vector<Header> headers = {
        {"Cache-Control", "no-store"},
        {"X-Content-Type-Options", "nosniff"},
        // With "no-referrer" browsers would send "Origin: null" with the form of the login.
        {"Referrer-Policy", "same-origin"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Cross-Origin-Opener-Policy", "same-origin"},
        {"X-Frame-Options", "DENY"},
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
         "img-src 'self'; media-src 'self'; form-action 'self'; base-uri 'none'; "
         "frame-ancestors 'none'"}};
    return headers;
}

}  // namespace

std::string head_of(const Response& response, const std::string& phrase) {
    std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " + phrase + "\r\n";
    const auto add = [&head](const Header& header) {
        head += header.first + ": " + header.second + "\r\n";
    };
    const std::uint64_t length =
        response.file != nullptr ? response.end - response.begin : response.body.size();
    add({"Connection", "close"});
    add({"Content-Type", response.type});
    add({"Content-Length", std::to_string(length)});
    for (const Header& header : common_headers()) {
        const bool is_replaced =
            std::any_of(response.headers.begin(), response.headers.end(),
                        [&header](const Header& own) { return own.first == header.first; });
        if (!is_replaced) {
            add(header);
        }
    }
    std::for_each(response.headers.begin(), response.headers.end(), add);
    return head + "\r\n";
}

}  // namespace qv::node::web
