// An output: writes what the page shows of each call into the call's record on the board. It hears
// the audio only of calls that somebody listens to, and never waits for a reader. Any thread may
// call it.
#pragma once

#include <memory>

#include "node/calls/call_listener.h"
#include "node/web/call_board.h"

namespace qv::node::web {

class CallFeed : public CallListener {
  public:
    // `timelines` says whether calls get a picture. The board must outlive this object.
    CallFeed(CallBoard& board, bool timelines) : board_(board), timelines_(timelines) {}

    std::unique_ptr<CallListener> begin_call(Call& call) override;

  private:
    CallBoard& board_;
    const bool timelines_;
};

}  // namespace qv::node::web
