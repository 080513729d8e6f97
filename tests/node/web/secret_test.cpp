#include "node/web/secret.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace qv::node::web {

namespace {

class SecretTest : public testing::Test {
  protected:
    SecretTest() : path_(testing::TempDir() + "token" + std::to_string(::getpid())) {}
    ~SecretTest() override { std::filesystem::remove(path_); }

    std::string read(const std::string& content, mode_t mode = 0600) {
        std::ofstream(path_) << content;
        ::chmod(path_.c_str(), mode);
        return read_token(path_, token_);
    }

    const std::string path_;
    std::string token_;
};

TEST_F(SecretTest, OnlyTheSameSecretIsTheSame) {
    EXPECT_TRUE(is_same_secret("abc", "abc"));
    for (const char* given : {"", "ab", "abd", "abcabc", "abca", "Abc", "xabc"}) {
        EXPECT_FALSE(is_same_secret(given, "abc")) << given;
    }
}

TEST_F(SecretTest, NothingIsTheSameAsNoSecret) {
    EXPECT_FALSE(is_same_secret("", ""));
    EXPECT_FALSE(is_same_secret("a", ""));
}

TEST_F(SecretTest, ATokenIsOneLine) {
    EXPECT_EQ(read("0123456789abcdef\n"), "");
    EXPECT_EQ(token_, "0123456789abcdef");
    EXPECT_EQ(read("0123456789abcde~"), "");
    EXPECT_EQ(token_, "0123456789abcde~");
    EXPECT_EQ(read(std::string(512, 'x')), "");
}

TEST_F(SecretTest, WhatIsWrongWithATokenIsNamed) {
    EXPECT_EQ(read("0123456789abcde"), "the token must have 16 to 512 characters");
    EXPECT_EQ(read(std::string(513, 'x')), "the token must have 16 to 512 characters");
    EXPECT_EQ(read(std::string(100'000, 'x')), "the token must have 16 to 512 characters");
    EXPECT_EQ(read("0123456789abcdef\n\n"),
              "the token must be one line of printable ASCII characters without blanks");
    EXPECT_EQ(read("0123456789 abcdef"),
              "the token must be one line of printable ASCII characters without blanks");
}

TEST_F(SecretTest, AFileThatOthersMayReadIsRefused) {
    EXPECT_EQ(read("0123456789abcdef", 0640), "");
    for (const mode_t mode : {0644U, 0604U, 0601U, 0660U, 0602U}) {
        EXPECT_NE(read("0123456789abcdef", mode).find("chmod 600"), std::string::npos) << mode;
    }
}

TEST_F(SecretTest, WhatIsNoFileIsRefused) {
    EXPECT_EQ(read_token("/nonexistent/token", token_), "No such file or directory");
    EXPECT_EQ(read_token("/dev/null", token_), "not a regular file");
    EXPECT_EQ(read_token(testing::TempDir(), token_), "not a regular file");
}

TEST_F(SecretTest, NewSecretsDiffer) {
    const std::string one = new_secret();
    EXPECT_EQ(one.size(), 64U);
    EXPECT_EQ(one.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(one, new_secret());
}

}  // namespace

}  // namespace qv::node::web
