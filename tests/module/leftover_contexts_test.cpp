#include "module/leftover_contexts.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "host/embedded_host.h"

namespace qv::freeswitch {

namespace {

constexpr const char* FIRST_UUID = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37";
constexpr const char* SECOND_UUID = "00000000-0000-0000-0000-000000000001";

std::uint64_t key_of(const char* uuid) {
    CallIdentity identity;
    EXPECT_TRUE(identify(uuid, identity));
    return identity.id;
}

class LeftoverContexts : public ::testing::Test {
  protected:
    ~LeftoverContexts() override { free_left_contexts(state_); }

    // Adds a context under `id`, made for the session `uuid`.
    AppContext& add(std::uint64_t id, const std::string& uuid) {
        const RegistryGuard guard(state_.contexts_lock);
        AppContext* context = add_context(state_.contexts, id);
        context->set_session_uuid(uuid.c_str());
        return *context;
    }
    // The same, under a name that the API has found that session by.
    AppContext& add_other_name(std::uint64_t id, const char* uuid) {
        AppContext& context = add(id, uuid);
        const RegistryGuard guard(state_.contexts_lock);
        state_.other_names.emplace(key_of(uuid), id);
        return context;
    }

    bool has(std::uint64_t id) {
        const RegistryGuard guard(state_.contexts_lock);
        return find_context(state_.contexts, id) != nullptr;
    }
    std::size_t other_names() {
        const RegistryGuard guard(state_.contexts_lock);
        return state_.other_names.size();
    }

    void drop_contexts_of_ended_calls() {
        freeswitch::drop_contexts_of_ended_calls(state_, QV_PLACE);
        EXPECT_EQ(host_.report().read_locks_held, 0U);
    }

    std::unique_ptr<host::Call> start_call(const char* uuid) {
        host::CallOptions options;
        options.uuid = uuid;
        return host_.start_call(options);
    }

    host::EmbeddedHost host_;
    ModuleContext state_;
};

TEST_F(LeftoverContexts, TakenContextIsNoLongerRegistered) {
    AppContext& added = add(7, FIRST_UUID);
    const ContextReference taken = take_context(state_, 7);
    EXPECT_EQ(taken.get(), &added);
    EXPECT_FALSE(has(7));
    EXPECT_FALSE(take_context(state_, 7));
}

// ---- contexts under other names of a session --------------------------------------

TEST_F(LeftoverContexts, OtherNamesOfASessionEndWithIt) {
    add_other_name(7, FIRST_UUID);
    add_other_name(8, FIRST_UUID);
    add_other_name(9, SECOND_UUID);
    remove_contexts_of_other_names(state_, key_of(FIRST_UUID));
    EXPECT_FALSE(has(7));
    EXPECT_FALSE(has(8));
    EXPECT_TRUE(has(9));
    EXPECT_EQ(other_names(), 1U);
}

TEST_F(LeftoverContexts, ConfiguredContextIsLeftToItsOwnCall) {
    add_other_name(7, FIRST_UUID).created_time = 1;
    remove_contexts_of_other_names(state_, key_of(FIRST_UUID));
    EXPECT_TRUE(has(7));
}

TEST_F(LeftoverContexts, NameThatIsUsedForAnotherSessionByNowIsLeftAlone) {
    AppContext& context = add_other_name(7, FIRST_UUID);
    {
        const RegistryGuard guard(state_.contexts_lock);
        context.set_session_uuid(SECOND_UUID);
    }
    remove_contexts_of_other_names(state_, key_of(FIRST_UUID));
    EXPECT_TRUE(has(7));
    EXPECT_EQ(other_names(), 0U);
}

// ---- calls that ended unseen --------------------------------------------------------

TEST_F(LeftoverContexts, OnlyContextsOfEndedCallsAreDropped) {
    const auto call = start_call(FIRST_UUID);
    add(7, FIRST_UUID);
    add(8, SECOND_UUID);
    drop_contexts_of_ended_calls();
    EXPECT_TRUE(has(7));
    EXPECT_FALSE(has(8));
    call->hangup();
    drop_contexts_of_ended_calls();
    EXPECT_FALSE(has(7));
}

TEST_F(LeftoverContexts, ContextThatSomebodyUsesIsNotDropped) {
    {
        const ContextReference used(&add(7, FIRST_UUID));
        drop_contexts_of_ended_calls();
        EXPECT_TRUE(has(7));
    }
    drop_contexts_of_ended_calls();
    EXPECT_FALSE(has(7));
}

TEST_F(LeftoverContexts, ContextOfAnUnknownSessionIsNotDropped) {
    add(7, "");
    drop_contexts_of_ended_calls();
    EXPECT_TRUE(has(7));
}

TEST_F(LeftoverContexts, OtherNamesAreForgottenWithTheirContexts) {
    const auto call = start_call(FIRST_UUID);
    add_other_name(7, FIRST_UUID);
    add_other_name(8, SECOND_UUID);
    drop_contexts_of_ended_calls();
    EXPECT_EQ(other_names(), 1U);
}

TEST_F(LeftoverContexts, UnloadingFreesEveryContext) {
    const auto call = start_call(FIRST_UUID);
    add(7, FIRST_UUID);
    add(8, "");
    free_left_contexts(state_);
    EXPECT_FALSE(has(7));
    EXPECT_FALSE(has(8));
}

}  // namespace

}  // namespace qv::freeswitch
