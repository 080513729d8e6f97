// Cases that misbehave, for run_cases_test.py, which runs them with run_cases.py.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace {

TEST(Good, Passes) {}

TEST(Good, IsSkipped) {
    GTEST_SKIP() << "there is nothing to test with";
}

TEST(Bad, Fails) {
    EXPECT_EQ(1, 2) << "a message of the case";
}

TEST(Bad, EndsTheProgram) {
    ::_exit(5);
}

TEST(Bad, IsAborted) {
    std::abort();
}

TEST(Bad, NeverEnds) {
    ::pause();
}

TEST(Good, ComesLast) {}

TEST(AtExit, LeavesSomethingThatFails) {
    std::atexit([] { ::_exit(7); });
}

class Values : public ::testing::TestWithParam<int> {};
TEST_P(Values, AreSmall) {
    EXPECT_LT(GetParam(), 2);
}
INSTANTIATE_TEST_SUITE_P(Some, Values, ::testing::Values(1, 2));

}  // namespace
