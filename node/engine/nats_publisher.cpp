#include <nats/nats.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "node/engine/event_queue.h"
#include "node/engine/event_spool.h"
#include "node/engine/publisher.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t MOST_UNDER_WAY = 512;  // Events.
constexpr std::uint64_t BATCH_BYTES =
    512ULL * 1024;  // Of audio, between two answers of the server.
constexpr std::size_t BATCH_CHUNKS = 512;
constexpr std::size_t SPOOLED_AT_ONCE = 512;  // Events.
constexpr milliseconds TICK{100};
constexpr milliseconds ANSWER_TIME{5000};  // An event that is not answered is sent again.
constexpr milliseconds RETRY{500};         // After a refusal.
constexpr std::int64_t REQUEST_MS = 2000;  // For requests about the stream, and for flushes.
constexpr milliseconds FIRST_PAUSE{500};   // Between attempts to create the stream.
constexpr milliseconds LONGEST_PAUSE{30000};
constexpr milliseconds PATIENCE_AT_THE_END{5000};
constexpr std::size_t MOST_NEWS = 100;
constexpr std::int64_t NANOS_PER_SECOND = 1'000'000'000;

template <auto Destroy>
struct Destroyer {
    template <typename Object>
    void operator()(Object* object) const {
        Destroy(object);
    }
};
using OptionsPointer = std::unique_ptr<natsOptions, Destroyer<natsOptions_Destroy>>;
using MessagePointer = std::unique_ptr<natsMsg, Destroyer<natsMsg_Destroy>>;
using ConnectionPointer = std::unique_ptr<natsConnection, Destroyer<natsConnection_Destroy>>;
using SubscriptionPointer = std::unique_ptr<natsSubscription, Destroyer<natsSubscription_Destroy>>;
using StreamContext = std::unique_ptr<jsCtx, Destroyer<jsCtx_Destroy>>;

std::string random_id() {
    std::random_device device;
    std::array<char, 17> digits{};
    const std::uint64_t number = std::uint64_t{device()} << 32 | device();
    std::snprintf(digits.data(), digits.size(), "%016llx", static_cast<unsigned long long>(number));
    return digits.data();
}

std::string host_name() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "unknown";
}

std::string status_text(natsStatus status) {
    return natsStatus_GetText(status);
}

// The number at the end of a subject or of an event's id, from 1 on. 0 if there is none.
std::uint64_t last_number_in(const std::string& text) {
    return std::strtoull(text.c_str() + text.find_last_of(".-") + 1, nullptr, 10);
}

// The answer of JetStream to an event.
struct Answer {
    std::uint64_t number = 0;
    bool stored = false;
    bool no_stream = false;  // Or perhaps.
    std::string error{};
};

// What JetStream says is wrong. Empty if it is not an answer of JetStream.
std::string error_of(const nlohmann::json& answer) {
    if (!answer.is_object() || !answer.contains("error") || !answer["error"].is_object()) {
        return {};
    }
    const nlohmann::json& error = answer["error"];
    const auto description = error.find("description");
    return description != error.end() && description->is_string() ? description->get<std::string>()
                                                                  : "refused";
}

Answer read_answer(natsMsg* message) {
    Answer answer;
    const std::string subject = natsMsg_GetSubject(message);
    answer.number = last_number_in(subject);
    if (natsMsg_IsNoResponders(message)) {
        answer.no_stream = true;
        answer.error = "no stream takes them";
        return answer;
    }
    const char* data = natsMsg_GetData(message);
    const auto json =
        nlohmann::json::parse(data, data + natsMsg_GetDataLength(message), nullptr, false);
    answer.stored = json.is_object() && json.contains("seq") && !json.contains("error");
    if (!answer.stored) {
        answer.error = error_of(json);
    }
    if (answer.error.empty() && !answer.stored) {
        // Any subscriber may answer, so this does not show whether there is a stream.
        answer.no_stream = true;
        answer.error = "the answer is no acknowledgement";
    }
    return answer;
}

