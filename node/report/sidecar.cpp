#include "node/report/sidecar.h"

#include <array>
#include <cstdint>
#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "node/audio/failure_text.h"
#include "node/audio/file_names.h"
#include "node/audio/new_file.h"
#include "node/audio/task_outcome.h"
#include "node/calls/call.h"
#include "node/report/bounded_list.h"
#include "node/report/call_clock.h"
#include "node/report/event_json.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

using OrderedJson = nlohmann::ordered_json;

// The first number is raised when readers of earlier files could misunderstand later ones.
constexpr int SIDECAR_VERSION = 1;

struct ActiveStretch {
    std::uint64_t begin;
    std::uint64_t end;
};

using Room = std::shared_ptr<SharedRoom>;

struct SideLists {
    explicit SideLists(const Room& room)
        : rate_changes(Sidecar::MOST_ENTRIES, room),
          activity(Sidecar::MOST_ENTRIES, room),
          samples(Sidecar::MOST_ENTRIES, room) {}

    BoundedList<RateChange> rate_changes;
    BoundedList<ActiveStretch> activity;
    BoundedList<FoundSample> samples;
    std::uint64_t skipped_samples = 0;  // Samples that no analysis has heard.
};

// The features from a packet on.
struct FeaturesEntry {
    std::optional<Micros> time;  // Since 1970.
    std::int64_t send_time;
    media::features16_t features;
    std::array<std::uint64_t, SIDE_COUNT> positions;
};

// All that is written of a call.
struct SidecarData {
    explicit SidecarData(const Room& room)
        : lists{SideLists(room), SideLists(room)}, features(Sidecar::MOST_ENTRIES, room) {}

    OrderedJson head;                                          // The fields of the whole call.
    std::array<std::optional<OrderedJson>, SIDE_COUNT> sides;  // Without their lists.
    std::array<SideLists, SIDE_COUNT> lists;
    BoundedList<FeaturesEntry> features;
    std::vector<FileReport> files;
};

OrderedJson time_json(const std::optional<Micros>& time) {
    return time.has_value() ? OrderedJson(utc_time_ms(*time)) : OrderedJson(nullptr);
}

OrderedJson features_list(const SidecarData& data) {
    OrderedJson list = OrderedJson::array();
    for (const FeaturesEntry& entry : data.features.entries()) {
        OrderedJson positions = OrderedJson::object();
        for (const Side side : BOTH_SIDES) {
            if (data.sides[index_of(side)].has_value()) {
                positions[name_of(side)] = entry.positions[index_of(side)];
            }
        }
        list.push_back({{"time", time_json(entry.time)},
                        {"send_time", entry.send_time},
                        {"features", features_json(entry.features)},
                        {"positions", positions}});
    }
    return list;
}

OrderedJson files_list(const SidecarData& data) {
    OrderedJson list = OrderedJson::array();
    for (const FileReport& file : data.files) {
        OrderedJson entry = {{"name", file.path.substr(file.path.rfind('/') + 1)}};
        entry.update(file_json(file));
        entry.erase("path");
        list.push_back(std::move(entry));
    }
    return list;
}

void add_lists(OrderedJson& side, const SideLists& lists) {
    OrderedJson rate_changes = OrderedJson::array();
    for (const RateChange& change : lists.rate_changes.entries()) {
        rate_changes.push_back({{"position", change.position},
                                {"old_sample_rate", change.old_rate},
                                {"new_sample_rate", change.new_rate}});
    }
    OrderedJson activity = OrderedJson::array();
    for (const ActiveStretch& stretch : lists.activity.entries()) {
        activity.push_back({{"begin", stretch.begin}, {"end", stretch.end}});
    }
    OrderedJson samples = OrderedJson::array();
    for (const FoundSample& found : lists.samples.entries()) {
        samples.push_back(
            {{"sample", found.name}, {"position", found.position}, {"score", found.score}});
    }
    side["rate_change"] = std::move(rate_changes);
    side["activity"] = std::move(activity);
    side["sample"] = std::move(samples);
    side["analysis_skipped"] = lists.skipped_samples;
    side["left_out"] = {{"rate_change", lists.rate_changes.left_out()},
                        {"activity", lists.activity.left_out()},
                        {"sample", lists.samples.left_out()}};
}

