#include "node/web/tls_relay.h"

#include <algorithm>
#include <array>
#include <asio/connect.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/ssl.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

#include "quorvane_lib/mutex.h"
#include "tools/address.h"
#include "tools/thread_priority.h"

namespace qv::node::web {

namespace {

using Tcp = asio::ip::tcp;

constexpr std::chrono::seconds PATIENCE{10};  // With a handshake, and with one write.
constexpr std::chrono::milliseconds AFTER_ACCEPT_ERROR{100};

Tcp::endpoint endpoint_of(const sockaddr_in& address) {
    return {asio::ip::address_v4(ntohl(address.sin_addr.s_addr)), ntohs(address.sin_port)};
}

std::string text_of(const Tcp::endpoint& endpoint) {
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

// Who is behind which connection to the server, by the connection's local address.
class Peers {
  public:
    void add(const std::string& local, const std::string& peer) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        peers_[local] = peer;
    }
    void remove(const std::string& local) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        peers_.erase(local);
    }
    std::optional<std::string> find(const std::string& local) const QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        const auto found = peers_.find(local);
        return found == peers_.end() ? std::nullopt : std::optional(found->second);
    }

  private:
    mutable Mutex mutex_;
    std::map<std::string, std::string> peers_ QV_GUARDED_BY(mutex_);
};

// One connection. Lives as long as one of its operations goes on.
class Relayed : public std::enable_shared_from_this<Relayed> {
  public:
    Relayed(Tcp::socket socket, asio::ssl::context& tls, const Tcp::endpoint& server, Peers& peers,
            std::atomic<std::size_t>& count)
        : outside_(std::move(socket), tls),
          inside_(outside_.get_executor()),
          timer_(outside_.get_executor()),
          server_(server),
          peers_(peers),
          count_(count) {
        ++count_;
    }
    Relayed(const Relayed&) = delete;
    Relayed& operator=(const Relayed&) = delete;
    ~Relayed() {
        forget();
        --count_;
    }

    void begin() {
        std::error_code error;
        peer_ = text_of(outside_.next_layer().remote_endpoint(error));
        limit_time();
        outside_.async_handshake(asio::ssl::stream_base::server,
                                 [self = shared_from_this()](std::error_code failure) {
                                     self->guard([&] { self->connect(failure); });
                                 });
    }

    bool shakes_hands() const { return shakes_hands_; }
    void give_up() {
        shakes_hands_ = false;
        close();
    }

  private:
    using Buffer = std::array<char, 16384>;

    // Ends the connection in place of the program if, for example, memory is short.
    template <typename Act>
    void guard(Act act) {
        try {
            act();
        } catch (const std::exception&) {
            close();
        }
    }

    void connect(std::error_code error) {
        shakes_hands_ = false;
        timer_.cancel();
        if (error) {
            return;
        }
        inside_.async_connect(server_, [self = shared_from_this()](std::error_code failure) {
            self->guard([&] { self->relay(failure); });
        });
    }

    void relay(std::error_code error) {
        if (!error) {
            local_ = text_of(inside_.local_endpoint(error));
        }
        if (error) {
            return;
        }
        inside_.set_option(Tcp::no_delay(true), error);
        outside_.next_layer().set_option(Tcp::no_delay(true), error);
        peers_.add(local_, peer_);
        read_outside();
        read_inside();
    }

    void read_outside() {
        outside_.async_read_some(asio::buffer(in_), [self = shared_from_this()](
                                                        std::error_code error, std::size_t size) {
            self->guard([&] { self->write_inside(error, size); });
        });
    }

    void write_inside(std::error_code error, std::size_t size) {
        if (error) {
            close();
            return;
        }
        asio::async_write(inside_, asio::buffer(in_, size),
                          [self = shared_from_this()](std::error_code failure, std::size_t) {
                              self->guard([&] { failure ? self->close() : self->read_outside(); });
                          });
    }

    void read_inside() {
        inside_.async_read_some(asio::buffer(out_), [self = shared_from_this()](
                                                        std::error_code error, std::size_t size) {
            self->guard([&] { self->write_outside(error, size); });
        });
    }

    void write_outside(std::error_code error, std::size_t size) {
        if (error) {
            finish();
            return;
        }
        limit_time();
        asio::async_write(outside_, asio::buffer(out_, size),
                          [self = shared_from_this()](std::error_code failure, std::size_t) {
                              self->timer_.cancel();
                              self->guard([&] { failure ? self->close() : self->read_inside(); });
                          });
    }

    // The server has ended the connection, as it does after each answer.
    void finish() {
        limit_time();
        outside_.async_shutdown([self = shared_from_this()](std::error_code) { self->close(); });
    }

    void limit_time() {
        timer_.expires_after(PATIENCE);
        timer_.async_wait([weak = weak_from_this()](std::error_code error) {
            const auto self = weak.lock();
            if (!error && self != nullptr) {
                self->close();
            }
        });
    }

    void forget() {
        if (!local_.empty()) {
            peers_.remove(local_);
            local_.clear();
        }
    }

    // Afterwards the port may be that of somebody else.
    void close() {
        std::error_code ignored;
        forget();
        timer_.cancel();
        inside_.close(ignored);
        outside_.next_layer().close(ignored);
    }

