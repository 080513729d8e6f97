// The calls as the pages show them now, made once for all pages: their JSON texts and their levels.
// Any thread may call it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "node/calls/types.h"
#include "node/web/call_board.h"
#include "node/web/file_folder.h"
#include "quorvane_lib/mutex.h"

namespace qv::node::web {

struct LiveRow {
    std::uint64_t id = 0;
    std::shared_ptr<const std::string> text;  // The call's JSON object.
    std::uint64_t version = 0;                // Of the text; never 0.
    Levels level_db;                          // Since the figures before these.
    std::array<bool, SIDE_COUNT> active{};
};

// Constant once it has been made.
struct LiveFrame {
    std::vector<LiveRow> rows;                                 // By id.
    std::vector<std::shared_ptr<const std::string>> finished;  // JSON objects, the newest first.
    std::uint64_t finished_end = 0;  // How many calls have ended in the run.
};

class LiveRows {
  public:
    static constexpr Micros FRAME{100'000};  // A frame is at least so old before another is made.

    // Both must outlive this object. The folder is that of the calls' files.
    LiveRows(const CallBoard& board, const FileFolder& folder) : board_(board), folder_(folder) {}

    // Returns the frame of now, on the steady clock of the node.
    std::shared_ptr<const LiveFrame> frame(Micros now) QV_EXCLUDES(mutex_);

  private:
    // What is known of a call from former frames.
    struct Known {
        LiveRow row;
        std::string facts_text;
        std::uint64_t facts_version = 0;
        std::uint64_t record_version = ~std::uint64_t{0};
        std::uint64_t text_version = 0;  // The record's when the text was made,
        Micros text_made{0};             // and the time.
        std::array<double, SIDE_COUNT> squares{};
        std::array<std::uint64_t, SIDE_COUNT> measured{};
    };

    void update(Known& known, const CallRecord& record, Micros now) QV_REQUIRES(mutex_);
    void update_finished(LiveFrame& frame) QV_REQUIRES(mutex_);

    const CallBoard& board_;
    const FileFolder& folder_;
    Mutex mutex_;
    std::map<std::uint64_t, Known> known_ QV_GUARDED_BY(mutex_);
    std::shared_ptr<const LiveFrame> latest_ QV_GUARDED_BY(mutex_);
    Micros made_ QV_GUARDED_BY(mutex_){0};
};

}  // namespace qv::node::web
