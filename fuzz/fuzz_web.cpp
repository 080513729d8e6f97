// Requests and messages to the page of the media node, as the server passes them on. The first byte
// chooses: 'm', messages of a page, one per line; 't', a request to a site that demands a token;
// any other, one to a site that does not. A request is a line with method and path, lines with
// headers, an empty line, and a body.
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "fuzz/support/require.h"
#include "node/web/live_page.h"
#include "node/web/site.h"

namespace {

using namespace qv::node;
using namespace qv::node::web;
using qv::fuzz::require;

constexpr Micros NOW{1'000'000'000};
const std::string TOKEN = "correct-horse-battery";
const Uuid UUID = {0x3b, 0x9f, 0x6a, 0x52, 0x7c, 0x1e, 0x4d, 0x80,
                   0x9f, 0x2b, 0xe4, 0xa1, 0xc0, 0x5d, 0x8e, 0x37};

// Takes the text up to the separator off the beginning.
std::string_view take(std::string_view& text, std::string_view separator) {
    const std::size_t end = text.find(separator);
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + separator.size());
    return part;
}

Request request_of(std::string_view text) {
    Request request;
    request.method = take(text, " ");
    request.path = decoded_path(take(text, "\n"));
    request.from = "192.0.2.1:1000";
    while (!text.empty()) {
        std::string_view line = take(text, "\n");
        if (line.empty()) {
            break;
        }
        const std::string name(take(line, ": "));
        request.headers.emplace(name, line);
    }
    request.body = text;
    return request;
}

// One call that goes on, and one that has ended, with a file that is the only one of its folder.
class World {
  public:
    explicit World(const std::string& token) : access_(token) {
        const auto record = board_.add(UUID, Micros{0}, NOW);
        auto facts = std::make_shared<CallFacts>();
        facts->start.emplace();
        facts->start->call_reference = "\"<b>\xff";
        std::vector<Mark> marks;
        record->try_publish({}, facts, marks);
        auto call = std::make_shared<FinishedCall>();
        call->id = board_.add(UUID, Micros{0}, NOW)->id();
        call->uuid = UUID;
        call->facts = facts;
        call->files.push_back({"/proc/self/stat", {}, 0, {}});
        board_.finish(call);
    }

    void ask(const Request& request) {
        const Response response = site_.answer(request, NOW);
        require(response.status >= 200 && response.status < 600, "the status is one");
        const std::string head = head_of(response, "");
        require(head.find("\r\n\r\n") == head.size() - 4, "a head ends where it should");
        require(head.find("\r\nContent-Security-Policy: ") != std::string::npos,
                "every response has a policy");
        if (response.file != nullptr) {
            require(response.end <= response.file->size() && response.begin <= response.end,
                    "a part is inside its file");
            require(request.path == "/api/calls/3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37/files/stat",
                    "only the file of the call is served");
        }
        if (response.type == "application/json") {
            require(nlohmann::json::accept(response.body), "JSON is JSON");
        }
        const bool knows_token = request.header("authorization") == "Bearer " + TOKEN;
        if (access_.demands_token() && !knows_token) {
            require(response.file == nullptr && response.body.find("3b9f6a52") == std::string::npos,
                    "without the token, no call is shown");
            require(site_.refuse_live(request, NOW).has_value(), "nor a page opened");
        }
    }

    void talk(std::string_view messages) {
        LivePage page(board_, rows_, false, [this](const ListenNotice& notice) {
            notice.seconds.has_value() ? --listeners_ : ++listeners_;
            require(listeners_ == 0 || listeners_ == 1, "a page listens to one call");
        });
        for (int i = 0; i < 20 && !messages.empty(); ++i) {
            page.take(take(messages, "\n"), NOW);
            for (const LiveMessage& message : page.due(NOW)) {
                require(message.binary || nlohmann::json::accept(message.bytes), "JSON is JSON");
            }
        }
    }

  private:
    CallBoard board_;
    FileFolder folder_{"/proc/self"};
    LiveRows rows_{board_, folder_};
    Access access_;
    Site site_{board_, rows_, folder_, access_, [] { return std::string("figures\n"); }};
    int listeners_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] == 'm') {
        World("").talk(input);
    } else {
        World(data[0] == 't' ? TOKEN : "").ask(request_of(input));
    }
    return 0;
}