// What the thread and the library's threads use. It lives as long as one of them does.
class Engine {
  public:
    explicit Engine(EngineSettings settings)
        : settings_(std::move(settings)),
          run_(random_id()),
          most_audio_(settings_.queue_mib << 20),
          queue_(settings_.queue_mib << 20) {
        if (settings_.node.empty()) {
            settings_.node = host_name();
        }
    }

    // Returns what is wrong with the settings, or an empty text. Before the thread begins.
    std::string open() {
        std::string error = make_options();
        if (error.empty() && !settings_.spool.empty()) {
            error = open_spool();
        }
        return error;
    }

    const std::string& run_id() const { return run_; }

    void push(EngineEvent event) QV_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            event.id = run_ + '-' + std::to_string(++last_event_);
            auto shared = std::make_shared<const EngineEvent>(std::move(event));
            if (spool_ != nullptr) {
                unspooled_.emplace(last_event_, shared);
            }
            add(std::move(shared));
        }
        work_.notify_one();
    }

    void push(EngineChunk chunk) QV_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            audio_bytes_ += chunk.size();
            audio_.push_back(std::move(chunk));
            drop_audio();
        }
        work_.notify_one();
    }

    EngineFigures figures() const QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        EngineFigures figures;
        figures.wanted = true;
        figures.connected = connected_;
        figures.stored_events = stored_events_;
        figures.lost_events = queue_.dropped();
        figures.waiting_events = queue_.size();
        figures.sent_chunks = sent_chunks_;
        figures.lost_chunks = lost_chunks_;
        figures.waiting_chunks = audio_.size() + batch_size_;
        figures.waiting_bytes = queue_.bytes() + audio_bytes_;
        return figures;
    }

    Publisher::News take_news() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return std::exchange(news_, {});
    }

    bool wait(milliseconds longest) QV_EXCLUDES(mutex_) {
        const auto until = Clock::now() + longest;
        const LockGuard lock(mutex_);
        while ((queue_.size() != 0 || waiting_audio()) && progress_.wait_until(mutex_, until)) {
        }
        return queue_.size() == 0 && !waiting_audio();
    }

    // Ends the thread. Returns whether it has ended within PATIENCE_AT_THE_END.
    bool stop() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        stopping_ = true;
        work_.notify_one();
        const auto until = Clock::now() + PATIENCE_AT_THE_END;
        while (!ended_ && progress_.wait_until(mutex_, until)) {
        }
        return ended_;
    }

    Publisher::Left left() const QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return {spool_ != nullptr ? unspooled_.size() : queue_.size(), audio_.size() + batch_size_};
    }

    // The thread.
    void run() QV_EXCLUDES(mutex_) {
        while (wait_for_work()) {
            keep_connection();
            if (take_answers()) {
                create_stream();
            }
            write_spool();
            send_events();
            send_audio();
            progress_.notify_all();
        }
        take_answers();
        write_spool();
        disconnect();
        wait_for_callbacks();
        const LockGuard lock(mutex_);
        ended_ = true;
        progress_.notify_all();
    }

  private:
    // Before the thread begins.

    std::string make_options() {
        natsOptions* made = nullptr;
        natsStatus status = natsOptions_Create(&made);
        options_.reset(made);
        std::vector<const char*> urls;
        for (const std::string& url : settings_.urls) {
            urls.push_back(url.c_str());
        }
        std::string error;
        const auto set = [&status, &error](natsStatus result, const std::string& what) {
            if (status == NATS_OK && result != NATS_OK) {
                status = result;
                error = what + ": " + status_text(result);
            }
        };
        set(natsOptions_SetServers(made, urls.data(), static_cast<int>(urls.size())), "url");
        set(natsOptions_SetName(made, ("quorvane-node " + settings_.node).c_str()), "node");
        set(natsOptions_SetAllowReconnect(made, true), "reconnect");
        set(natsOptions_SetMaxReconnect(made, -1), "reconnect");
        set(natsOptions_SetReconnectWait(made, settings_.reconnect_ms), "reconnect");
        set(natsOptions_SetTimeout(made, REQUEST_MS), "timeout");
        set(natsOptions_SetPingInterval(made, settings_.ping_ms), "ping");
        set(natsOptions_SetWriteDeadline(made, REQUEST_MS), "write deadline");
        set(natsOptions_SetReconnectedCB(made, on_connected, this), "reconnect");
        set(natsOptions_SetDisconnectedCB(made, on_disconnected, this), "disconnect");
        set(natsOptions_SetClosedCB(made, on_closed, this), "close");
        set(natsOptions_SetErrorHandler(made, on_error, this), "errors");
        set_credentials(set);
        set_tls(set);
        return error;
    }

    template <typename Set>
    void set_credentials(const Set& set) {
        natsOptions* made = options_.get();
        if (!settings_.user.empty()) {
            set(natsOptions_SetUserInfo(made, settings_.user.c_str(), settings_.password.c_str()),
                "user");
        }
        if (!settings_.token.empty()) {
            set(natsOptions_SetToken(made, settings_.token.c_str()), "token");
        }
        if (!settings_.credentials.empty()) {
            const bool readable = access(settings_.credentials.c_str(), R_OK) == 0;
            set(readable ? natsOptions_SetUserCredentialsFromFiles(
                               made, settings_.credentials.c_str(), nullptr)
                         : NATS_NOT_FOUND,
                "credentials " + settings_.credentials);
        }
        if (!settings_.nkey.empty()) {
            const bool readable = access(settings_.seed.c_str(), R_OK) == 0;
            set(readable ? natsOptions_SetNKeyFromSeed(made, settings_.nkey.c_str(),
                                                       settings_.seed.c_str())
                         : NATS_NOT_FOUND,
                "seed " + settings_.seed);
        }
    }

    template <typename Set>
    void set_tls(const Set& set) {
        natsOptions* made = options_.get();
        // The library takes tls:// for nats:// where the server offers no TLS.
        const bool demanded =
            std::any_of(settings_.urls.begin(), settings_.urls.end(),
                        [](const std::string& url) { return url.rfind("tls://", 0) == 0; });
        if (demanded || settings_.tls || !settings_.ca.empty() || !settings_.certificate.empty()) {
            set(natsOptions_SetSecure(made, true), "tls");
        }
        if (!settings_.ca.empty()) {
            set(natsOptions_LoadCATrustedCertificates(made, settings_.ca.c_str()),
                "ca " + settings_.ca);
        }
        if (!settings_.certificate.empty()) {
            set(natsOptions_LoadCertificatesChain(made, settings_.certificate.c_str(),
                                                  settings_.key.c_str()),
                "certificate " + settings_.certificate + " with key " + settings_.key);
        }
        if (!settings_.server_name.empty()) {
            set(natsOptions_SetExpectedHostname(made, settings_.server_name.c_str()),
                "server_name");
        }
    }

    std::string open_spool() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        spool_ = std::make_unique<EventSpool>(settings_.spool);
        std::string error =
            spool_->open([this](const EventQueue::Event& event) QV_NO_THREAD_SAFETY_ANALYSIS {
                add(event);  // The lock is held.
            });
        if (queue_.size() != 0) {
            tell("nats spool", std::to_string(queue_.size()) + " events of earlier runs wait in " +
                                   settings_.spool);
        }
        return error;
    }

    // Any thread.

    void add(EventQueue::Event event) QV_REQUIRES(mutex_) {
        for (const EventQueue::Event& dropped : queue_.push(std::move(event))) {
            forget(dropped);
        }
    }

    // The spool need not keep the event any longer.
    void forget(const EventQueue::Event& event) QV_REQUIRES(mutex_) {
        if (spool_ == nullptr) {
            return;
        }
        const auto found = unspooled_.find(last_number_in(event->id));
        if (found != unspooled_.end() && found->second == event) {
            unspooled_.erase(found);
        } else {
            finished_.push_back(event->id);
        }
    }

    void drop_audio() QV_REQUIRES(mutex_) {
        while (audio_bytes_ > most_audio_ && !audio_.empty()) {
            audio_bytes_ -= audio_.front().size();
            audio_.pop_front();
            ++lost_chunks_;
        }
    }

    bool waiting_audio() const QV_REQUIRES(mutex_) { return !audio_.empty() || batch_size_ != 0; }

    void tell(const std::string& what, const std::string& details) QV_REQUIRES(mutex_) {
        if (news_.size() < MOST_NEWS) {
            news_.emplace_back(what, details);
        }
    }

    // The library's threads call these.

    // An exception would end the program. Only a lack of memory throws here; what is not noted
    // then is a line, or an answer, whose event is sent again.
    template <typename Call>
    static void guarded(const Call& call) {
        try {
            call();
        } catch (const std::exception&) {
        }
    }

    static void on_connected(natsConnection* connection, void* self) {
        guarded([&] { static_cast<Engine*>(self)->connected(connection); });
    }
    static void on_disconnected(natsConnection* /*connection*/, void* self) {
        guarded([&] { static_cast<Engine*>(self)->disconnected(); });
    }
    static void on_closed(natsConnection* connection, void* self) {
        guarded([&] { static_cast<Engine*>(self)->closed(connection); });
        static_cast<Engine*>(self)->remove_callback();
    }
    static void on_complete(void* self) { static_cast<Engine*>(self)->remove_callback(); }
    static void on_error(natsConnection* connection, natsSubscription* /*subscription*/,
                         natsStatus status, void* self) {
        guarded([&] {
            const std::string text = last_error(connection);
            static_cast<Engine*>(self)->complain(text.empty() ? status_text(status) : text);
        });
    }
    static void on_answer(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                          natsMsg* message, void* self) {
        const MessagePointer owned(message);
        guarded([&] { static_cast<Engine*>(self)->answered(read_answer(message)); });
    }

    void connected(natsConnection* connection) QV_EXCLUDES(mutex_) {
        std::array<char, 256> url{};
        natsConnection_GetConnectedUrl(connection, url.data(), url.size());
        {
            const LockGuard lock(mutex_);
            connected_ = true;
            complaints_.clear();
            // What was under way may have been lost.
            queue_.send_again(Clock::time_point::max());
            tell("nats connected", plain_url(url.data()));
        }
        work_.notify_one();
    }

    static std::string last_error(natsConnection* connection) {
        const char* text = nullptr;
        natsConnection_GetLastError(connection, &text);
        return text != nullptr ? text : "";
    }

    // By this object, or because the servers refuse its credentials.
    void closed(natsConnection* connection) QV_EXCLUDES(mutex_) {
        const std::string text = last_error(connection);
        if (!text.empty()) {
            complain(text);
        }
    }

    void add_callback() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        ++callbacks_;
    }
    void remove_callback() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        --callbacks_;
        progress_.notify_all();  // With the lock: this object may be gone after it.
    }

    void disconnected() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        if (std::exchange(connected_, false) && !stopping_) {
            tell("nats disconnected", "events and audio wait");
        }
    }

    // Each complaint is reported once while a connection lasts.
    void complain(const std::string& text) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        if (complaints_.size() < MOST_NEWS && complaints_.insert(text).second) {
            tell("nats trouble", text);
        }
    }

    void answered(Answer answer) QV_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            answers_.push_back(std::move(answer));
        }
        work_.notify_one();
    }

    // The thread.

    // The library connects again by itself, but not if it never was connected, nor after the
    // servers have refused the credentials.
    void keep_connection() QV_EXCLUDES(mutex_) {
        const auto now = Clock::now();
        if (now >= next_connection_ &&
            (connection_ == nullptr || natsConnection_IsClosed(connection_.get()))) {
            next_connection_ = now + milliseconds(settings_.reconnect_ms);
            disconnect();
            connect();
        }
    }

    void disconnect() {
        if (connection_ != nullptr) {
            natsConnection_Close(connection_.get());
        }
        answers_of_.reset();
        stream_.reset();
        connection_.reset();
    }

    // The library's threads may call this object until then.
    void wait_for_callbacks() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        const auto until = Clock::now() + LONGEST_PAUSE;
        while (callbacks_ != 0 && progress_.wait_until(mutex_, until)) {
        }
    }

    void connect() QV_EXCLUDES(mutex_) {
        natsConnection* made = nullptr;
        add_callback();  // That it is closed.
        const natsStatus status = natsConnection_Connect(&made, options_.get());
        connection_.reset(made);
        if (made == nullptr) {
            remove_callback();
            complain("not connected yet (" + status_text(status) + "); events and audio wait");
            return;
        }
        connected(made);
        natsInbox* inbox = nullptr;
        natsInbox_Create(&inbox);
        inbox_ = inbox;
        natsInbox_Destroy(inbox);
        natsSubscription* subscription = nullptr;
        natsStatus result =
            natsConnection_Subscribe(&subscription, made, (inbox_ + ".*").c_str(), on_answer, this);
        answers_of_.reset(subscription);
        if (result == NATS_OK &&
            natsSubscription_SetOnCompleteCB(subscription, on_complete, this) == NATS_OK) {
            add_callback();
        }
        jsCtx* context = nullptr;
        jsOptions wait;
        jsOptions_Init(&wait);
        wait.Wait = REQUEST_MS;
        if (result == NATS_OK) {
            result = natsConnection_JetStream(&context, made, &wait);
        }
        stream_.reset(context);
        if (result != NATS_OK) {
            complain("no answers: " + status_text(result));
        }
    }

    // Returns false at the end.
    bool wait_for_work() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        const auto until = Clock::now() + TICK;
        while (!stopping_ && answers_.empty() && !(connected_ && may_send()) &&
               work_.wait_until(mutex_, until)) {
        }
        if (queue_.send_again(Clock::now() - ANSWER_TIME) != 0 && connected_) {
            unanswered_ = true;
            note_refusal(false, "no answer");
        }
        return !stopping_;
    }

    bool may_send() const QV_REQUIRES(mutex_) {
        const auto now = Clock::now();
        return (!audio_.empty() && now >= next_audio_) ||
               (!unspooled_.empty() && now >= next_spooling_) ||
               (queue_.under_way() < MOST_UNDER_WAY && queue_.has_ready(now));
    }

    // Returns whether a stream may be missing.
    bool take_answers() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        bool stored = false;
        std::string refusal;
        // If others get the events, the server does not say that no stream does.
        bool missing = std::exchange(unanswered_, false);
        for (const Answer& answer : std::exchange(answers_, {})) {
            if (!answer.stored) {
                refusal = answer.error;
                missing = missing || answer.no_stream;
                queue_.refused(answer.number, Clock::now() + RETRY);
                continue;
            }
            stored = true;
            const EventQueue::Event event = queue_.stored(answer.number);
            if (event != nullptr) {
                ++stored_events_;
                forget(event);
            }
        }
        note_refusal(stored, refusal);
        return missing;
    }

    void note_refusal(bool stored, const std::string& refusal) QV_REQUIRES(mutex_) {
        // Some may be stored while others are refused, so the trouble ends only when none is.
        if (!refusal.empty()) {
            if (std::exchange(refusal_, refusal) != refusal) {
                tell("events not taken", refusal + "; they wait");
            }
        } else if (stored && !std::exchange(refusal_, "").empty()) {
            tell("events are taken again", "");
        }
    }

    void write_spool() QV_EXCLUDES(mutex_) {
        if (spool_ == nullptr) {
            return;
        }
        std::vector<std::string> finished;
        {
            const LockGuard lock(mutex_);
            finished.swap(finished_);
        }
        std::string error = spool_->release(finished);
        for (auto events = to_spool(); error.empty() && !events.empty(); events = to_spool()) {
            error = spool_->keep(events);
            note_spooled(events, error.empty());
        }
        if (!error.empty()) {
            complain("events are not kept on the disk: " + error);
        }
    }

    // The oldest events that the spool does not hold.
    std::vector<EventQueue::Event> to_spool() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        std::vector<EventQueue::Event> events;
        if (stopping_ || Clock::now() >= next_spooling_) {
            for (const auto& [number, event] : unspooled_) {
                if (events.size() == SPOOLED_AT_ONCE) {
                    break;
                }
                events.push_back(event);
            }
        }
        return events;
    }

    void note_spooled(const std::vector<EventQueue::Event>& events, bool kept) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        if (!kept) {
            next_spooling_ = Clock::now() + RETRY;
            return;
        }
        for (const EventQueue::Event& event : events) {
            if (unspooled_.erase(last_number_in(event->id)) == 0) {
                finished_.push_back(event->id);  // It was dropped meanwhile.
            }
        }
    }

    void send_events() QV_EXCLUDES(mutex_) {
        while (connection_ != nullptr) {
            EventQueue::Entry entry;
            {
                const LockGuard lock(mutex_);
                if (connected_ && queue_.under_way() < MOST_UNDER_WAY) {
                    entry = queue_.next(Clock::now());
                }
            }
            if (entry.number == 0 || !send(entry)) {
                return;
            }
        }
    }

    bool send(const EventQueue::Entry& entry) QV_EXCLUDES(mutex_) {
        const EngineEvent& event = *entry.event;
        const std::string subject = "quorvane.events." + event.call + '.' + event.kind;
        const std::string reply = inbox_ + '.' + std::to_string(entry.number);
        natsMsg* made = nullptr;
        natsStatus status = natsMsg_Create(&made, subject.c_str(), reply.c_str(), event.text.data(),
                                           static_cast<int>(event.text.size()));
        const MessagePointer message(made);
        const auto set = [&](const char* name, const std::string& value) {
            status = status == NATS_OK ? natsMsgHeader_Set(made, name, value.c_str()) : status;
        };
        set("Nats-Msg-Id", event.id);
        set("Quorvane-Node", settings_.node);
        if (status == NATS_OK) {
            status = natsConnection_PublishMsg(connection_.get(), made);
        }
        if (status == NATS_OK) {
            return true;
        }
        complain(status == NATS_MAX_PAYLOAD
                     ? "an event is longer than the server allows"
                     : "an event is not sent (" + status_text(status) + "); it waits");
        const LockGuard lock(mutex_);
        if (status != NATS_MAX_PAYLOAD) {
            queue_.refused(entry.number, Clock::now() + RETRY);
        } else if (const auto dropped = queue_.drop(entry.number); dropped != nullptr) {
            forget(dropped);
        }
        return false;
    }

    void send_audio() QV_EXCLUDES(mutex_) {
        std::vector<EngineChunk> batch;
        {
            const LockGuard lock(mutex_);
            if (!connected_ || connection_ == nullptr || Clock::now() < next_audio_) {
                return;
            }
            std::uint64_t bytes = 0;
            while (!audio_.empty() && bytes < BATCH_BYTES && batch.size() < BATCH_CHUNKS) {
                bytes += audio_.front().size();
                batch.push_back(std::move(audio_.front()));
                audio_.pop_front();
            }
            batch_size_ = batch.size();
        }
        if (!batch.empty()) {
            const bool taken = send(batch);
            finish_batch(batch, taken);
        }
    }

    // Returns whether the server has taken all of them. Those that it never takes leave the batch.
    bool send(std::vector<EngineChunk>& batch) QV_EXCLUDES(mutex_) {
        natsStatus status = NATS_OK;
        for (auto chunk = batch.begin(); chunk != batch.end() && status == NATS_OK;) {
            status = send(*chunk);
            if (status == NATS_MAX_PAYLOAD) {
                lose(*chunk);
                chunk = batch.erase(chunk);
                status = NATS_OK;
            } else {
                ++chunk;
            }
        }
        if (status == NATS_OK) {
            status = natsConnection_FlushTimeout(connection_.get(), REQUEST_MS);
        }
        if (status != NATS_OK) {
            complain("audio is not taken (" + status_text(status) + "); it waits");
        }
        return status == NATS_OK;
    }

    void lose(const EngineChunk& chunk) QV_EXCLUDES(mutex_) {
        complain("a chunk of audio is longer than the server allows");
        const LockGuard lock(mutex_);
        ++lost_chunks_;
        --batch_size_;
        audio_bytes_ -= chunk.size();
    }

    natsStatus send(const EngineChunk& chunk) {
        const std::string subject = "quorvane.audio." + chunk.call + '.' + chunk.side;
        natsMsg* made = nullptr;
        natsStatus status = natsMsg_Create(
            &made, subject.c_str(), nullptr, reinterpret_cast<const char*>(chunk.samples.data()),
            static_cast<int>(chunk.samples.size() * sizeof(std::int16_t)));
        const MessagePointer message(made);
        const auto set = [&](const char* name, const std::string& value) {
            status = status == NATS_OK ? natsMsgHeader_Set(made, name, value.c_str()) : status;
        };
        set("Quorvane-Node", settings_.node);
        set("Quorvane-Call-Key", chunk.call_key);
        set("Quorvane-Stream", chunk.stream);
        set("Quorvane-Sequence", std::to_string(chunk.sequence));
        set("Quorvane-Position", std::to_string(chunk.position));
        set("Quorvane-Send-Time", std::to_string(chunk.send_time));
        set("Quorvane-Sample-Rate", std::to_string(chunk.sample_rate));
        if (chunk.gap != 0) {
            set("Quorvane-Gap", std::to_string(chunk.gap));
        }
        if (chunk.pause != 0) {
            set("Quorvane-Pause", std::to_string(chunk.pause));
        }
        if (!chunk.end.empty()) {
            set("Quorvane-End", chunk.end);
        }
        return status == NATS_OK ? natsConnection_PublishMsg(connection_.get(), made) : status;
    }

    // A batch that the server may not have taken waits again, in its place. Whoever gets a chunk
    // twice knows it by its sequence.
    void finish_batch(std::vector<EngineChunk>& batch, bool taken) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        batch_size_ = 0;
        if (taken) {
            sent_chunks_ += batch.size();
            for (const EngineChunk& chunk : batch) {
                audio_bytes_ -= chunk.size();
            }
            return;
        }
        next_audio_ = Clock::now() + TICK;
        audio_.insert(audio_.begin(), std::make_move_iterator(batch.begin()),
                      std::make_move_iterator(batch.end()));
        drop_audio();
    }

    void create_stream() QV_EXCLUDES(mutex_) {
        if (!settings_.create_stream || stream_ == nullptr || Clock::now() < next_creation_) {
            return;
        }
        const char* subject = "quorvane.events.>";
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        config.Name = settings_.stream.c_str();
        config.Description = "Events of quorvane-node";
        config.Subjects = &subject;
        config.SubjectsLen = 1;
        config.Replicas = settings_.replicas;
        config.MaxBytes = static_cast<std::int64_t>(settings_.stream_mib << 20);
        config.MaxAge = static_cast<std::int64_t>(settings_.stream_hours * 3600 * NANOS_PER_SECOND);
        config.Duplicates = static_cast<std::int64_t>(settings_.duplicates_s * NANOS_PER_SECOND);
        jsErrCode code{};
        const natsStatus status = js_AddStream(nullptr, stream_.get(), &config, nullptr, &code);
        if (status == NATS_OK) {
            creation_pause_ = FIRST_PAUSE;
            const LockGuard lock(mutex_);
            tell("nats stream", settings_.stream + " is there");
            return;
        }
        next_creation_ = Clock::now() + creation_pause_;
        creation_pause_ = std::min(2 * creation_pause_, LONGEST_PAUSE);
        if (code == JSStreamSubjectOverlapErr) {
            return;  // There is one already, of another name.
        }
        const char* details = nats_GetLastError(nullptr);
        complain("stream " + settings_.stream +
                 " not created: " + (details != nullptr ? details : status_text(status)));
    }

    EngineSettings settings_;
    const std::string run_;
    const std::uint64_t most_audio_;  // Bytes.
    OptionsPointer options_;

    // The thread's.
    ConnectionPointer connection_;
    StreamContext stream_;
    SubscriptionPointer answers_of_;
    std::string inbox_;
    Clock::time_point next_connection_{};
    Clock::time_point next_creation_{};
    milliseconds creation_pause_ = FIRST_PAUSE;
    std::unique_ptr<EventSpool> spool_;  // Null unless wanted. Constant when the thread runs.

    mutable Mutex mutex_;
    Condition work_;
    Condition progress_;
    EventQueue queue_ QV_GUARDED_BY(mutex_);
    // Events of the queue that the spool does not hold yet, by their number in this run.
    std::map<std::uint64_t, EventQueue::Event> unspooled_ QV_GUARDED_BY(mutex_);
    std::vector<std::string> finished_ QV_GUARDED_BY(mutex_);  // Ids that the spool need not keep.
    Clock::time_point next_spooling_ QV_GUARDED_BY(mutex_){};  // After the disk took nothing.
    std::deque<EngineChunk> audio_ QV_GUARDED_BY(mutex_);
    Clock::time_point next_audio_ QV_GUARDED_BY(mutex_){};  // After a batch was not taken.
    std::size_t batch_size_ QV_GUARDED_BY(mutex_) = 0;      // Chunks under way.
    std::uint64_t audio_bytes_ QV_GUARDED_BY(mutex_) = 0;   // Of all chunks, with those under way.
    std::vector<Answer> answers_ QV_GUARDED_BY(mutex_);
    Publisher::News news_ QV_GUARDED_BY(mutex_);
    std::set<std::string> complaints_ QV_GUARDED_BY(mutex_);
    bool unanswered_ QV_GUARDED_BY(mutex_) = false;  // Some event, for too long.
    std::string refusal_ QV_GUARDED_BY(mutex_);      // Why events are not taken. Empty if they are.
    std::uint64_t last_event_ QV_GUARDED_BY(mutex_) = 0;
    std::uint64_t stored_events_ QV_GUARDED_BY(mutex_) = 0;
    std::uint64_t sent_chunks_ QV_GUARDED_BY(mutex_) = 0;
    std::uint64_t lost_chunks_ QV_GUARDED_BY(mutex_) = 0;
    bool connected_ QV_GUARDED_BY(mutex_) = false;
    bool stopping_ QV_GUARDED_BY(mutex_) = false;
    bool ended_ QV_GUARDED_BY(mutex_) = false;  // The thread uses nothing any more.
    int callbacks_ QV_GUARDED_BY(mutex_) = 0;   // That the library has yet to call.
};

