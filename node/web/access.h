// Who may see the page: checks the token, keeps the sessions of those who have logged in, and slows
// guesses down. Takes plain requests and the time. Any thread may call it.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "node/calls/types.h"
#include "node/report/rate_limit.h"
#include "node/web/http.h"
#include "quorvane_lib/mutex.h"

namespace qv::node::web {

class Access {
  public:
    static constexpr std::size_t MOST_SESSIONS = 100;         // The one used longest ago goes.
    static constexpr Micros SESSION{std::chrono::hours(12)};  // Since it was used last.
    // Wrong tokens of one address: so many at once, and so many a second in the long run.
    static constexpr double WRONG_AT_ONCE = 5;
    static constexpr double WRONG_RATE = 0.2;

    // Without a token everybody has access.
    explicit Access(std::string token) : token_(std::move(token)) {}

    bool demands_token() const { return !token_.empty(); }

    // Whether the request has the token or a session.
    enum class Verdict : unsigned char {
        ALLOWED,
        DENIED,
        TOO_MANY_WRONG,  // Its address has sent too many wrong tokens to be heard at the moment.
    };
    Verdict check(const Request& request, Micros now) QV_EXCLUDES(mutex_);
    // Whether a page may stay open whose request has been allowed: not once its session has ended.
    // While it is open, it uses its session.
    bool may_stay(const Request& request, Micros now) QV_EXCLUDES(mutex_);

    // Answers the login form: with a session, or with the form again.
    Response log_in(const Request& request, Micros now) QV_EXCLUDES(mutex_);
    // Ends the session of the request.
    Response log_out(const Request& request) QV_EXCLUDES(mutex_);

  private:
    Verdict check_token(const std::string& given, const std::string& from, Micros now)
        QV_REQUIRES(mutex_);
    bool has_session(const std::string& given, Micros now) QV_REQUIRES(mutex_);
    RateLimit& limit_of(const std::string& from) QV_REQUIRES(mutex_);
    void add_session(const std::string& id, Micros now) QV_REQUIRES(mutex_);

    const std::string token_;
    Mutex mutex_;
    std::map<std::string, Micros> sessions_ QV_GUARDED_BY(mutex_);  // When they were used last.
    std::map<std::string, RateLimit> wrong_ QV_GUARDED_BY(mutex_);  // By address.
};

// Returns the value of a cookie, or an empty text.
std::string cookie_of(const Request& request, const std::string& name);

// Returns the field of a form (application/x-www-form-urlencoded), or an empty text.
std::string form_field(const std::string& body, const std::string& name);

// Whether the request may come from this server's own page, or from a program: refuses other
// sites. `Host` must be an address or a name that no other site can have, unless a token is
// demanded anyway; `Origin`, which browsers add, must be this server.
std::string foreign_site(const Request& request, bool demands_token);

}  // namespace qv::node::web
