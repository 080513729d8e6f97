// The fixture for tests of the embedded host. One thread.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/embedded_host.h"

namespace qv::host {

// A host with helpers. QUORVANE_PROBE_DIRECTORY holds the probe modules.
class HostTest : public ::testing::Test {
  protected:
    static std::string probe_path(const std::string& name) {
        return std::string(QUORVANE_PROBE_DIRECTORY) + "/" + name + ".so";
    }

    void load_probe() {
        const LoadResult result = host_.load_module(probe_path("mod_probe"));
        ASSERT_TRUE(result.loaded) << result.error;
    }

    // The texts of the module's lines so far, without "probe: " and line end.
    std::vector<std::string> said() {
        std::vector<std::string> texts;
        for (const LogLine& line : host_.log().lines()) {
            texts.push_back(line.text.substr(7, line.text.size() - 8));
        }
        return texts;
    }

    std::unique_ptr<Call> call_with(const std::map<std::string, std::string>& variables) {
        CallOptions options;
        options.variables = variables;
        return host_.start_call(std::move(options));
    }

    FrameResult feed(Call& call, Direction direction, const std::vector<std::int16_t>& samples) {
        return call.feed(direction, samples.data(), samples.size() * sizeof(std::int16_t));
    }

    EmbeddedHost host_;
};

}  // namespace qv::host
