// The configuration file that is shipped, loaded by the module in the embedded host.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "host/embedded_host.h"
#include "tools/private_config.h"

namespace qv::tests {

namespace {

std::string shipped_file() {
    std::ifstream file(QUORVANE_SHIPPED_CONFIGURATION);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// The settings that the file holds commented out, "name = value", in its order.
std::vector<std::string> commented_settings(const std::string& text) {
    const std::regex setting("(^|\n)#([a-z_]+ = [^\n]*)");
    std::vector<std::string> found;
    for (std::sregex_iterator match(text.begin(), text.end(), setting), end; match != end;
         ++match) {
        found.push_back((*match)[2]);
    }
    return found;
}

class ShippedConfiguration : public ::testing::Test {
  protected:
    void SetUp() override {
        directory_ = std::filesystem::temp_directory_path() /
                     ("quorvane-shipped-" + std::to_string(::getpid()));
        std::filesystem::create_directory(directory_);
    }
    void TearDown() override {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(directory_);
    }

    void load_with(const std::string& content) {
        ASSERT_EQ(tools::use_relocated_config(directory_, content), std::nullopt);
        const host::LoadResult result = host_.load_module(QUORVANE_RELOCATED_MODULE);
        ASSERT_TRUE(result.loaded) << result.error;
    }

    // Lines of the levels WARNING and more important.
    std::string complaints() {
        std::string texts;
        for (const host::LogLine& line : host_.log().lines()) {
            if (line.level <= SWITCH_LOG_WARNING) {
                texts += line.text;
            }
        }
        return texts;
    }

    std::string answer(const std::string& command) { return host_.api("quorvane " + command).text; }

    std::filesystem::path directory_;
    host::EmbeddedHost host_;
};

TEST_F(ShippedConfiguration, LoadsWithoutAComplaint) {
    load_with(shipped_file());
    EXPECT_EQ(complaints(), "");
    EXPECT_TRUE(host_.log().contains("module has been loaded"));
}

TEST_F(ShippedConfiguration, SetsNothing) {
    load_with(shipped_file());
    EXPECT_FALSE(host_.log().contains("is set to"));
    EXPECT_FALSE(host_.log().contains("applied"));
}

TEST_F(ShippedConfiguration, NamesEveryOption) {
    const std::string names = [] {
        std::string joined;
        for (const std::string& setting : commented_settings(shipped_file())) {
            joined += setting.substr(0, setting.find(' ')) + " ";
        }
        return joined;
    }();
    EXPECT_EQ(names, "media_node default_detection default_audio_activity log_level dump_events ");
}

TEST_F(ShippedConfiguration, EveryExampleIsAccepted) {
    std::string content;
    for (const std::string& setting : commented_settings(shipped_file())) {
        content += setting + "\n";
    }
    load_with(content);
    EXPECT_EQ(complaints(), "");
    EXPECT_EQ(host_.log().count("is set to"), 5U);
    EXPECT_NE(answer("media_node").find("192.0.2.10"), std::string::npos);
}

// If the module objects to a file, the tests above must notice it.
TEST_F(ShippedConfiguration, AnUnknownOptionWouldBeSeen) {
    load_with(shipped_file() + "no_such_option = 1\n");
    EXPECT_NE(complaints(), "");
}

}  // namespace

}  // namespace qv::tests
