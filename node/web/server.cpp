#include "node/web/server.h"

#include <civetweb.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "node/report/rate_limit.h"
#include "node/web/site.h"
#include "node/web/sockets.h"
#include "tools/address.h"
#include "tools/thread_priority.h"

namespace qv::node::web {

namespace {

constexpr std::size_t MOST_PAGES = 24;
constexpr const char* THREADS = "48";  // Each page keeps one of them.
constexpr const char* LONGEST_REQUEST = "16384";
constexpr std::size_t LONGEST_BODY = 4096;
constexpr std::chrono::seconds PATIENCE_WITH_BODY{5};
constexpr std::size_t WEBSOCKET_KEY_SIZE = 24;
constexpr std::size_t FILE_BLOCK = 65536;
constexpr std::chrono::minutes PATIENCE_WITH_FILE{30};
constexpr const char* PATIENCE_MS = "5000";  // With one read or write.
// Between pings of a page that says nothing. The library cuts it off after the sixth in vain.
constexpr const char* PAGE_SILENCE_MS = "3000";

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char each) { return std::tolower(each); });
    return text;
}

Request request_of(const mg_connection* connection) {
    const mg_request_info& info = *mg_get_request_info(connection);
    Request request;
    request.method = info.request_method != nullptr ? info.request_method : "";
    request.path = decoded_path(info.local_uri != nullptr ? info.local_uri : "");
    request.from = std::string(info.remote_addr) + ":" + std::to_string(info.remote_port);
    for (int i = 0; i < info.num_headers; ++i) {
        const mg_header& header = info.http_headers[i];
        request.headers.emplace(lower(header.name), header.value);
    }
    return request;
}

const char* phrase(int status) {
    const char* const text = mg_get_response_code_text(nullptr, status);
    return text != nullptr ? text : "";
}

// Whether it could be sent.
bool write(mg_connection* connection, const char* bytes, std::size_t size) {
    return mg_write(connection, bytes, size) == static_cast<int>(size);
}

void send_file(mg_connection* connection, const Response& response) {
    std::vector<char> block(FILE_BLOCK);
    const auto until = std::chrono::steady_clock::now() + PATIENCE_WITH_FILE;
    for (std::uint64_t at = response.begin; at < response.end;) {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), response.end - at));
        const std::size_t got = response.file->read(block.data(), wanted, at);
        if (got == 0 || !write(connection, block.data(), got) ||
            std::chrono::steady_clock::now() >= until) {
            return;
        }
        at += got;
    }
}

void send(mg_connection* connection, const Request& request, const Response& response) {
    const std::string head = head_of(response, phrase(response.status));
    if (!write(connection, head.data(), head.size()) || request.method == "HEAD") {
        return;
    }
    if (response.file != nullptr) {
        send_file(connection, response);
    } else if (!response.body.empty()) {
        write(connection, response.body.data(), response.body.size());
    }
}

// Reads the body of a form. Returns false if it is too long or does not come in time.
bool read_body(mg_connection* connection, Request& request) {
    const long long length = mg_get_request_info(connection)->content_length;
    if (length < 0 || length > static_cast<long long>(LONGEST_BODY)) {
        return false;
    }
    request.body.resize(static_cast<std::size_t>(length));
    const auto until = std::chrono::steady_clock::now() + PATIENCE_WITH_BODY;
    // Byte by byte: of more, the library would wait that long for each.
    return std::all_of(request.body.begin(), request.body.end(), [&](char& byte) {
        return mg_read(connection, &byte, 1) == 1 && std::chrono::steady_clock::now() < until;
    });
}

// Returns what begin_request() returns after an answer. Without keep-alive the library does not
// read what is left of the request, which it would do for as long as it comes.
int answered(mg_connection* connection, int status) {
    mg_disable_connection_keep_alive(connection);
    return status;
}

}  // namespace

// A websocket and the thread that sends to it.
class Connection {
  public:
    using MayStay = std::function<bool()>;

