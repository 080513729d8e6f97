#include "host/answer_stream.h"
#include "tests/host/host_fixture.h"

namespace qv::host {
namespace {

class ApiTest : public HostTest {
  protected:
    ApiTest() { load_probe(); }
};

TEST_F(ApiTest, BlanksAroundCommandAndArgumentsAreCutOff) {
    EXPECT_EQ(host_.api("probe a b").text, "[a b]");
    EXPECT_EQ(host_.api("  probe   a  b \n").text, "[a  b]");
}

TEST_F(ApiTest, ACommandWithoutArgumentsGetsTheEmptyText) {
    EXPECT_EQ(host_.api("probe").text, "[]");
}

TEST_F(ApiTest, CommandsAreFoundWhateverTheirCase) {
    EXPECT_EQ(host_.api("PROBE x").text, "[x]");
}

TEST_F(ApiTest, AnUnknownCommandSaysSo) {
    const ApiAnswer answer = host_.api("nothing");
    EXPECT_EQ(answer.status, SWITCH_STATUS_NOTFOUND);
    EXPECT_EQ(answer.text, "INVALID COMMAND!\n");
}

TEST_F(ApiTest, AFailedCommandSaysSoAfterItsAnswer) {
    const ApiAnswer answer = host_.api("probe fail");
    EXPECT_EQ(answer.status, SWITCH_STATUS_FALSE);
    EXPECT_EQ(answer.text, "[fail]COMMAND RETURNED ERROR!\n");
}

TEST_F(ApiTest, TheFunctionCanBeCalledWithArgumentsAsTheyAre) {
    AnswerStream stream;
    EXPECT_EQ(host_.call_api("probe", "  x ", nullptr, stream.get()), SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(stream.text(), "[  x ]");
    EXPECT_EQ(host_.report().api_calls, 1u);
    EXPECT_EQ(host_.report().api_calls_inside, 0u);
}

TEST_F(ApiTest, LongAnswersGrowTheStream) {
    AnswerStream stream;
    const std::string part(1500, 'x');
    for (int i = 0; i < 10; ++i) {
        stream.get()->write_function(stream.get(), "%s", part.c_str());
    }
    EXPECT_EQ(stream.text().size(), 15000u);
    EXPECT_EQ(stream.get()->data_len, 15000u);
    EXPECT_EQ(static_cast<char*>(stream.get()->data) + 15000, stream.get()->end);
}

TEST_F(ApiTest, RawBytesGoInAsTheyAre) {
    AnswerStream stream;
    std::uint8_t bytes[] = {'a', 0, '%'};
    stream.get()->raw_write_function(stream.get(), bytes, sizeof(bytes));
    EXPECT_EQ(stream.text(), std::string("a\0%", 3));
}

TEST_F(ApiTest, CompletionsCanFail) {
    host_.faults().set(Fault::COMPLETION_FAILS);
    EXPECT_EQ(switch_console_set_complete("add x"), SWITCH_STATUS_FALSE);
    EXPECT_EQ(host_.completions().size(), 2u);
}

}  // namespace
}  // namespace qv::host
