// Receives on a media node continuously, in its own thread, so that the node's socket does not fill
// while calls run. Keeps the packets, by call.
//
// One thread creates it and takes its packets. The node must outlive it.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/media_node.h"

namespace qv::tests {

class MediaListener {
  public:
    // The packets of each call in the order of their arrival, by the 32 digits of the call's
    // UUID. Packets too short for a UUID are under an empty text.
    using Packets = std::map<std::string, std::vector<Bytes>>;

    explicit MediaListener(MediaNode& node) : node_(node), thread_([this] { run(); }) {}
    MediaListener(const MediaListener&) = delete;
    MediaListener& operator=(const MediaListener&) = delete;
    ~MediaListener() { finish(); }

    // Waits until no more packets arrive.
    const Packets& finish() {
        finishing_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        return packets_;
    }

  private:
    void run() {
        while (true) {
            const bool last_round = finishing_;
            Bytes packet = node_.receive(std::chrono::milliseconds(100));
            if (!packet.empty()) {
                packets_[field(packet, 16, 16)].push_back(std::move(packet));
            } else if (last_round) {
                return;
            }
        }
    }

    MediaNode& node_;
    std::atomic<bool> finishing_{false};
    Packets packets_;     // Only the thread uses it until it has ended.
    std::thread thread_;  // The last member, because the thread uses the others.
};

}  // namespace qv::tests