    // `socket` is its local port and its peer. `may_stay` is whether the page may stay open.
    Connection(mg_connection* connection, const std::pair<std::uint16_t, std::string>& socket,
               std::unique_ptr<LivePage> page, MayStay may_stay)
        : connection_(connection),
          socket_(socket.first, socket.second),
          page_(std::move(page)),
          may_stay_(std::move(may_stay)),
          thread_([this] { send(); }) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        {
            const LockGuard lock(mutex_);
            over_ = true;
        }
        changed_.notify_all();
        socket_.shut_down();  // The thread may be sending.
        thread_.join();
    }

    // Something has come whole. For the thread that reads.
    void note_message() { complete_ = socket_.received(); }

    // Cuts the connection off if something comes that does not end. Any thread may call it.
    void check_message() const {
        const std::uint64_t complete = complete_;  // First, because more may come meanwhile.
        if (socket_.received() - complete > LONGEST_MESSAGE) {
            socket_.shut_down();
        }
    }

    // Handles a message, for the thread that reads. A person who scrolls causes 60 a second; more
    // have to wait, because some of them write lines and events. Returns false if the page must be
    // cut off.
    bool take(std::string_view text) {
        if (!messages_.allows(steady_now())) {
            std::this_thread::sleep_for(Micros{1'000'000} / MESSAGES_PER_SECOND);
        }
        messages_.count();
        const bool taken = page_->take(text, steady_now());
        {
            const LockGuard lock(mutex_);
            taken_ = true;
        }
        changed_.notify_all();
        return taken;
    }

  private:
    void send() {
        tools::lower_priority(tools::Priority::BACKGROUND);
        try {
            while (wait() && may_stay() && send_due()) {
            }
        } catch (const std::exception&) {
            // For example, memory is short. The page connects again.
        }
        socket_.shut_down();
    }

    bool may_stay() {
        const Micros now = steady_now();
        if (now - asked_ < ASK_AGAIN) {
            return true;
        }
        asked_ = now;
        return may_stay_();
    }

    // Returns false after a part of a message: then the connection is of no use.
    bool send_due() {
        for (const LiveMessage& message : page_->due(steady_now())) {
            const int opcode =
                message.binary ? MG_WEBSOCKET_OPCODE_BINARY : MG_WEBSOCKET_OPCODE_TEXT;
            const int written =
                mg_websocket_write(connection_, opcode, message.bytes.data(), message.bytes.size());
            if (written < static_cast<int>(message.bytes.size())) {
                return false;
            }
        }
        return true;
    }

    bool wait() {
        const auto until = std::chrono::steady_clock::now() + page_->interval();
        const LockGuard lock(mutex_);
        if (!over_ && !taken_) {
            changed_.wait_until(mutex_, until);
        }
        taken_ = false;
        return !over_;
    }

    static constexpr int MESSAGES_PER_SECOND = 100;
    static constexpr int MESSAGES_AT_ONCE = 100;
    static constexpr Micros ASK_AGAIN{1'000'000};
    // With the answers to pings since the message before.
    static constexpr std::uint64_t LONGEST_MESSAGE = 8ULL * 1024 * 1024;

    mg_connection* const connection_;
    RateLimit messages_{MESSAGES_PER_SECOND, MESSAGES_AT_ONCE};  // For the thread that reads.
    const SharedSocket socket_;
    std::atomic<std::uint64_t> complete_{0};  // Bytes that had come at the end of a message.
    const std::unique_ptr<LivePage> page_;
    const MayStay may_stay_;
    Micros asked_{0};  // When the page was last allowed to stay. For the thread that sends.
    Mutex mutex_;
    Condition changed_;
    bool over_ QV_GUARDED_BY(mutex_) = false;
    bool taken_ QV_GUARDED_BY(mutex_) = false;  // A message, since the page was last sent to.
    std::thread thread_;                        // The last: it uses the others.
};

