// Fuzzes the argument string of a load.
#include <cstdint>
#include <string>

#include "fuzz/support/configuration_model.h"
#include "fuzz/support/require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = qv::fuzz::as_text(data, size);
    qv::fuzz::WatchedConfiguration configuration;
    const bool result = configuration.parse_args(text);

    qv::fuzz::ConfigurationModel model;
    model.system("reading from args: " + text);
    const bool expected = model.args(text);

    qv::fuzz::require_equal("events", configuration.events, model.events);
    qv::fuzz::require_equal("result", result, expected);
    return 0;
}
