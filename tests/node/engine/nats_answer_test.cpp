#include "node/engine/nats_answer.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::node::nats {

namespace {

// Number, whether it is stored, whether a stream may be missing, and the error.
std::string seen(const std::string& subject, const std::string& data, bool nobody = false) {
    const Answer answer = read_answer(subject, data, nobody);
    return std::to_string(answer.number) + (answer.stored ? " stored" : " refused") +
           (answer.no_stream ? ", no stream? " : " ") + (answer.too_long ? "too long: " : "") +
           answer.error;
}

TEST(NatsAnswerTest, AcknowledgementMeansStored) {
    EXPECT_EQ(seen("_INBOX.x.17", R"({"stream":"quorvane-events","seq":5})"), "17 stored ");
    EXPECT_EQ(seen("_INBOX.x.17", R"({"stream":"s","seq":5,"duplicate":true})"), "17 stored ");
}

TEST(NatsAnswerTest, ErrorOfJetStreamIsARefusal) {
    EXPECT_EQ(seen("_INBOX.x.3", R"({"error":{"code":503,"description":"no space"},"seq":0})"),
              "3 refused no space");
    EXPECT_EQ(seen("_INBOX.x.3", R"({"error":{"description":7}})"), "3 refused refused");
    EXPECT_EQ(seen("_INBOX.x.3", R"({"error":{}})"), "3 refused refused");
}

TEST(NatsAnswerTest, EventThatIsTooLongForTheStreamIsNeverTaken) {
    EXPECT_EQ(seen("_INBOX.x.3", R"({"error":{"err_code":10054,"description":"size"}})"),
              "3 refused too long: size");
    EXPECT_EQ(seen("_INBOX.x.3", R"({"error":{"err_code":10053,"description":"size"}})"),
              "3 refused size");
    EXPECT_EQ(seen("_INBOX.x.3", R"({"error":{"err_code":"10054","description":"size"}})"),
              "3 refused size");
}

TEST(NatsAnswerTest, NobodyThereMeansThatTheStreamIsMissing) {
    EXPECT_EQ(seen("_INBOX.x.3", "", true), "3 refused, no stream? no stream takes them");
}

TEST(NatsAnswerTest, WhatOthersAnswerDoesNotShowWhetherThereIsAStream) {
    const std::string refused = "3 refused, no stream? the answer is no acknowledgement";
    for (const char* data :
         {"", "[", "[1]", "7", "null", "{}", R"({"error":"x"})", R"({"error":null,"seq":1})",
          R"({"sequence":1})", "\xff\xfe", "{\"seq\":1"}) {
        EXPECT_EQ(seen("_INBOX.x.3", data), refused) << data;
    }
    EXPECT_EQ(seen("_INBOX.x.3", std::string(1 << 20, '[')), refused);
    EXPECT_EQ(seen("_INBOX.x.3", R"({"seq":1,"a":")" + std::string(1 << 20, 'a') + "\"}"), refused);
}

TEST(NatsAnswerTest, NumberIsTheLastWordOfTheSubject) {
    EXPECT_EQ(read_answer("18446744073709551615", "", true).number, 18446744073709551615U);
    for (const char* subject :
         {"", "_INBOX.x.", "_INBOX.x.18446744073709551616", "_INBOX.x.-1", "_INBOX.x.1x", "a.b"}) {
        EXPECT_EQ(read_answer(subject, "", true).number, 0U) << subject;
    }
}

}  // namespace

}  // namespace qv::node::nats
