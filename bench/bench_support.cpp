#include "bench/bench_support.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "host/embedded_host.h"

namespace qv::bench {

Sink::Sink() : descriptor_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address_);
    socklen_t size = sizeof(address_);
    if (descriptor_ < 0 || ::bind(descriptor_, generic, size) != 0 ||
        ::getsockname(descriptor_, generic, &size) != 0) {
        throw std::runtime_error("no loopback socket");
    }
}

Sink::~Sink() {
    ::close(descriptor_);
}

Frame::Frame(std::uint32_t size) : audio_(size, 0x5A) {
    static char name[] = "L16";
    implementation_.iananame = name;
    codec_.implementation = &implementation_;
    frame_.codec = &codec_;
    frame_.data = audio_.data();
    frame_.datalen = size;
}

std::vector<std::unique_ptr<freeswitch::AppContext>> make_contexts(std::size_t count,
                                                                   const sockaddr_in& node) {
    std::vector<std::unique_ptr<freeswitch::AppContext>> contexts;
    for (std::size_t i = 0; i < count; ++i) {
        auto context = std::make_unique<freeswitch::AppContext>();
        media::put_u64(context->uuid, i);
        context->id = freeswitch::call_key(context->uuid);
        context->media_node = node;
        contexts.push_back(std::move(context));
    }
    return contexts;
}

int run_benchmarks(int argc, char** argv) {
    host::EmbeddedHost host;
    host.log().set_recording(false);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace qv::bench
