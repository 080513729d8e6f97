#include "node/capture_player.h"

#include "node/report/text.h"
#include "node/tick.h"

namespace qv::node {

std::string CapturePlayer::open(const std::string& path, const std::optional<sockaddr_in>& target) {
    path_ = path;
    capture_.emplace(target);
    const std::string error = capture_->open(path);
    return error.empty() ? error : "cannot read capture " + path + ": " + error;
}

void CapturePlayer::play(CallTable& calls, const CallLimits& limits) {
    std::optional<Datagram> datagram = capture_->next();
    now_ = datagram.has_value() ? datagram->arrival.time : Micros{0};
    report_as_of(now_);
    program_.begin(now_);
    for (; datagram.has_value() && program_.goes_on(); datagram = capture_->next()) {
        pass_time(calls, datagram->arrival.time);
        if (program_.has_enough()) {
            break;
        }
        report_as_of(datagram->arrival.time);
        program_.receive(*datagram);
        program_.act();
    }
    // Stops waiting for late packets, and ends the calls that have a terminate packet.
    pass_time(calls, now_ + limits.linger + limits.reorder.wait + 2 * TICK);
}

void CapturePlayer::pass_time(CallTable& calls, Micros until) {
    // Without calls, the rest of the time needs no ticks.
    while (now_ + TICK <= until && calls.size() != 0) {
        now_ += TICK;
        report_as_of(now_);
        program_.tick(now_);
        // The end of a call is reported at its time in the capture.
        while (calls.completing() != 0 && program_.keep_waiting()) {
            program_.act();
            program_.complete_files();
            calls.report_ends();
        }
        program_.act();
        program_.update(now_);
    }
    now_ = calls.size() != 0 ? now_ : until;
}

void CapturePlayer::report(LineReport& lines) const {
    const std::uint64_t unusable = capture_->cut() + capture_->incomplete();
    lines.say(
        "capture read",
        counted(capture_->frames(), "frame") + ", " + counted(capture_->taken(), "datagram") +
            " taken" +
            (unusable == 0 ? ""
                           : ", " + grouped(capture_->cut()) + " cut short, " +
                                 grouped(capture_->incomplete()) + " with fragments missing"));
    if (damaged()) {
        lines.say("capture damaged", path_ + ": " + capture_->error());
    }
}

}  // namespace qv::node
