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

int hexadecimal_digit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace

Response plain(int status, const std::string& text) {
    Response response;
    response.status = status;
    response.body = text + "\n";
    return response;
}

std::optional<std::string> percent_decoded(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hexadecimal_digit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hexadecimal_digit(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

std::string decoded_path(std::string_view raw) {
    std::string path = percent_decoded(raw).value_or("");
    const bool is_plain = std::none_of(path.begin(), path.end(), [](char each) {
        return static_cast<unsigned char>(each) < 0x20 || each == 0x7F;
    });
    return is_plain ? path : std::string();
}

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
