// Reads the bytes as a network capture, through the same road as the media node: libpcap, link
// layers, IP, fragments, UDP, the intake and the calls. The first byte says whether a port is
// chosen; the others are the file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <numeric>
#include <optional>
#include <string>

#include "fuzz/support/require.h"
#include "node/calls/call_table.h"
#include "node/ingest/capture.h"
#include "node/ingest/intake.h"
#include "quorvane/media_packet.h"
#include "tools/address.h"

namespace {

using namespace qv::node;
using qv::fuzz::require;
using qv::fuzz::require_equal;

// A file in memory, under a path of its own.
class MemoryFile {
  public:
    MemoryFile(const std::uint8_t* data, std::size_t size)
        : descriptor_(::memfd_create("capture", MFD_CLOEXEC)) {
        require(::write(descriptor_, data, size) == static_cast<ssize_t>(size),
                "the input fits into memory");
    }
    ~MemoryFile() { ::close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  private:
    const int descriptor_;
};

// What came of a capture.
struct Outcome {
    std::uint64_t datagrams = 0;
    std::uint64_t bytes = 0;
    std::uint64_t sum = 0;  // Of all bytes, each with its place.
    std::string error;

    bool operator==(const Outcome& other) const {
        return datagrams == other.datagrams && bytes == other.bytes && sum == other.sum &&
               error == other.error;
    }
};

class Reading {
  public:
    explicit Reading(bool with_port)
        : with_port_(with_port),
          capture_(with_port ? std::optional(qv::tools::parse_address("0.0.0.0:40000").value())
                             : std::nullopt) {}

    Outcome run(const std::string& path) {
        outcome_.error = capture_.open(path);
        if (!outcome_.error.empty()) {
            return outcome_;
        }
        while (const auto datagram = capture_.next()) {
            take(*datagram);
        }
        outcome_.error = capture_.error();
        require_equal("datagrams taken", capture_.taken(), outcome_.datagrams);
        const std::uint64_t malformed = std::accumulate(
            intake_.malformed().begin(), intake_.malformed().end(), std::uint64_t{0});
        require_equal("malformed datagrams", malformed, malformed_);
        require_equal("packets and malformed datagrams", calls_.totals().all_packets() + malformed,
                      outcome_.datagrams);
        calls_.shut_down();
        return outcome_;
    }

  private:
    void take(const Datagram& datagram) {
        require(datagram.size <= 65'507, "a datagram has at most 65,507 bytes");
        require(datagram.arrival.time >= time_, "time does not run backwards");
        require(with_port_ || (datagram.size >= 4 &&
                               qv::media::get_u32(datagram.data) == qv::media::PACKET_MAGIC),
                "without a port, datagrams begin like packets");
        time_ = datagram.arrival.time;
        ++outcome_.datagrams;
        for (std::size_t i = 0; i < datagram.size; ++i) {
            outcome_.sum += (++outcome_.bytes) * datagram.data[i];
        }
        intake_.receive(datagram);
    }

    const bool with_port_;
    Capture capture_;
    const CallLimits limits_;
    CallTable calls_{limits_, {}};
    std::uint64_t malformed_ = 0;
    Intake intake_{
        calls_, [this](const Datagram&, qv::media::DecodeResult, std::uint64_t) { ++malformed_; }};
    Micros time_{0};
    Outcome outcome_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool with_port = (data[0] & 1) != 0;
    const MemoryFile file(data + 1, size - 1);
    const Outcome outcome = Reading(with_port).run(file.path());
    require(outcome.bytes <= size, "no byte of the file is delivered twice");
    require(Reading(with_port).run(file.path()) == outcome, "the same file gives the same calls");
    return 0;
}
