#include "ConfigFileParser.h"
#include "JournalCapture.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <sstream>

namespace {

class Convert : public testing::Test {
protected:
    void SetUp() override { journal::take(); }

    static void expectWithoutMessage(const std::string& text, std::uint32_t number) {
        EXPECT_EQ(ConfigFileParser::convert(text), number) << text;
        EXPECT_TRUE(journal::take().empty()) << text;
    }

    static void expectRejected(const std::string& text, const std::string& line, const std::string& message) {
        EXPECT_EQ(ConfigFileParser::convert(text), 0U) << text;
        const std::vector<JournalMessage> expected{
            {3, "CODE_FILE=src/ConfigFileParser.cpp", line, "convert", message + text}};
        EXPECT_EQ(journal::take(), expected);
    }
};

TEST_F(Convert, EmptyTextIsZeroWithoutAMessage) { expectWithoutMessage("", 0); }

TEST_F(Convert, TextWithoutDigitsIsZeroWithAMessage) {
    for (const char* text : {"abc", " ", "-", "+", "x10", "--1", "*"})
        expectRejected(text, "CODE_LINE=210", "Invalid-Argument: could not convert value: ");
}

TEST_F(Convert, NumberOutside64BitsIsZeroWithAMessage) {
    for (const char* text : {"99999999999999999999", "9223372036854775808", "-9223372036854775809"})
        expectRejected(text, "CODE_LINE=214", "Out-Of-Range: could not convert value: ");
}

TEST_F(Convert, LeadingZeroSelectsOctalAndZeroXHexadecimal) {
    expectWithoutMessage("0x1F", 31);
    expectWithoutMessage("0X1f", 31);
    expectWithoutMessage("017", 15);
    expectWithoutMessage("010", 8);
    expectWithoutMessage("10", 10);
    expectWithoutMessage("0", 0);
}

TEST_F(Convert, LeadingWhitespaceAndASignAreAccepted) {
    expectWithoutMessage("  42", 42);
    expectWithoutMessage("\t\n42", 42);
    expectWithoutMessage("+7", 7);
    expectWithoutMessage("-4", 4294967292);
    expectWithoutMessage("-0x10", 4294967280);
}

TEST_F(Convert, TextBehindTheNumberIsIgnored) {
    expectWithoutMessage("12abc", 12);
    expectWithoutMessage("0x1G", 1);
    expectWithoutMessage("0x", 0);
    expectWithoutMessage("08", 0);
    expectWithoutMessage("16.5", 16);
}

TEST_F(Convert, OnlyTheLow32BitsAreKept) {
    expectWithoutMessage("4294967295", 4294967295);
    expectWithoutMessage("-1", 4294967295);
    expectWithoutMessage("4294967296", 0);
    expectWithoutMessage("0x100000000", 0);
    expectWithoutMessage("0x123456789", 0x23456789);
    expectWithoutMessage("9223372036854775807", 4294967295);
    expectWithoutMessage("-9223372036854775808", 0);
}

class Translate : public testing::Test {
protected:
    static std::string translate(const std::string& json, const std::string& raw) {
        Json::Value element;
        std::istringstream(json) >> element;
        return ConfigFileParser::translateValue(element, raw);
    }
};

TEST_F(Translate, WithoutATableTheRawTextIsPublished) {
    EXPECT_EQ(translate(R"({})", "5"), "5");
    EXPECT_EQ(translate(R"({"translate": null})", "5"), "5");
    EXPECT_EQ(translate(R"({"translate": {}})", "5"), "5");
}

TEST_F(Translate, TheMemberNamedLikeTheRawTextWins) {
    const char* json = R"({"translate": {"0": "disabled", "1": "enabled", "*": "unknown"}})";
    EXPECT_EQ(translate(json, "0"), "disabled");
    EXPECT_EQ(translate(json, "1"), "enabled");
}

TEST_F(Translate, TheStarMemberIsTheFallback) {
    const char* json = R"({"translate": {"0": "disabled", "1": "enabled", "*": "unknown"}})";
    EXPECT_EQ(translate(json, "2"), "unknown");
    EXPECT_EQ(translate(json, ""), "unknown");
    EXPECT_EQ(translate(json, "00"), "unknown");
}

TEST_F(Translate, MembersThatAreNotStringsAreIgnored) {
    EXPECT_EQ(translate(R"({"translate": {"5": 7, "*": "other"}})", "5"), "other");
    EXPECT_EQ(translate(R"({"translate": {"5": 7}})", "5"), "5");
    EXPECT_EQ(translate(R"({"translate": {"5": null, "*": false}})", "5"), "5");
}

TEST_F(Translate, AnEmptyStringIsAStringAsWell) {
    EXPECT_EQ(translate(R"({"translate": {"5": "", "*": "other"}})", "5"), "");
    EXPECT_EQ(translate(R"({"translate": {"*": ""}})", "5"), "");
}

TEST_F(Translate, MemberNamesAreCaseSensitive) {
    const char* json = R"({"translate": {"00AB": "upper", "00ab": "lower"}})";
    EXPECT_EQ(translate(json, "00ab"), "lower");
    EXPECT_EQ(translate(R"({"translate": {"00AB": "upper"}})", "00ab"), "00ab");
}

TEST_F(Translate, TheTextIsNotTranslatedTwice) {
    EXPECT_EQ(translate(R"({"translate": {"1": "2", "2": "3"}})", "1"), "2");
}

TEST_F(Translate, ATableThatIsNotAnObjectRaises) {
    for (const char* json : {R"({"translate": "x"})", R"({"translate": 1})", R"({"translate": ["x"]})",
                             R"({"translate": true})", R"({"translate": []})"})
        EXPECT_THROW(translate(json, "5"), Json::LogicError) << json;
}

TEST_F(Translate, TheElementIsNotChanged) {
    Json::Value element;
    std::istringstream(R"({"translate": {"1": "one"}})") >> element;
    const Json::Value before = element;
    ConfigFileParser::translateValue(element, "2");
    EXPECT_EQ(element, before);
}

} // namespace