std::string sidecar_text(const SidecarData& data) {
    OrderedJson all = data.head;
    all["features"] = features_list(data);
    all["features_left_out"] = data.features.left_out();
    all["sides"] = OrderedJson::object();
    for (const Side side : BOTH_SIDES) {
        if (data.sides[index_of(side)].has_value()) {
            OrderedJson fields = *data.sides[index_of(side)];
            add_lists(fields, data.lists[index_of(side)]);
            all["sides"][name_of(side)] = std::move(fields);
        }
    }
    all["files"] = files_list(data);
    // Texts of packets and names of files may contain invalid UTF-8.
    return all.dump(1, ' ', false, OrderedJson::error_handler_t::replace) + '\n';
}

// A file that a task writes. Until the outcome is done, only the task touches the report.
struct Saving {
    FileReport file;
    TaskOutcome outcome;

    void save(const Sidecar::Options& options, const std::string& name, const std::string& text) {
        NewFile made(options.folder, name);
        if (!made.write(text) || (options.force && !made.force()) || !outcome.go_on() ||
            !made.publish(options.overwrite)) {
            file.error = made.error();
            return;
        }
        file.path.swap(made.path());
        if (options.force) {
            const int error = made.force_name();
            file.error = error == 0 ? "" : std::generic_category().message(error);
        }
    }
};

}  // namespace

class Sidecar::SidecarOfCall : public CallListener {
  public:
    SidecarOfCall(Sidecar& sidecar, Call& call)
        : sidecar_(sidecar), call_(call), begin_(wall_time()), data_(sidecar.room_) {}

    void started(const Call& /*call*/, const media::Packet& packet) override {
        note_features(packet.send_time);
    }
    void features_changed(const Call& /*call*/, const media::Packet& packet) override {
        note_features(packet.send_time);
    }
    void data(const Call& /*call*/, const media::Packet& packet) override {
        clock_.note(packet.send_time);
    }

    void pause(const Call& call, Side side, const Pause& pause) override {
        if (pause.position == 0) {
            begin_later_s_[index_of(side)] +=
                seconds_of(pause.samples, call.side(side).first_sample_rate());
        }
    }
    void rate_changed(const Call& /*call*/, Side side, const RateChange& change) override {
        lists(side).rate_changes.add(change);
    }
    void activity(const Call& /*call*/, Side side, const Activity& activity) override {
        std::optional<std::uint64_t>& since = active_since_[index_of(side)];
        if (activity.active) {
            since = since.value_or(activity.position);
        } else if (since.has_value()) {
            lists(side).activity.add({*since, activity.position});
            since.reset();
        }
    }
    void sample_found(const Call& /*call*/, Side side, const FoundSample& sample) override {
        lists(side).samples.add(sample);
    }
    void skipped(const Call& /*call*/, Side side, std::uint64_t samples) override {
        lists(side).skipped_samples += samples;
    }

    void summing_up(const Call& /*call*/, EndReason reason) override {
        for (const Side side : BOTH_SIDES) {
            activity(call_, side, {false, call_.side(side).position(), 0});
            if (call_.side(side).begun()) {
                data_.sides[index_of(side)] = side_fields(side);
            }
        }
        data_.head = head(reason);
        data_.files = call_.files();
        write();
    }

    bool completing(const Call& /*call*/) const override {
        return saving_ != nullptr && !saving_->outcome.settled(sidecar_.tasks_.abandoned());
    }

    void ended(const Call& /*call*/, EndReason /*reason*/) override {
        if (saving_ == nullptr) {
            return;
        }
        // Until the task is done, only the task touches what it saves.
        const FileReport file =
            saving_->outcome.done()
                ? saving_->file
                : FileReport{call_.sidecar(), "the program ended before it was written"};
        call_.set_sidecar(file.error.empty() ? file.path : "");
        if (!file.error.empty()) {
            call_.report_failed_file(file);
        }
    }

  private:
    SideLists& lists(Side side) { return data_.lists[index_of(side)]; }