    asio::ssl::stream<Tcp::socket> outside_;
    Tcp::socket inside_;
    asio::steady_timer timer_;
    const Tcp::endpoint server_;
    Peers& peers_;
    std::atomic<std::size_t>& count_;
    bool shakes_hands_ = true;
    std::string peer_;
    std::string local_;  // Address of `inside_` while the peers have it; or empty.
    Buffer in_{};
    Buffer out_{};
};

}  // namespace

class TlsRelay::Impl {
  public:
    Impl(const sockaddr_in& address, const std::string& certificate, std::uint16_t server_port)
        : server_(asio::ip::address_v4::loopback(), server_port) {
        load(certificate);
        listen(endpoint_of(address));
        accept();
        thread_ = std::thread([this] { run(); });
    }
    ~Impl() {
        loop_.stop();
        thread_.join();
    }

    std::uint16_t port() const { return acceptor_.local_endpoint().port(); }
    std::optional<std::string> peer_of(const std::string& local) const {
        return peers_.find(local);
    }

  private:
    void load(const std::string& certificate) {
        using Context = asio::ssl::context;
        std::error_code error;
        tls_.set_options(Context::default_workarounds | Context::no_sslv2 | Context::no_sslv3 |
                         Context::no_tlsv1 | Context::no_tlsv1_1 | Context::no_compression);
        tls_.use_certificate_chain_file(certificate, error);
        if (!error) {
            tls_.use_private_key_file(certificate, Context::pem, error);
        }
        if (error) {
            throw std::runtime_error("certificate and key in " + certificate + ": " +
                                     error.message());
        }
    }

    void listen(const Tcp::endpoint& endpoint) {
        std::error_code error;
        acceptor_.open(endpoint.protocol(), error);
        if (!error) {
            acceptor_.set_option(Tcp::acceptor::reuse_address(true), error);
            acceptor_.bind(endpoint, error);
        }
        if (!error) {
            acceptor_.listen(Tcp::acceptor::max_listen_connections, error);
        }
        if (error) {
            throw std::runtime_error(error.message());
        }
    }

    // An exception, for example because memory is short, costs the connection that it concerns.
    void run() {
        tools::lower_priority(tools::Priority::BACKGROUND);
        while (!loop_.stopped()) {
            try {
                if (!accepting_) {
                    accept();
                }
                loop_.run();
            } catch (const std::exception&) {
                std::this_thread::sleep_for(AFTER_ACCEPT_ERROR);
            }
        }
    }

    // Strangers who do not finish their handshakes must not keep others out: the oldest of these
    // connections ends. Returns whether there was one.
    bool make_room() {
        const auto oldest = std::find_if(newcomers_.begin(), newcomers_.end(), unfinished);
        if (oldest == newcomers_.end()) {
            return false;
        }
        oldest->lock()->give_up();
        return true;
    }

    void forget_finished() {
        newcomers_.erase(std::remove_if(newcomers_.begin(), newcomers_.end(),
                                        [](const auto& each) { return !unfinished(each); }),
                         newcomers_.end());
    }

    static bool unfinished(const std::weak_ptr<Relayed>& newcomer) {
        const auto relayed = newcomer.lock();
        return relayed != nullptr && relayed->shakes_hands();
    }

    void accept() {
        acceptor_.async_accept([this](std::error_code error, Tcp::socket socket) {
            accepting_ = false;
            if (!error && (count_ < MOST_CONNECTIONS || make_room())) {
                const auto relayed =
                    std::make_shared<Relayed>(std::move(socket), tls_, server_, peers_, count_);
                relayed->begin();
                forget_finished();
                newcomers_.push_back(relayed);
            }
            if (!error) {
                accept();
                return;
            }
            // For example, no descriptors are left.
            retry_.expires_after(AFTER_ACCEPT_ERROR);
            retry_.async_wait([this](std::error_code) {
                if (!accepting_) {
                    accept();
                }
            });
        });
        accepting_ = true;
    }

    // The connections in the handlers of the loop use these, so the loop is destroyed first.
    Peers peers_;
    std::atomic<std::size_t> count_{0};
    std::deque<std::weak_ptr<Relayed>> newcomers_;  // The oldest first; some have got further.
    asio::ssl::context tls_{asio::ssl::context::tls_server};
    const Tcp::endpoint server_;
    asio::io_context loop_{1};
    // Without it, the loop would stop when a failed accept leaves nothing to wait for.
    asio::executor_work_guard<asio::io_context::executor_type> work_{loop_.get_executor()};
    Tcp::acceptor acceptor_{loop_};
    asio::steady_timer retry_{loop_};
    bool accepting_ = false;
    std::thread thread_;
};

TlsRelay::TlsRelay(const sockaddr_in& address, const std::string& certificate,
                   std::uint16_t server_port)
    : impl_(std::make_unique<Impl>(address, certificate, server_port)) {}

TlsRelay::~TlsRelay() = default;

std::uint16_t TlsRelay::port() const {
    return impl_->port();
}

std::optional<std::string> TlsRelay::peer_of(const std::string& local) const {
    return impl_->peer_of(local);
}

}  // namespace qv::node::web
