// Feeds calls made of the golden datagrams to a listener of the media node.
//
// The verbs send datagrams through a real call table that writes into memory. Time passes only when
// the test says so. Belongs to the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "node/audio/file_names.h"
#include "node/audio/recorder.h"
#include "node/calls/call_table.h"
#include "tests/node/audio/fake_audio_files.h"
#include "tests/support/golden.h"
#include "tools/address.h"

namespace qv::tests {

class NodeCallTest : public testing::Test {
  protected:
    // A derived test calls this first, with the listeners to test. The files of the calls are
    // written, too. Everything that the listeners write to must live as long as the test.
    void watch(const std::vector<node::CallListener*>& listeners,
               const node::CallLimits& limits = {}) {
        std::vector<node::CallListener*> outputs = {&file_names_, &recorder_};
        outputs.insert(outputs.end(), listeners.begin(), listeners.end());
        table_ = std::make_unique<node::CallTable>(limits, outputs);
    }

    // Call it before the listeners of a derived test are destroyed.
    void TearDown() override { table_.reset(); }

    void send(const Bytes& datagram) {
        media::Packet packet;
        ASSERT_EQ(media::decode_packet(datagram.data(), datagram.size(), packet),
                  media::DecodeResult::OK);
        table_->receive(packet, {now_, source_});
    }
    void send(const std::string& name) { send(golden(name)); }

    // Sends the whole short call, without the named datagrams, until it has ended.
    void send_call(const std::string& lost = {}) {
        for (const std::string& name : golden_call()) {
            if (name != lost) {
                send(name);
            }
        }
        pass(node::Micros{1'000'000});
    }

    // The first packet of the golden call's originator, with these numbers instead of its own.
    void send_data(unsigned char sequence_number, unsigned char sample_offset) {
        Bytes datagram = golden("call_2_read");
        datagram[40] = sequence_number;
        datagram[44] = sample_offset;
        send(datagram);
    }

    // The golden start packet with that call reference, which must be shorter than 1294 bytes.
    void send_start(const std::string& reference) {
        Bytes datagram = golden("call_1_start");
        datagram.resize(82);
        datagram.insert(datagram.end(), reference.begin(), reference.end());
        datagram.push_back(0);
        datagram[80] = static_cast<unsigned char>((reference.size() + 1) & 0xFF);
        datagram[81] = static_cast<unsigned char>((reference.size() + 1) >> 8);
        send(datagram);
    }

    // The same start packet for another call, whose UUID ends in that byte.
    void send_start_of_call(unsigned char last_byte) {
        Bytes datagram = golden("call_1_start");
        datagram[31] = last_byte;
        send(datagram);
    }

    void pass(node::Micros time) {
        now_ += time;
        table_->tick(now_);
    }

    FakeAudioStore store_;
    node::FileNames file_names_{store_, {}, [] { return 0; }, [] {}};
    node::Recorder recorder_{store_, {true, false, {4, false}}};
    std::unique_ptr<node::CallTable> table_;
    node::Micros now_{100'000'000};
    sockaddr_in source_ = tools::parse_address("192.0.2.1:30000").value();
};

}  // namespace qv::tests
