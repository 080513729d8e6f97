// Sends the number of frames that the argument gives, each of 320 bytes, into a sendto that does
// nothing. The difference between two runs under callgrind gives the instructions per frame.
#include <cstdlib>

#include "bench/bench_support.h"

int main(int argc, char** argv) {
    const long frames = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
    qv::bench::Sender sender;
    const auto contexts = qv::bench::make_contexts(1, sockaddr_in{});
    const qv::bench::Frame frame(320);
    for (long i = 0; i < frames; ++i) {
        sender.transfer.media_data(nullptr, *contexts[0], qv::media::READ_LEG, frame.get());
    }
}
