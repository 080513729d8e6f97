#include "host/media_bugs.h"

#include "tests/host/host_fixture.h"

namespace qv::host {
namespace {

using Kinds = std::vector<int>;

// A bug that records its events and answers as the test says.
struct Recorder {
    static switch_bool_t on_event(switch_media_bug_t* bug, void* user_data,
                                  switch_abc_type_t type) {
        auto& self = *static_cast<Recorder*>(user_data);
        self.kinds.push_back(type);
        self.session = switch_core_media_bug_get_session(bug);
        if (type == SWITCH_ABC_TYPE_READ_REPLACE) {
            self.keep(switch_core_media_bug_get_read_replace_frame(bug));
        }
        if (type == SWITCH_ABC_TYPE_WRITE_REPLACE) {
            self.keep(switch_core_media_bug_get_write_replace_frame(bug));
        }
        return type == self.refused ? SWITCH_FALSE : SWITCH_TRUE;
    }

    void keep(switch_frame_t* given) {
        frame_given = given != nullptr;
        if (!given) {
            return;
        }
        frame = *given;
        const auto* begin = static_cast<const std::uint8_t*>(given->data);
        data.assign(begin, begin + given->datalen);
        if (alter_size) {
            given->datalen += 2;
        }
        if (alter_data) {
            static_cast<std::uint8_t*>(given->data)[0] ^= 0xFF;
        }
    }

    int refused = -1;
    bool alter_size = false;
    bool alter_data = false;
    Kinds kinds;
    switch_core_session_t* session = nullptr;
    bool frame_given = false;
    switch_frame_t frame{};
    std::vector<std::uint8_t> data;
};

class MediaBugsTest : public HostTest {
  protected:
    switch_status_t add(Call& call, Recorder& recorder,
                        switch_media_bug_flag_t flags = SMBF_READ_REPLACE | SMBF_WRITE_REPLACE,
                        time_t stop_time = 0) {
        return switch_core_media_bug_add(call.session(), "recorder", nullptr, Recorder::on_event,
                                         &recorder, stop_time, flags, &bug_);
    }

