// Requests and responses as plain values: what the server reads and sends, and what the site
// answers with.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "node/web/file_folder.h"

namespace qv::node::web {

struct Request {
    std::string method;                          // "GET", "HEAD", "POST"...
    std::string path;                            // Decoded, without the query; begins with '/'.
    std::map<std::string, std::string> headers;  // Names in lower case.
    std::string body;                            // Of POST.
    std::string from;                            // Address and port of the sender.
    bool is_secure = false;                      // TLS.

    // Empty if there is none.
    std::string header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
};

struct Response {
    int status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  // Further ones, and others.
    // If not null, these bytes of the file are sent in place of the body.
    std::shared_ptr<const OpenFile> file{};
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

// A response of one line of text.
Response plain(int status, const std::string& text);

// Returns the path of a request with its %XX decoded. Empty, which is no path, if that is not
// possible or gives control characters.
std::string decoded_path(std::string_view raw);

// Returns the text with %XX decoded. Nullopt if a % is not followed by two hexadecimal digits.
std::optional<std::string> percent_decoded(std::string_view text);

// Returns the head of the response as it is sent, with the headers that every response has unless
// it has its own: they keep what is shown from other sites and scripts out of it.
std::string head_of(const Response& response, const std::string& phrase);

}  // namespace qv::node::web
