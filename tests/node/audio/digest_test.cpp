#include "node/audio/digest.h"

#include <sys/stat.h>

#include "tests/node/audio/folder_test.h"

namespace qv::node {

namespace {

class DigestTest : public tests::FolderTest {
  protected:
    std::string digest_of(const std::string& name) { return sha256_of_file(path(name), error_); }

    std::string error_;
};

TEST_F(DigestTest, PublishedDigestsAreMet) {
    put("empty", "");
    put("abc", "abc");
    put("million", std::string(1'000'000, 'a'));
    EXPECT_EQ(digest_of("empty"),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digest_of("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digest_of("million"),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    EXPECT_EQ(error_, "");
}

TEST_F(DigestTest, FileThatCannotBeReadHasAReason) {
    EXPECT_EQ(digest_of("missing"), "");
    EXPECT_EQ(error_, "No such file or directory");
    error_.clear();
    EXPECT_EQ(sha256_of_file(folder_, error_), "");
    EXPECT_EQ(error_, "Is a directory");
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(digest_of("fifo"), "");
    EXPECT_EQ(error_, "Illegal seek");
}

}  // namespace

}  // namespace qv::node
