// The reference is that of a small shared object, which this program opens and closes as the host
// does with the module.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <thread>

namespace qv::freeswitch {

namespace {

class ObjectReferenceTest : public ::testing::Test {
  protected:
    ObjectReferenceTest() : object_(::dlopen(QUORVANE_REFERENCE_PROBE, RTLD_NOW | RTLD_LOCAL)) {}

    void SetUp() override {
        ASSERT_NE(object_, nullptr) << ::dlerror();
        take_ = function<bool()>("probe_take");
        give_back_ = function<void()>("probe_give_back");
        give_back_at_thread_end_ = function<void()>("probe_give_back_at_thread_end");
    }
    void TearDown() override { EXPECT_FALSE(is_mapped()) << "the next test needs a fresh object"; }

    template <typename Signature>
    Signature* function(const char* name) {
        return reinterpret_cast<Signature*>(::dlsym(object_, name));
    }

    // What the host does when it unloads the module.
    void close_object() { ::dlclose(object_); }

    static bool is_mapped() {
        void* const found = ::dlopen(QUORVANE_REFERENCE_PROBE, RTLD_NOW | RTLD_NOLOAD);
        if (found != nullptr) {
            ::dlclose(found);
        }
        return found != nullptr;
    }

    void* const object_;
    bool (*take_)() = nullptr;
    void (*give_back_)() = nullptr;
    void (*give_back_at_thread_end_)() = nullptr;
};

TEST_F(ObjectReferenceTest, ObjectIsUnmappedWithoutAReference) {
    EXPECT_TRUE(is_mapped());
    close_object();
    EXPECT_FALSE(is_mapped());
}

TEST_F(ObjectReferenceTest, TakenReferenceKeepsTheObjectMapped) {
    EXPECT_TRUE(take_());
    close_object();
    EXPECT_TRUE(is_mapped());
    std::thread(give_back_at_thread_end_).join();
}

TEST_F(ObjectReferenceTest, ReferenceIsTakenOnlyOnce) {
    EXPECT_TRUE(take_());
    EXPECT_TRUE(take_());
    give_back_();
    close_object();
    EXPECT_FALSE(is_mapped());
}

TEST_F(ObjectReferenceTest, GivingBackWithoutAReferenceDoesNothing) {
    give_back_();
    give_back_at_thread_end_();
    EXPECT_TRUE(is_mapped());
    close_object();
}

TEST_F(ObjectReferenceTest, ThreadGivesTheReferenceBackOnlyAtItsEnd) {
    EXPECT_TRUE(take_());
    close_object();
    std::thread([this] {
        give_back_at_thread_end_();
        EXPECT_TRUE(is_mapped());
    }).join();
    EXPECT_FALSE(is_mapped());
}

TEST_F(ObjectReferenceTest, ThreadGivesBackWhatItHasTakenTwice) {
    std::thread([this] {
        take_();
        give_back_at_thread_end_();
        take_();
        give_back_at_thread_end_();
        close_object();
        EXPECT_TRUE(is_mapped());
    }).join();
    EXPECT_FALSE(is_mapped());
}

TEST_F(ObjectReferenceTest, GivingBackAlsoReturnsWhatTheThreadWouldReturnAtItsEnd) {
    EXPECT_TRUE(take_());
    give_back_at_thread_end_();
    give_back_();
    close_object();
    EXPECT_FALSE(is_mapped());
}

}  // namespace

}  // namespace qv::freeswitch
