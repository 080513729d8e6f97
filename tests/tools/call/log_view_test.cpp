#include "tools/call/log_view.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tools/call/module_settings.h"

namespace qv::tools::call {
namespace {

class LogViewTest : public ::testing::Test {
  protected:
    void show(std::optional<switch_log_level_t> most_detailed) {
        view_ = std::make_unique<LogView>(console_, most_detailed);
        view_->listen(log_);
    }

    void write(switch_log_level_t level) { write_formatted(level); }

    // In the form in which a module logs. An enumerator would be widened, so va_start takes an int.
    void write_formatted(int level, ...) {
        host::LogLine line;
        line.level = static_cast<switch_log_level_t>(level);
        line.file = "/some/where/file.cpp";
        line.line = 12;
        line.format = "said\n";
        va_list none;
        va_start(none, level);
        log_.write(line, none);
        va_end(none);
    }

    std::size_t shown() const {
        const std::string text = out_.str();
        return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    }

    std::ostringstream out_;
    std::ostringstream status_;
    Console console_{out_, status_, false, [] { return std::size_t{80}; }};
    host::Log log_;
    std::unique_ptr<LogView> view_;
};

TEST_F(LogViewTest, LinesAreShownUpToTheLevelAsked) {
    show(SWITCH_LOG_WARNING);
    write(SWITCH_LOG_ERROR);
    write(SWITCH_LOG_WARNING);
    write(SWITCH_LOG_NOTICE);
    EXPECT_EQ(shown(), 2u);
    EXPECT_EQ(view_->counts().lines, 3u);
    EXPECT_EQ(view_->counts().warnings, 1u);
    EXPECT_EQ(view_->counts().errors, 1u);
}

TEST_F(LogViewTest, UnaskedOnlyTheFirstErrorsAreShown) {
    show(std::nullopt);
    write(SWITCH_LOG_WARNING);
    for (int i = 0; i < 50; ++i) {
        write(SWITCH_LOG_ERROR);
    }
    EXPECT_EQ(shown(), 11u);
    EXPECT_NE(out_.str().find("(further errors are only counted; --show-log ERR shows all)"),
              std::string::npos);
    EXPECT_EQ(view_->counts().errors, 50u);
}

TEST_F(LogViewTest, TheHostsOwnLinesAreNotCounted) {
    show(std::nullopt);
    log_.note(SWITCH_LOG_CRIT, "the host's");
    EXPECT_EQ(view_->counts().lines, 0u);
    EXPECT_EQ(view_->counts().errors, 0u);
}

TEST_F(LogViewTest, ALineStandsAsTheHostWritesIt) {
    host::LogLine line;
    line.level = SWITCH_LOG_ERROR;
    line.file = "/some/where/file.cpp";
    line.line = 12;
    line.userdata = "some-uuid";
    line.text = "[quorvane]: gone\n";
    const std::string text = shown_line(line, 1'700'000'000'000'042);
    EXPECT_EQ(text.substr(0, 15), "some-uuid 2023-");
    EXPECT_NE(text.find(".000042 [ERR] file.cpp:12 [quorvane]: gone"), std::string::npos);
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST_F(LogViewTest, LevelsAreKnownInEitherCase) {
    EXPECT_EQ(level_of("warning"), SWITCH_LOG_WARNING);
    EXPECT_EQ(level_of("ERR"), SWITCH_LOG_ERROR);
    EXPECT_EQ(level_of("error"), SWITCH_LOG_ERROR);
    EXPECT_FALSE(level_of("loud"));
    EXPECT_EQ(level_name(SWITCH_LOG_NOTICE), "NOTICE");
}

std::size_t eighty() {
    return 80;
}

TEST(ConsoleTest, ALineGoesAboveTheStatus) {
    std::ostringstream out;
    Console console(out, out, true, eighty);
    console.set_status("50 %");
    console.line("news");
    console.set_status("");
    EXPECT_EQ(out.str(), "50 %\r\033[Knews\n50 %\r\033[K");
}

TEST(ConsoleTest, AStatusWiderThanTheTerminalIsCut) {
    std::ostringstream out;
    Console console(out, out, true, eighty);
    console.set_status(std::string(100, 'x'));
    EXPECT_EQ(out.str(), std::string(79, 'x'));
}

TEST(ConsoleTest, ATerminalThatDoesNotTellItsWidthGetsAll) {
    std::ostringstream out;
    Console console(out, out, true, [] { return std::size_t{0}; });
    console.set_status(std::string(100, 'x'));
    EXPECT_EQ(out.str(), std::string(100, 'x'));
}

TEST(ConsoleTest, WithoutATerminalThereIsNoStatus) {
    std::ostringstream out;
    Console console(out, out, false, eighty);
    console.set_status("50 %");
    console.line("news");
    EXPECT_EQ(out.str(), "news\n");
}

TEST(ModuleSettingsTest, OptionsAreLinesOfTheConfigurationFile) {
    ModuleSettings settings;
    settings.options = {{"media_node", "127.0.0.1:9"}, {"log_level", "DEBUG"}};
    EXPECT_EQ(config_text(settings), "media_node=127.0.0.1:9\nlog_level=DEBUG\n");
}

TEST(ModuleSettingsTest, TheRelocatedModuleIsInAFolderBesideTheModule) {
    EXPECT_EQ(relocated_module("/opt/build/mod_quorvane.so"),
              "/opt/build/relocated/mod_quorvane.so");
    EXPECT_EQ(relocated_module("mod_quorvane.so"), "relocated/mod_quorvane.so");
}

}  // namespace
}  // namespace qv::tools::call
