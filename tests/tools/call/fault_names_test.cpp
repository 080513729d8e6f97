#include "tools/call/fault_names.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/names.h"

namespace qv::tools::call {
namespace {

using host::Fault;
using tests::names;

std::string refusal_of(const std::string& text) {
    try {
        parse_fault(text);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "accepted";
}

TEST(FaultNamesTest, ANameAloneIsOnFromTheBeginningToTheEnd) {
    const FaultSpan span = parse_fault("bug-refused");
    EXPECT_EQ(span.fault, Fault::BUG_REFUSED);
    EXPECT_FALSE(span.from_s);
    EXPECT_FALSE(span.until_s);
}

TEST(FaultNamesTest, AFaultCanBeginAndEndDuringTheRun) {
    EXPECT_EQ(parse_fault("no-timetable@2").from_s, 2);
    EXPECT_FALSE(parse_fault("no-timetable@2").until_s);
    EXPECT_EQ(parse_fault("null-frame@1.5-3").from_s, 1.5);
    EXPECT_EQ(parse_fault("null-frame@1.5-3").until_s, 3);
}

TEST(FaultNamesTest, EveryFaultOfTheHostHasAName) {
    const std::pair<const char*, Fault> all[] = {
        {"bind-channel-destroy-fails", Fault::BIND_CHANNEL_DESTROY_FAILS},
        {"bind-all-fails", Fault::BIND_ALL_FAILS},
        {"no-timetable", Fault::NO_TIMETABLE},
        {"media-not-ready", Fault::MEDIA_NOT_READY},
        {"bug-refused", Fault::BUG_REFUSED},
        {"session-not-found", Fault::SESSION_NOT_FOUND},
        {"uuid-garbage", Fault::UUID_GARBAGE},
        {"out-of-memory", Fault::OUT_OF_MEMORY},
        {"null-frame", Fault::NULL_FRAME},
        {"completion-fails", Fault::COMPLETION_FAILS},
        {"refused-bug-closed", Fault::REFUSED_BUG_CLOSED},
        {"bug-lost", Fault::BUG_LOST},
    };
    for (const auto& [name, fault] : all) {
        EXPECT_EQ(parse_fault(name).fault, fault) << name;
        EXPECT_EQ(name_of(parse_fault(name)), name);
    }
    EXPECT_EQ(fault_help().size(), std::size(all) + 1);  // and hidden headers
}

TEST(FaultNamesTest, AHeaderCanBeHidden) {
    host::Faults faults;
    switch_fault(faults, parse_fault("hide-header:Unique-ID"), true);
    EXPECT_TRUE(faults.hidden("Unique-ID"));
    EXPECT_FALSE(faults.hidden("Event-Name"));
}

TEST(FaultNamesTest, AFaultIsSwitchedOnAndOff) {
    host::Faults faults;
    switch_fault(faults, parse_fault("no-timetable"), true);
    EXPECT_TRUE(faults.on(Fault::NO_TIMETABLE));
    switch_fault(faults, parse_fault("no-timetable"), false);
    EXPECT_FALSE(faults.on(Fault::NO_TIMETABLE));
}

TEST(FaultNamesTest, AnUnknownNameIsRefusedWithTheKnownOnes) {
    EXPECT_TRUE(names(refusal_of("no-luck"), {"'no-luck'", "bind-all-fails", "hide-header"}));
}

TEST(FaultNamesTest, TimesThatMakeNoSenseAreRefused) {
    EXPECT_TRUE(names(refusal_of("bug-refused@x"), {"'x'"}));
    EXPECT_TRUE(names(refusal_of("bug-refused@"), {"''"}));
    EXPECT_TRUE(names(refusal_of("bug-refused@3-2"), {"'3-2'"}));
    EXPECT_TRUE(names(refusal_of("hide-header:A@1-2"), {"'1-2'"}));
}

}  // namespace
}  // namespace qv::tools::call
