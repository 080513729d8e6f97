// Fuzzes the text of a configuration file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "fuzz/support/configuration_model.h"
#include "fuzz/support/require.h"
#include "quorvane_lib/conf_configuration.h"

namespace {

// A file in memory with a path.
class MemoryFile {
  public:
    MemoryFile(const std::uint8_t* data, std::size_t size)
        : descriptor_(::memfd_create("configuration", MFD_CLOEXEC)) {
        qv::fuzz::require(::write(descriptor_, data, size) == static_cast<ssize_t>(size),
                          "the file can be written");
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { ::close(descriptor_); }

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  private:
    int descriptor_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const MemoryFile file(data, size);
    qv::fuzz::WatchedConfiguration configuration;
    const bool result = configuration.parse_file(file.path());

    qv::fuzz::ConfigurationModel model;
    model.system("reading from file [" + file.path() + "]");
    const bool expected = model.file(qv::fuzz::as_text(data, size));

    qv::fuzz::require_equal("events", configuration.events, model.events);
    qv::fuzz::require_equal("result", result, expected);
    return 0;
}
