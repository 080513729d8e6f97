#include "node/web/access.h"

#include <algorithm>
#include <string_view>

#include "node/web/secret.h"
#include "tools/address.h"

namespace qv::node::web {

namespace {

constexpr const char* COOKIE = "quorvane_session";
constexpr std::string_view BEARER = "Bearer ";
constexpr std::size_t MOST_ADDRESSES = 1000;

Response redirect(const std::string& place) {
    Response response;
    response.status = 303;
    response.headers.emplace_back("Location", place);
    return response;
}

std::string cookie_text(const std::string& value, const Request& request) {
    return std::string(COOKIE) + "=" + value + "; Path=/; HttpOnly; SameSite=Strict" +
           (request.is_secure ? "; Secure" : "");
}

// Without the port.
std::string host_of(const std::string& address) {
    return address.substr(0, address.rfind(':'));
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    return text;
}

// The token that a program sends.
std::optional<std::string> bearer_of(const Request& request) {
    const std::string text = request.header("authorization");
    return text.compare(0, BEARER.size(), BEARER) == 0 ? std::optional(text.substr(BEARER.size()))
                                                       : std::nullopt;
}

std::string form_decoded(std::string text) {
    std::replace(text.begin(), text.end(), '+', ' ');
    return percent_decoded(text).value_or("");
}

// Calls `visit` with the name and the value of each "name=value" of a list.
template <typename Visit>
void for_each_pair(std::string_view list, char separator, Visit visit) {
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(separator), list.size());
        const std::string_view pair = trimmed(list.substr(0, end));
        const std::size_t sign = pair.find('=');
        if (sign != std::string_view::npos) {
            visit(pair.substr(0, sign), pair.substr(sign + 1));
        }
        list.remove_prefix(std::min(end + 1, list.size()));
    }
}

}  // namespace

std::string cookie_of(const Request& request, const std::string& name) {
    std::string found;
    for_each_pair(request.header("cookie"), ';',
                  [&](std::string_view each, std::string_view value) {
                      if (each == name) {
                          found = value;
                      }
                  });
    return found;
}

std::string form_field(const std::string& body, const std::string& name) {
    std::string found;
    for_each_pair(body, '&', [&](std::string_view each, std::string_view value) {
        if (each == name) {
            found = form_decoded(std::string(value));
        }
    });
    return found;
}

Access::Verdict Access::check(const Request& request, Micros now) {
    if (!demands_token()) {
        return Verdict::ALLOWED;
    }
    const LockGuard lock(mutex_);
    if (has_session(cookie_of(request, COOKIE), now)) {
        return Verdict::ALLOWED;
    }
    const auto token = bearer_of(request);
    return token.has_value() ? check_token(*token, request.from, now) : Verdict::DENIED;
}

bool Access::may_stay(const Request& request, Micros now) {
    if (!demands_token()) {
        return true;
    }
    const LockGuard lock(mutex_);
    return has_session(cookie_of(request, COOKIE), now) ||
           is_same_secret(bearer_of(request).value_or(""), token_);
}

bool Access::has_session(const std::string& given, Micros now) {
    bool found = false;
    for (auto& [id, used] : sessions_) {
        if (is_same_secret(given, id) && now - used < SESSION) {
            used = now;
            found = true;
        }
    }
    return found;
}

Access::Verdict Access::check_token(const std::string& given, const std::string& from, Micros now) {
    RateLimit& wrong = limit_of(host_of(from));
    if (!wrong.allows(now)) {
        return Verdict::TOO_MANY_WRONG;
    }
    if (is_same_secret(given, token_)) {
        return Verdict::ALLOWED;
    }
    wrong.count();
    return Verdict::DENIED;
}

// An attacker with very many addresses makes the node forget all of them; the length of the token
// protects it then.
RateLimit& Access::limit_of(const std::string& from) {
    if (wrong_.size() >= MOST_ADDRESSES && wrong_.count(from) == 0) {
        wrong_.clear();
    }
    return wrong_.try_emplace(from, WRONG_RATE, WRONG_AT_ONCE).first->second;
}

Response Access::log_in(const Request& request, Micros now) {
    if (!demands_token()) {
        return redirect("/");
    }
    const LockGuard lock(mutex_);
    const Verdict verdict = check_token(form_field(request.body, "token"), request.from, now);
    if (verdict == Verdict::TOO_MANY_WRONG) {
        Response response;
        response.status = 429;
        response.body = "too many wrong tokens; wait a little\n";
        response.headers.emplace_back("Retry-After", "10");
        return response;
    }
    if (verdict == Verdict::DENIED) {
        return redirect("/login#wrong");
    }
    const std::string id = new_secret();
    add_session(id, now);
    Response response = redirect("/");
    response.headers.emplace_back("Set-Cookie", cookie_text(id, request));
    return response;
}

void Access::add_session(const std::string& id, Micros now) {
    if (sessions_.size() >= MOST_SESSIONS) {
        sessions_.erase(std::min_element(
            sessions_.begin(), sessions_.end(),
            [](const auto& one, const auto& another) { return one.second < another.second; }));
    }
    sessions_[id] = now;
}

Response Access::log_out(const Request& request) {
    {
        const LockGuard lock(mutex_);
        sessions_.erase(cookie_of(request, COOKIE));
    }
    Response response = redirect(demands_token() ? "/login" : "/");
    response.headers.emplace_back("Set-Cookie", cookie_text("", request) + "; Max-Age=0");
    return response;
}

std::string foreign_site(const Request& request, bool demands_token) {
    const std::string host = request.header("host");
    const std::string name = host_of(host.find(':') == std::string::npos ? host + ":" : host);
    const bool is_address = tools::parse_address(name + ":1").has_value();
    if (!demands_token && !is_address && name != "localhost") {
        return "the name of the host is not allowed; use its address or localhost";
    }
    const std::string origin = request.header("origin");
    const std::string own = (request.is_secure ? "https://" : "http://") + host;
    return origin.empty() || origin == own ? std::string() : "another site must not ask for this";
}

}  // namespace qv::node::web
