#include "node/engine/settings.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <system_error>

#include "tools/number.h"

namespace qv::node {

namespace {

constexpr const char* BLANKS = " \t\r";

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

// Sets a value from its text. Returns what is wrong with it, or an empty text.
using Setter = std::function<std::string(const std::string& text)>;

Setter text_into(std::string& value) {
    return [&value](const std::string& text) {
        value = text;
        return text.empty() ? std::string("it needs a value") : std::string();
    };
}

template <typename Number>
Setter number_into(Number& value, double least, double most) {
    return [&value, least, most](const std::string& text) -> std::string {
        const double number =
            tools::parse_number<double>(text).value_or(std::numeric_limits<double>::quiet_NaN());
        if (!(number >= least) || !(number <= most)) {
            std::ostringstream complaint;
            complaint << "'" << text << "' is no number from " << least << " to " << most;
            return complaint.str();
        }
        value = static_cast<Number>(number);
        if (static_cast<double>(value) != number) {
            return "'" + text + "' is no whole number";
        }
        return {};
    };
}

Setter flag_into(bool& value) {
    return [&value](const std::string& text) -> std::string {
        if (text != "yes" && text != "no") {
            return "'" + text + "' is neither yes nor no";
        }
        value = text == "yes";
        return {};
    };
}

std::map<std::string, Setter> setters(EngineSettings& settings) {
    return {
        {"url", [&settings](const std::string& text) { return add_urls(settings, text, true); }},
        {"node", text_into(settings.node)},
        {"chunk", number_into(settings.chunk_ms, 10, 10'000)},
        {"queue", number_into(settings.queue_mib, 1, 1'000'000)},
        {"spool", text_into(settings.spool)},
        {"audio", flag_into(settings.audio)},
        {"user", text_into(settings.user)},
        {"password", text_into(settings.password)},
        {"token", text_into(settings.token)},
        {"credentials", text_into(settings.credentials)},
        {"nkey", text_into(settings.nkey)},
        {"seed", text_into(settings.seed)},
        {"tls", flag_into(settings.tls)},
        {"ca", text_into(settings.ca)},
        {"certificate", text_into(settings.certificate)},
        {"key", text_into(settings.key)},
        {"server_name", text_into(settings.server_name)},
        {"reconnect", number_into(settings.reconnect_ms, 1, 3'600'000)},
        {"ping", number_into(settings.ping_ms, 100, 3'600'000)},
        {"create_stream", flag_into(settings.create_stream)},
        {"stream", text_into(settings.stream)},
        {"replicas", number_into(settings.replicas, 1, 5)},
        {"stream_size", number_into(settings.stream_mib, 1, 100'000'000)},
        {"stream_age", number_into(settings.stream_hours, 0.01, 100'000)},
        {"duplicates", number_into(settings.duplicates_s, 1, 86'400)},
        {"exit_wait", number_into(settings.exit_wait_s, 0, 86'400)},
    };
}

bool starts_with(const std::string& text, const char* beginning) {
    return text.rfind(beginning, 0) == 0;
}

// Whether it may be a name that somebody misspelt.
bool is_word(const std::string& text) {
    return text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_-") == std::string::npos;
}

// Returns what is wrong with a setting as a whole.
std::string contradiction(const EngineSettings& settings) {
    if (settings.nkey.empty() != settings.seed.empty()) {
        return "nkey and seed belong together";
    }
    if (settings.certificate.empty() != settings.key.empty()) {
        return "certificate and key belong together";
    }
    if (!settings.password.empty() && settings.user.empty()) {
        return "password needs user";
    }
    return {};
}

bool holds_secrets(const EngineSettings& settings) {
    return !settings.password.empty() || !settings.token.empty() ||
           std::any_of(settings.urls.begin(), settings.urls.end(),
                       [](const std::string& url) { return url.find('@') != std::string::npos; });
}

bool others_may_read(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0;
}

}  // namespace

std::string add_urls(EngineSettings& settings, const std::string& list, bool secrets) {
    std::istringstream urls(list);
    std::string part;
    while (std::getline(urls, part, ',')) {
        std::string url = trimmed(part);
        if (url.find("://") == std::string::npos) {
            url.insert(0, "nats://");
        }
        if (!starts_with(url, "nats://") && !starts_with(url, "tls://")) {
            return "'" + plain_url(url) + "' is neither nats:// nor tls://";
        }
        const std::string host = plain_url(url).substr(url.find("://") + 3);
        if (host.empty() || host[0] == ':' || host.find_first_of(" \t/") != std::string::npos) {
            return "'" + plain_url(url) + "' is no nats://HOST:PORT";
        }
        if (!secrets && url.find('@') != std::string::npos) {
            return "'" + plain_url(url) +
                   "' must be given without user and password, which everybody could see in the "
                   "list of processes; write them into the configuration file";
        }
        settings.urls.push_back(url);
    }
    return settings.urls.empty() ? "a URL is missing" : std::string();
}

std::string plain_url(const std::string& url) {
    const std::size_t scheme = url.find("://");
    const std::size_t begin = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t at = url.rfind('@');
    return at == std::string::npos || at < begin ? url : url.substr(0, begin) + url.substr(at + 1);
}

std::string read_settings(EngineSettings& settings, const std::string& path, bool required,
                          const std::vector<std::string>& given) {
    std::ifstream file(path);
    if (!file) {
        const int reason = errno;
        return reason == ENOENT && !required
                   ? ""
                   : path + ": " + std::generic_category().message(reason);
    }
    EngineSettings ignored;
    const auto known = setters(settings);
    const auto checked_only = setters(ignored);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string text = trimmed(line);
        if (text.empty() || text[0] == '#') {
            continue;
        }
        const std::string place = path + ", line " + std::to_string(number) + ": ";
        const std::size_t equals = text.find('=');
        const std::string name = trimmed(text.substr(0, equals));
        if (equals == std::string::npos || !is_word(name)) {
            return place + "not name = value";  // Quotes nothing, since it may hold a password.
        }
        if (known.count(name) == 0) {
            return (place + '\'').append(name).append("' is not a known name");
        }
        const bool leave = std::find(given.begin(), given.end(), name) != given.end();
        const std::string error =
            (leave ? checked_only : known).at(name)(trimmed(text.substr(equals + 1)));
        if (!error.empty()) {
            return (place + name).append(": ").append(error);
        }
    }
    if (holds_secrets(settings) && others_may_read(path)) {
        return path + " holds a secret, and every user may read it: chmod o-r it";
    }
    const std::string error = contradiction(settings);
    return error.empty() ? error : path + ": " + error;
}

}  // namespace qv::node