// Cuts off the pages that send a message without end. The library makes room for as much as a
// message announces, up to 2 GB, and reads until it is there. Any thread may call it.
class Watch {
  public:
    Watch() : thread_([this] { look(); }) {}
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
        {
            const LockGuard lock(mutex_);
            over_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

    void add(const Connection* page) {
        const LockGuard lock(mutex_);
        pages_.insert(page);
    }
    void remove(const Connection* page) {
        const LockGuard lock(mutex_);
        pages_.erase(page);
    }

  private:
    void look() {
        tools::lower_priority(tools::Priority::BACKGROUND);
        const LockGuard lock(mutex_);
        while (!over_) {
            for (const Connection* page : pages_) {
                page->check_message();
            }
            changed_.wait_until(mutex_, std::chrono::steady_clock::now() + INTERVAL);
        }
    }

    static constexpr std::chrono::milliseconds INTERVAL{100};

    Mutex mutex_;
    Condition changed_;
    std::set<const Connection*> pages_ QV_GUARDED_BY(mutex_);
    bool over_ QV_GUARDED_BY(mutex_) = false;
    std::thread thread_;  // The last: it uses the others.
};

class Server::Impl {
  public:
    Impl(const sockaddr_in& address, Handlers handlers) : handlers_(std::move(handlers)) {
        mg_init_library(MG_FEATURES_DEFAULT);
        const std::string listen = tools::address_text(address);
        std::vector<const char*> settings = {"listening_ports",
                                             listen.c_str(),
                                             "num_threads",
                                             THREADS,
                                             "max_request_size",
                                             LONGEST_REQUEST,
                                             "request_timeout_ms",
                                             PATIENCE_MS,
                                             "websocket_timeout_ms",
                                             PAGE_SILENCE_MS,
                                             "enable_websocket_ping_pong",
                                             "yes",
                                             "enable_keep_alive",
                                             "no",
                                             "enable_directory_listing",
                                             "no",
                                             "enable_auth_domain_check",
                                             "no",
                                             "decode_url",
                                             "no",
                                             "tcp_nodelay",
                                             "1"};
        settings.push_back(nullptr);
        mg_callbacks callbacks{};
        callbacks.begin_request = begin_request;
        callbacks.http_error = http_error;
        callbacks.log_message = log_message;
        callbacks.init_thread = init_thread;
        context_ = mg_start(&callbacks, this, settings.data());
        if (context_ == nullptr) {
            mg_exit_library();
            const LockGuard lock(mutex_);
            throw std::runtime_error(error_.empty() ? "the server does not start" : error_);
        }
        mg_server_port port{};
        mg_get_server_ports(context_, 1, &port);
        port_ = static_cast<std::uint16_t>(port.port);
        mg_set_websocket_handler(context_, Site::LIVE_PATH, connect, ready, data, closed, this);
    }

    // The library looks only every two seconds whether it must end, unless something happens on its
    // sockets.
    ~Impl() {
        std::atomic<bool> stopped{false};
        std::thread stop([this, &stopped] {
            mg_stop(context_);
            stopped = true;
        });
        while (!stopped) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            shut_down_port(port_);
        }
        stop.join();
        mg_exit_library();
    }

    std::uint16_t port() const { return port_; }

  private:
    // Nullopt if nobody may connect in this way.
    std::optional<Request> request_of(const mg_connection* connection) const {
        Request request = web::request_of(connection);
        if (handlers_.relayed_peer == nullptr) {
            return request;
        }
        const auto peer = handlers_.relayed_peer(request.from);
        request.is_secure = true;
        request.from = peer.value_or("");
        return peer.has_value() ? std::optional(std::move(request)) : std::nullopt;
    }

    static Impl& of(const mg_connection* connection) {
        return *static_cast<Impl*>(mg_get_user_data(mg_get_context(connection)));
    }

    // Ends the connection in place of the program if, for example, no further thread can be had.
    // The library knows no exceptions.
    template <typename Act>
    static void guard(mg_connection* connection, Act act) {
        try {
            act();
        } catch (const std::exception&) {
            mg_disable_connection_keep_alive(connection);
        }
    }

    static int begin_request(mg_connection* connection) {
        int status = 500;
        guard(connection, [&] { status = answer(connection); });
        return status;
    }

