#include "node/engine/engine_news.h"

#include <array>
#include <cstdio>
#include <utility>

namespace qv::node {

namespace {

// What servers say is ASCII.
std::string visible(std::string_view text) {
    std::string result;
    for (const char each : text) {
        if (result.size() >= EngineNews::LONGEST_LINE) {
            return result + "...";
        }
        if (each >= ' ' && each <= '~') {
            result += each;
        } else {
            std::array<char, 5> escaped{};
            std::snprintf(escaped.data(), escaped.size(), "\\x%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(each)));
            result += escaped.data();
        }
    }
    return result;
}

}  // namespace

void EngineNews::tell(const std::string& what, std::string_view details) {
    if (news_.size() < MOST) {
        news_.emplace_back(what, visible(details));
    }
}

void EngineNews::complain(const std::string& text) {
    if (complaints_.size() < MOST && complaints_.insert(visible(text)).second) {
        tell("nats trouble", text);
    }
}

void EngineNews::connected(const std::string& url) {
    complaints_.clear();
    tell("nats connected", url);
}

void EngineNews::refused(const std::string& reason) {
    if (reasons_.size() < MOST_REASONS && reasons_.insert(visible(reason)).second) {
        tell("events not taken", reason + "; they wait");
    }
}

void EngineNews::stored() {
    if (!reasons_.empty()) {
        reasons_.clear();
        tell("events are taken again", "");
    }
}

Publisher::News EngineNews::take() {
    return std::exchange(news_, {});
}

}  // namespace qv::node