    switch_media_bug_t* bug_ = nullptr;
    Recorder recorder_;
    std::unique_ptr<Call> call_ = host_.start_call();
};

TEST_F(MediaBugsTest, InitRunsBeforeAddReturns) {
    EXPECT_EQ(add(*call_, recorder_), SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(recorder_.kinds, Kinds{SWITCH_ABC_TYPE_INIT});
    EXPECT_EQ(recorder_.session, call_->session());
    EXPECT_NE(bug_, nullptr);
    EXPECT_EQ(host_.report().bugs_attached, 1u);
}

TEST_F(MediaBugsTest, ARefusedInitDropsTheBugWithoutAClose) {
    recorder_.refused = SWITCH_ABC_TYPE_INIT;
    EXPECT_EQ(add(*call_, recorder_), SWITCH_STATUS_GENERR);
    EXPECT_EQ(bug_, nullptr);
    call_->hangup();
    EXPECT_EQ(recorder_.kinds, Kinds{SWITCH_ABC_TYPE_INIT});
    EXPECT_EQ(host_.report().bugs_refused, 1u);
    EXPECT_EQ(host_.report().bugs_attached, 0u);
}

TEST_F(MediaBugsTest, CloseComesOnceAtHangup) {
    add(*call_, recorder_);
    call_->hangup();
    call_->hangup();
    EXPECT_EQ(recorder_.kinds, (Kinds{SWITCH_ABC_TYPE_INIT, SWITCH_ABC_TYPE_CLOSE}));
    EXPECT_EQ(host_.report().bugs_closed, 1u);
}

TEST_F(MediaBugsTest, FramesCarryTheirSamplesAndTheCodec) {
    add(*call_, recorder_);
    const std::uint8_t audio[] = {0x01, 0x02, 0x03, 0x04};
    const FrameResult result = call_->feed(Direction::READ, audio, sizeof(audio));
    EXPECT_EQ(result.bugs, 1u);
    EXPECT_EQ(recorder_.kinds, (Kinds{SWITCH_ABC_TYPE_INIT, SWITCH_ABC_TYPE_READ_REPLACE}));
    EXPECT_EQ(recorder_.data, (std::vector<std::uint8_t>{0x01, 0x02, 0x03, 0x04}));
    EXPECT_EQ(recorder_.frame.samples, 2u);
    EXPECT_EQ(recorder_.frame.rate, 8000u);
    EXPECT_STREQ(recorder_.frame.codec->implementation->iananame, "L16");
    EXPECT_EQ(recorder_.frame.codec->implementation->samples_per_packet, 160u);
}

TEST_F(MediaBugsTest, ABugGetsOnlyTheDirectionsItAskedFor) {
    add(*call_, recorder_, SMBF_WRITE_REPLACE);
    EXPECT_EQ(feed(*call_, Direction::READ, {1}).bugs, 0u);
    EXPECT_EQ(feed(*call_, Direction::WRITE, {1}).bugs, 1u);
    EXPECT_EQ(recorder_.kinds, (Kinds{SWITCH_ABC_TYPE_INIT, SWITCH_ABC_TYPE_WRITE_REPLACE}));
}

TEST_F(MediaBugsTest, UnnamedFlagBitsAreKept) {
    add(*call_, recorder_, 0x4000000C);
    ASSERT_EQ(call_->bugs().size(), 1u);
    EXPECT_EQ(call_->bugs()[0].flags, 0x4000000Cu);
    EXPECT_EQ(call_->bugs()[0].function, "recorder");
    EXPECT_EQ(call_->bugs()[0].target, "");
    EXPECT_EQ(call_->bugs()[0].user_data, &recorder_);
}

TEST_F(MediaBugsTest, AFrameMayBeEmpty) {
    add(*call_, recorder_);
    EXPECT_EQ(call_->feed(Direction::READ, nullptr, 0).bugs, 1u);
    EXPECT_TRUE(recorder_.frame_given);
    EXPECT_EQ(recorder_.frame.datalen, 0u);
}

TEST_F(MediaBugsTest, AFrameMayBeLargerThanTheHostsBuffer) {
    add(*call_, recorder_);
    const std::vector<std::int16_t> samples(10000, 7);
    EXPECT_EQ(feed(*call_, Direction::WRITE, samples).bugs, 1u);
    EXPECT_EQ(recorder_.data.size(), 20000u);
}

TEST_F(MediaBugsTest, AFrameOfTheCallersOwnIsHandedOutAsItIs) {
    add(*call_, recorder_);
    std::uint8_t audio[] = {1, 2, 3};
    switch_frame_t frame{};
    frame.data = audio;
    frame.datalen = 3;
    EXPECT_FALSE(call_->feed(Direction::READ, frame).altered);
    EXPECT_EQ(recorder_.frame.codec, nullptr);
    EXPECT_EQ(recorder_.frame.datalen, 3u);
}

TEST_F(MediaBugsTest, AnUntouchedFrameCountsAsUnaltered) {
    add(*call_, recorder_);
    EXPECT_FALSE(feed(*call_, Direction::READ, {1, 2}).altered);
    EXPECT_EQ(host_.report().frames_altered, 0u);
    EXPECT_EQ(host_.report().frames_delivered, 1u);
}

TEST_F(MediaBugsTest, AlteredSamplesAreCounted) {
    recorder_.alter_data = true;
    add(*call_, recorder_);
    EXPECT_TRUE(feed(*call_, Direction::READ, {1, 2}).altered);
    EXPECT_EQ(host_.report().frames_altered, 1u);
}

TEST_F(MediaBugsTest, AnAlteredFrameSizeIsCounted) {
    recorder_.alter_size = true;
    add(*call_, recorder_);
    EXPECT_TRUE(feed(*call_, Direction::WRITE, {1, 2}).altered);
}

TEST_F(MediaBugsTest, AFalseAnswerToAFramePrunesTheBugWithAClose) {
    recorder_.refused = SWITCH_ABC_TYPE_READ_REPLACE;
    add(*call_, recorder_);
    feed(*call_, Direction::READ, {1});
    EXPECT_EQ(recorder_.kinds,
              (Kinds{SWITCH_ABC_TYPE_INIT, SWITCH_ABC_TYPE_READ_REPLACE, SWITCH_ABC_TYPE_CLOSE}));
    EXPECT_EQ(feed(*call_, Direction::READ, {1}).bugs, 0u);
    EXPECT_EQ(host_.report().bugs_pruned, 1u);
    EXPECT_EQ(host_.report().bugs_attached, 0u);
}

TEST_F(MediaBugsTest, APrunedBugLeavesTheOthersAlone) {
    Recorder other;
    recorder_.refused = SWITCH_ABC_TYPE_READ_REPLACE;
    add(*call_, recorder_);
    add(*call_, other);
    EXPECT_EQ(feed(*call_, Direction::READ, {1}).bugs, 2u);
    EXPECT_EQ(feed(*call_, Direction::READ, {1}).bugs, 1u);
    call_.reset();
}

TEST_F(MediaBugsTest, ABugPastItsStopTimeIsPrunedAtItsNextFrame) {
    add(*call_, recorder_, SMBF_READ_REPLACE, 1);
    feed(*call_, Direction::READ, {1});
    EXPECT_EQ(recorder_.kinds.back(), SWITCH_ABC_TYPE_CLOSE);
}

TEST_F(MediaBugsTest, AnyEventCanBeRaised) {
    add(*call_, recorder_);
    EXPECT_TRUE(call_->raise(SWITCH_ABC_TYPE_READ_PING));
    EXPECT_EQ(recorder_.kinds.back(), SWITCH_ABC_TYPE_READ_PING);
    recorder_.refused = SWITCH_ABC_TYPE_READ;
    EXPECT_FALSE(call_->raise(SWITCH_ABC_TYPE_READ));
    EXPECT_EQ(recorder_.kinds.back(), SWITCH_ABC_TYPE_CLOSE);
}

TEST_F(MediaBugsTest, BugsCanBeRemovedWhileTheCallGoesOn) {
    add(*call_, recorder_);
    call_->remove_bugs();
    EXPECT_EQ(recorder_.kinds.back(), SWITCH_ABC_TYPE_CLOSE);
    EXPECT_EQ(host_.report().bugs_attached, 0u);
    EXPECT_TRUE(call_->alive());
}

TEST_F(MediaBugsTest, MediaOnDemandComesUpWithTheBug) {
    CallOptions options;
    options.media = MediaState::ON_DEMAND;
    const auto call = host_.start_call(options);
    EXPECT_EQ(switch_channel_test_ready(call->channel(), SWITCH_TRUE, SWITCH_TRUE), 0);
    EXPECT_EQ(add(*call, recorder_), SWITCH_STATUS_SUCCESS);
    EXPECT_NE(switch_channel_test_ready(call->channel(), SWITCH_TRUE, SWITCH_TRUE), 0);
}

TEST_F(MediaBugsTest, AChannelThatCannotHaveMediaIsHungUpByTheAttempt) {
    CallOptions options;
    options.media = MediaState::REFUSED;
    const auto call = host_.start_call(options);
    EXPECT_EQ(add(*call, recorder_), SWITCH_STATUS_FALSE);
    EXPECT_TRUE(recorder_.kinds.empty());
    EXPECT_EQ(switch_channel_get_state(call->channel()), CS_HANGUP);
    EXPECT_EQ(switch_channel_get_cause(call->channel()), SWITCH_CAUSE_INCOMPATIBLE_DESTINATION);
    EXPECT_TRUE(call->hangup());
}

TEST_F(MediaBugsTest, ABugCannotBeAddedOnceTheCallHangsUp) {
    call_->set_state(CS_HANGUP);
    EXPECT_EQ(add(*call_, recorder_), SWITCH_STATUS_FALSE);
    EXPECT_TRUE(recorder_.kinds.empty());
}

TEST_F(MediaBugsTest, AnAnswerRequiredByVariableHoldsTheFramesBack) {
    CallOptions options;
    options.media = MediaState::EARLY;
    options.variables["media_bug_answer_req"] = "true";
    const auto call = host_.start_call(options);
    add(*call, recorder_);
    EXPECT_EQ(feed(*call, Direction::READ, {1}).bugs, 0u);
    call->answer();
    EXPECT_EQ(feed(*call, Direction::READ, {1}).bugs, 1u);
}

TEST_F(MediaBugsTest, ARefusedBugFaultComesBeforeInit) {
    host_.faults().set(Fault::BUG_REFUSED);
    EXPECT_EQ(add(*call_, recorder_), SWITCH_STATUS_FALSE);
    host_.faults().set(Fault::BUG_REFUSED, false);
    host_.faults().set(Fault::OUT_OF_MEMORY);
    EXPECT_EQ(add(*call_, recorder_), SWITCH_STATUS_MEMERR);
    EXPECT_TRUE(recorder_.kinds.empty());
}

TEST_F(MediaBugsTest, ABugThatRefusesCanBeClosedAllTheSame) {
    recorder_.refused = SWITCH_ABC_TYPE_INIT;
    host_.faults().set(Fault::REFUSED_BUG_CLOSED);
    EXPECT_EQ(add(*call_, recorder_), SWITCH_STATUS_GENERR);
    EXPECT_EQ(recorder_.kinds, (Kinds{SWITCH_ABC_TYPE_INIT, SWITCH_ABC_TYPE_CLOSE}));
}

TEST_F(MediaBugsTest, ABugCanBeLostBehindItsInit) {
    host_.faults().set(Fault::BUG_LOST);
    EXPECT_EQ(add(*call_, recorder_), SWITCH_STATUS_GENERR);
    EXPECT_TRUE(call_->hangup());
    EXPECT_EQ(recorder_.kinds, (Kinds{SWITCH_ABC_TYPE_INIT}));
}

TEST_F(MediaBugsTest, TheFrameCanBeWithheld) {
    host_.faults().set(Fault::NULL_FRAME);
    add(*call_, recorder_);
    const FrameResult withheld = feed(*call_, Direction::READ, {1});
    EXPECT_FALSE(recorder_.frame_given);
    EXPECT_EQ(recorder_.kinds.size(), 2u);
    EXPECT_EQ(withheld.bugs, 1u);
    EXPECT_EQ(withheld.given, 0u);
    host_.faults().set(Fault::NULL_FRAME, false);
    EXPECT_EQ(feed(*call_, Direction::READ, {1}).given, 1u);
}

TEST_F(MediaBugsTest, ACodecMayHaveNoName) {
    CallOptions options;
    options.codec = std::nullopt;
    const auto call = host_.start_call(options);
    add(*call, recorder_);
    feed(*call, Direction::READ, {1});
    EXPECT_EQ(recorder_.frame.codec->implementation->iananame, nullptr);
}

}  // namespace
}  // namespace qv::host