    static int answer(mg_connection* connection) {
        Impl& impl = of(connection);
        std::optional<Request> known = impl.request_of(connection);
        if (!known.has_value()) {
            return answered(connection, 403);  // Not a word is sent.
        }
        Request& request = *known;
        if (request.method == "GET" && request.path == Site::LIVE_PATH &&
            lower(request.header("upgrade")) == "websocket") {
            return 0;  // The library calls connect() next.
        }
        const bool has_body = request.method != "POST" || read_body(connection, request);
        const Response response =
            has_body ? impl.handlers_.answer(request)
                     : plain(413, "the body is too long, or its length is not given");
        send(connection, request, response);
        return answered(connection, response.status);
    }

    static int http_error(mg_connection* connection, int status, const char* /*text*/) {
        guard(connection, [&] { send(connection, {}, plain(status, phrase(status))); });
        return 0;
    }

    static void* init_thread(const mg_context* /*context*/, int /*thread_type*/) {
        tools::lower_priority(tools::Priority::BACKGROUND);
        return nullptr;
    }

    static int log_message(const mg_connection* connection, const char* message) {
        Impl& impl = of(connection);
        const LockGuard lock(impl.mutex_);
        if (impl.error_.empty()) {
            impl.error_ = message;
        }
        return 1;
    }

    static int connect(const mg_connection* connection, void* self) {
        bool allowed = false;
        auto* const own = const_cast<mg_connection*>(connection);
        guard(own, [&] { allowed = static_cast<Impl*>(self)->allow_page(own); });
        return allowed ? 0 : 1;
    }

    bool allow_page(mg_connection* connection) {
        const std::optional<Request> known = request_of(connection);
        if (!known.has_value()) {
            return false;
        }
        const Request& request = *known;
        std::optional<Response> refusal = handlers_.refuse_live(request);
        // After this function the library refuses keys that are too long for it, and then calls
        // neither ready() nor closed().
        if (!refusal.has_value() &&
            request.header("sec-websocket-key").size() != WEBSOCKET_KEY_SIZE) {
            refusal = plain(400, "Sec-WebSocket-Key must have 24 characters");
        }
        if (!refusal.has_value() && ++pages_ > MOST_PAGES) {
            --pages_;
            refusal = plain(503, "too many pages are open");
        }
        if (refusal.has_value()) {
            send(connection, request, *refusal);
        }
        return !refusal.has_value();
    }

    static void ready(mg_connection* connection, void* self) {
        Impl& impl = *static_cast<Impl*>(self);
        guard(connection, [&] {
            const Request request = impl.request_of(connection).value_or(Request{});
            auto page = std::make_unique<Connection>(
                connection, std::pair(impl.port_, web::request_of(connection).from),
                impl.handlers_.open_page(request),
                [&impl, request] { return impl.handlers_.may_stay(request); });
            impl.watch_.add(page.get());
            mg_set_user_connection_data(connection, page.release());
        });
    }

    static int data(mg_connection* connection, int bits, char* bytes, std::size_t size, void*) {
        auto* const page = static_cast<Connection*>(mg_get_user_connection_data(connection));
        const int opcode = bits & 0xF;
        page->note_message();
        const bool whole = (bits & 0x80) != 0;
        bool goes_on = opcode == MG_WEBSOCKET_OPCODE_PING || opcode == MG_WEBSOCKET_OPCODE_PONG;
        if (opcode == MG_WEBSOCKET_OPCODE_TEXT && whole) {
            guard(connection, [&] { goes_on = page->take({bytes, size}); });
        }
        return goes_on ? 1 : 0;  // The page sends nothing else.
    }

    static void closed(const mg_connection* connection, void* self) {
        Impl& impl = *static_cast<Impl*>(self);
        const auto* const page = static_cast<Connection*>(mg_get_user_connection_data(connection));
        impl.watch_.remove(page);
        delete page;
        --impl.pages_;
    }

    const Handlers handlers_;
    Mutex mutex_;
    std::string error_ QV_GUARDED_BY(mutex_);  // The first that the library reported.
    mg_context* context_ = nullptr;
    std::uint16_t port_ = 0;
    std::atomic<std::size_t> pages_{0};
    Watch watch_;
};

Server::Server(const sockaddr_in& address, Handlers handlers)
    : impl_(std::make_unique<Impl>(address, std::move(handlers))) {}

Server::~Server() = default;

std::uint16_t Server::port() const {
    return impl_->port();
}

}  // namespace qv::node::web
