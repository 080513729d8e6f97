#include "node/web/live_page.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "node/report/text.h"
#include "node/web/call_json.h"
#include "node/web/wave_ring.h"
#include "tools/version.h"

namespace qv::node::web {

namespace {

constexpr std::uint64_t SHOWN_COLUMNS = 600;  // 30 s.
constexpr Micros AUDIO_INTERVAL{25'000};
static_assert(SHOWN_COLUMNS <= WaveRing::READABLE);
constexpr Micros LONGEST_SILENCE{5'000'000};

std::string host_name() {
    char name[256] = "";
    ::gethostname(name, sizeof name - 1);
    return name;
}

std::string hello(bool can_log_out) {
    return R"({"type":"hello","version":)" + json_string(tools::version_number()) +
           ",\"time\":" + json_string(utc_time_ms(wall_time())) +
           ",\"node\":" + json_string(host_name()) +
           ",\"listen\":true,\"login\":" + (can_log_out ? "true" : "false") + "}";
}

std::string level_text(const std::optional<double>& level) {
    return level.has_value() ? std::to_string(std::lround(*level)) : "null";
}

}  // namespace

LivePage::~LivePage() {
    const LockGuard lock(mutex_);
    try {
        stop_listening("stopped", steady_now());
    } catch (const std::exception&) {
        // Memory is short. The end of listening is not reported, but the program goes on.
    }
    watch({});
    close_call();
}

void LivePage::add(std::string text) {
    waiting_.push_back({false, std::move(text)});
}

bool LivePage::take(std::string_view text, Micros now) {
    const LockGuard lock(mutex_);
    if (waiting_.size() >= MOST_WAITING) {
        return false;
    }
    std::string error;
    const auto message = read_page_message(text, error);
    if (!message.has_value()) {
        add(R"({"type":"error","error":)" + json_string(error) + "}");
        return true;
    }
    switch (message->type) {
        case PageMessage::Type::WATCH:
            watch(message->calls);
            break;
        case PageMessage::Type::OPEN:
            open(*message);
            break;
        case PageMessage::Type::LISTEN:
            listen(*message, now);
            break;
        case PageMessage::Type::STOP:
            stop_listening("stopped", now);
            break;
    }
    return true;
}

void LivePage::watch(const std::vector<std::uint64_t>& calls) {
    for (const auto& record : watched_) {
        record->unwatch();
    }
    watched_.clear();
    for (const std::uint64_t id : calls) {
        if (auto record = board_.find(id)) {
            record->watch();
            watched_.push_back(std::move(record));
        }
    }
    std::sort(watched_.begin(), watched_.end(),
              [](const auto& a, const auto& b) { return a->id() < b->id(); });
}

void LivePage::open(const PageMessage& message) {
    close_call();
    if (!message.call.has_value()) {
        return;
    }
    if (auto record = board_.find(*message.call)) {
        record->watch();
        opened_ = Opened{std::move(record)};
    } else {
        add(R"({"type":"error","error":"open: no such call"})");
    }
}

void LivePage::close_call() {
    if (opened_.has_value()) {
        opened_->record->unwatch();
        opened_.reset();
    }
}

void LivePage::listen(const PageMessage& message, Micros now) {
    stop_listening("stopped", now);
    auto record = board_.find(*message.call);
    if (record == nullptr) {
        add(R"({"type":"stopped","call":)" + std::to_string(*message.call) +
            R"(,"reason":"ended"})");
        return;
    }
    listened_sides_ = message.sides.size() == SIDE_COUNT ? "both" : name_of(message.sides.at(0));
    listening_.emplace(std::move(record), message.sides);
    listening_since_ = now;
    listening_told_ = false;
    on_listen_({listening_->record().uuid(), listened_sides_, std::nullopt});
}

void LivePage::stop_listening(const char* reason, Micros now) {
    if (!listening_.has_value()) {
        return;
    }
    add(R"({"type":"stopped","call":)" + std::to_string(listening_->record().id()) +
        ",\"reason\":" + json_string(reason) + "}");
    on_listen_({listening_->record().uuid(), listened_sides_, seconds_of(now - listening_since_)});
    listening_.reset();
}

std::vector<LiveMessage> LivePage::due(Micros now) {
    const LockGuard lock(mutex_);
    if (!greeted_) {
        add(hello(can_log_out_));
    }
    const auto frame = rows_.frame(now);
    if (frame != frame_) {
        add_calls(*frame);
        add_levels(*frame);
        add_wave();
        frame_ = frame;
    }
    greeted_ = true;
    add_audio(now);
    // A page takes a connection that says nothing for lost. It cannot see the server's pings.
    if (waiting_.empty() && now - said_at_ >= LONGEST_SILENCE) {
        add(R"({"type":"levels","rows":[]})");
    }
    if (!waiting_.empty()) {
        said_at_ = now;
    }
    return std::exchange(waiting_, {});
}

Micros LivePage::interval() {
    const LockGuard lock(mutex_);
    return listening_.has_value() ? AUDIO_INTERVAL : LiveRows::FRAME;
}

void LivePage::add_calls(const LiveFrame& frame) {
    std::string calls;
    std::string removed;
    std::string finished;
    const auto append = [](std::string& list, const std::string& text) {
        list += (list.empty() ? "" : ",") + text;
    };
    std::vector<Sent> sent;
    sent.reserve(frame.rows.size());
    auto former = sent_.begin();
    for (const LiveRow& row : frame.rows) {
        while (former != sent_.end() && former->id < row.id) {
            append(removed, std::to_string((former++)->id));
        }
        const bool known = former != sent_.end() && former->id == row.id;
        if (!known || former->version != row.version) {
            append(calls, *row.text);
        }
        former += known ? 1 : 0;
        sent.push_back({row.id, row.version});
    }
    for (; former != sent_.end(); ++former) {
        append(removed, std::to_string(former->id));
    }
    sent_ = std::move(sent);
    const std::uint64_t fresh =
        std::min<std::uint64_t>(frame.finished_end - finished_end_, frame.finished.size());
    for (std::uint64_t i = 0; i < fresh; ++i) {
        append(finished, *frame.finished[i]);
    }
    finished_end_ = frame.finished_end;
    if (greeted_ && calls.empty() && removed.empty() && finished.empty()) {
        return;
    }
    add(std::string(R"({"type":"calls")") + (greeted_ ? "" : ",\"reset\":true") + ",\"calls\":[" +
        calls + "],\"removed\":[" + removed + "],\"finished\":[" + finished + "]}");
}

void LivePage::add_levels(const LiveFrame& frame) {
    std::string rows;
    auto row = frame.rows.begin();
    for (const auto& record : watched_) {
        while (row != frame.rows.end() && row->id < record->id()) {
            ++row;
        }
        if (row == frame.rows.end() || row->id != record->id()) {
            continue;
        }
        const int bits = (row->active[0] ? 1 : 0) | (row->active[1] ? 2 : 0);
        rows += (rows.empty() ? "[" : ",[") + std::to_string(row->id) + "," +
                level_text(row->level_db[0]) + "," + level_text(row->level_db[1]) + "," +
                std::to_string(bits) + "]";
    }
    if (!rows.empty()) {
        add(R"({"type":"levels","rows":[)" + rows + "]}");
    }
}

void LivePage::add_wave() {
    if (!opened_.has_value()) {
        return;
    }
    const CallRecord& record = *opened_->record;
    std::string sides;
    for (const Side side : BOTH_SIDES) {
        const WaveRing& wave = record.wave(side);
        const std::uint64_t end = wave.end();
        std::uint64_t& begin = opened_->end[index_of(side)];
        if (end == begin && opened_->detailed) {
            continue;
        }
        const std::uint64_t from = std::max(begin, end > SHOWN_COLUMNS ? end - SHOWN_COLUMNS : 0);
        sides += std::string(sides.empty() ? "\"" : ",\"") + name_of(side) +
                 "\":{\"offset_ms\":0,\"end\":" + std::to_string(end) + ",\"columns\":\"" +
                 base64(wave.columns(from, end)) + "\"}";
        begin = end;
    }
    const auto [marks, next] = record.marks(opened_->marks);
    opened_->marks = next;
    if (opened_->detailed && sides.empty() && marks.empty()) {
        return;
    }
    std::string mark_list;
    for (const Mark& mark : marks) {
        mark_list += (mark_list.empty() ? "" : ",") + mark_text(mark);
    }
    add(std::string(R"({"type":")") + (opened_->detailed ? "wave" : "detail") + "\",\"call\":" +
        std::to_string(record.id()) + ",\"column_ms\":" + std::to_string(WaveGatherer::COLUMN_MS) +
        ",\"sides\":{" + sides + "},\"marks\":[" + mark_list + "]}");
    opened_->detailed = true;
}

void LivePage::add_audio(Micros now) {
    if (!listening_.has_value()) {
        return;
    }
    const bool over = listening_->record().over();  // Before the last of its audio is taken.
    std::vector<std::string> frames = listening_->take_frames(now);
    if (!listening_told_) {
        listening_told_ = true;
        add(R"({"type":"listening","call":)" + std::to_string(listening_->record().id()) +
            ",\"sides\":" + json_string(listened_sides_) +
            ",\"delay_ms\":" + std::to_string(listening_->delay().count() / 1000) + "}");
    }
    for (std::string& frame : frames) {
        waiting_.push_back({true, std::move(frame)});
    }
    if (over) {
        stop_listening("ended", now);
    }
}

}  // namespace qv::node::web