    void note_features(std::int64_t send_time) {
        clock_.note(send_time);
        FeaturesEntry entry{clock_.at(send_time), send_time, call_.features(), {}};
        for (const Side side : BOTH_SIDES) {
            if (call_.side(side).begun()) {
                entry.positions[index_of(side)] = call_.side(side).position_at(send_time);
            }
        }
        data_.features.add(entry);
    }

    OrderedJson head(EndReason reason) const {
        OrderedJson head = {{"sidecar_version", SIDECAR_VERSION},
                            {"program", "quorvane-node"},
                            {"call_uuid", uuid_text(call_.uuid())},
                            {"call_key", key_text(call_.call_key())},
                            {"source", address_text(call_.source())},
                            {"begin", utc_time_ms(begin_)},
                            {"end", utc_time_ms(begin_ + call_.last_seen() - call_.first_seen())}};
        add_start(head);
        OrderedJson end = end_json(call_, reason);
        end.erase("sides");
        end.erase("files");
        end.erase("sidecar");
        head.update(end);
        return head;
    }

    void add_start(OrderedJson& head) const {
        const StartFields start = call_.start().value_or(StartFields());
        const OrderedJson fields = {{"call_reference", start.call_reference},
                                    {"outbound", start.outbound()},
                                    {"created_time", start.created_time},
                                    {"configured_time", start.configured_time},
                                    {"configured_clock", start.configured_clock},
                                    {"rule_id_given", start.rule_id_given()},
                                    {"rule_id", std::to_string(start.rule_id)},
                                    {"report_node", start.report_node}};
        for (const auto& [name, value] : fields.items()) {
            head[name] = call_.start().has_value() ? value : OrderedJson(nullptr);
        }
    }

    OrderedJson side_fields(Side which) const {
        const CallSide& side = call_.side(which);
        OrderedJson fields = {{"begin", time_json(begin_of(which))},
                              {"seconds", side.seconds_at(side.position())},
                              {"seconds_with_pauses", side.seconds_with_pauses()}};
        fields.update(side_json(side));
        return fields;
    }

    // When the first sample of the side was due.
    std::optional<Micros> begin_of(Side side) const {
        const std::optional<std::int64_t> axis = call_.first_audio_time();
        const std::optional<Micros> begin = axis.has_value() ? clock_.at(*axis) : std::nullopt;
        const auto later = Micros(static_cast<std::int64_t>(begin_later_s_[index_of(side)] * 1e6));
        return begin.has_value() ? std::optional(*begin + later) : std::nullopt;
    }

    void write() {
        const std::string name = sidecar_file_name(call_.file_stem());
        saving_ = std::make_shared<Saving>();
        saving_->file.path = sidecar_.options_.folder + '/' + name;
        call_.set_sidecar(saving_->file.path);
        sidecar_.on_saved_(name);
        sidecar_.tasks_.add_short([saving = saving_, options = sidecar_.options_, name,
                                   data = std::make_shared<SidecarData>(std::move(data_))] {
            try {
                saving->save(options, name, sidecar_text(*data));
            } catch (const std::exception& error) {  // No memory.
                saving->file.error = failure_text(error);
            }
            saving->outcome.finish();
        });
    }

    Sidecar& sidecar_;
    Call& call_;
    const Micros begin_;  // The first packet, since 1970.
    CallClock clock_;
    // From the beginning of the time axis to that of each side.
    std::array<double, SIDE_COUNT> begin_later_s_{};
    std::array<std::optional<std::uint64_t>, SIDE_COUNT> active_since_;
    SidecarData data_;
    std::shared_ptr<Saving> saving_;
};

Sidecar::Sidecar(TaskThread& tasks, Options options,
                 std::function<void(const std::string& name)> on_saved)
    : tasks_(tasks),
      options_(std::move(options)),
      on_saved_(std::move(on_saved)),
      room_(std::make_shared<SharedRoom>(MOST_OF_ALL_CALLS)) {}

std::unique_ptr<CallListener> Sidecar::begin_call(Call& call) {
    return call.file_stem().empty() ? nullptr : std::make_unique<SidecarOfCall>(*this, call);
}

}  // namespace qv::node