// A thread that the library or the spool's disk does not let go is left behind with its engine.
class NatsPublisher : public Publisher {
  public:
    explicit NatsPublisher(std::shared_ptr<Engine> engine)
        : engine_(std::move(engine)), thread_([engine = engine_] { engine->run(); }) {}
    ~NatsPublisher() override { NatsPublisher::finish(); }
    NatsPublisher(const NatsPublisher&) = delete;
    NatsPublisher& operator=(const NatsPublisher&) = delete;

    const std::string& run() const override { return engine_->run_id(); }
    void push(EngineEvent event) override { engine_->push(std::move(event)); }
    void push(EngineChunk chunk) override { engine_->push(std::move(chunk)); }
    EngineFigures figures() const override { return engine_->figures(); }
    News take_news() override { return engine_->take_news(); }
    bool wait(milliseconds longest) override { return engine_->wait(longest); }

    Left finish() override {
        if (thread_.joinable()) {
            if (engine_->stop()) {
                thread_.join();
            } else {
                thread_.detach();
            }
        }
        return engine_->left();
    }

  private:
    const std::shared_ptr<Engine> engine_;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<Publisher> make_publisher(const EngineSettings& settings, std::string& error) {
    auto engine = std::make_shared<Engine>(settings);
    error = engine->open();
    if (!error.empty()) {
        return nullptr;
    }
    return std::make_unique<NatsPublisher>(std::move(engine));
}

}  // namespace qv::node
