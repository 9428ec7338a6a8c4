#include "Convert.h"
#include "Item.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace {

using ctl::BasicValue;
using ctl::convert;
using ctl::expectedText;

void expectRefused(const std::string& signature, const std::string& text) {
    EXPECT_THROW(convert(signature, text), ctl::Failure) << signature << ' ' << text;
}

TEST(Convert, EachTypeHasItsRange) {
    EXPECT_EQ(convert("y", "255"), BasicValue(std::uint8_t{255}));
    EXPECT_EQ(convert("n", "-32768"), BasicValue(std::int16_t{-32768}));
    EXPECT_EQ(convert("q", "65535"), BasicValue(std::uint16_t{65535}));
    EXPECT_EQ(convert("i", "-2147483648"), BasicValue(std::numeric_limits<std::int32_t>::min()));
    EXPECT_EQ(convert("u", "2147483647"), BasicValue(std::uint32_t{2147483647}));
    EXPECT_EQ(convert("x", "-9223372036854775808"), BasicValue(std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ(convert("t", "18446744073709551615"), BasicValue(std::numeric_limits<std::uint64_t>::max()));
    expectRefused("y", "256");
    expectRefused("n", "32768");
    expectRefused("q", "65536");
    expectRefused("i", "2147483648");
    expectRefused("x", "9223372036854775808");
    expectRefused("t", "18446744073709551616");
}

TEST(Convert, UnsignedNumberHasToBeOneThatTheDaemonReadsBack) { expectRefused("u", "2147483648"); }

TEST(Convert, OnlyAWholeNumberInDecimalIsANumber) {
    for (const char* text : {"", " 1", "1 ", "0x1", "1.0", "+1", "one", "1e3", "-"})
        expectRefused("i", text);
    for (const char* text : {"", " 1", "1 ", "0x1p3", "one", "1e", "1e309", "1,5"})
        expectRefused("d", text);
    expectRefused("u", "-1");
}

TEST(Convert, RealNumberHasToBeOneThatTheDaemonReadsBack) {
    EXPECT_EQ(convert("d", "-1.5e-3"), BasicValue(-1.5e-3));
    EXPECT_EQ(convert("d", "2.2250738585072014e-308"), BasicValue(std::numeric_limits<double>::min()));
    EXPECT_EQ(convert("d", "0"), BasicValue(0.0));
    EXPECT_TRUE(std::isinf(std::get<double>(convert("d", "inf"))));
    expectRefused("d", "1e-310");
}

TEST(Convert, BooleanIsTrueOrFalse) {
    EXPECT_EQ(convert("b", "true"), BasicValue(std::int32_t{1}));
    EXPECT_EQ(convert("b", "false"), BasicValue(std::int32_t{0}));
    for (const char* text : {"1", "yes", "True", "", " true"})
        expectRefused("b", text);
}

TEST(Convert, TextHasToBeUtf8) {
    for (const char* text : {"", "abc", "ä€", "\xf0\x9f\x98\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xf4\x8f\xbf\xbf"})
        EXPECT_EQ(convert("s", text), BasicValue(std::string(text))) << text;
    for (const char* text : {"\x80", "\xc3", "\xc3(", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
                             "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82", "\xff"})
        expectRefused("s", text);
}

TEST(Convert, ObjectPathIsChecked) {
    EXPECT_EQ(convert("o", "/a/b"), BasicValue(std::string("/a/b")));
    expectRefused("o", "a/b");
}

TEST(Convert, OtherTypesAreRefused) {
    for (const char* signature : {"", "as", "v", "g", "h", "ii", "(i)", "z"})
        expectRefused(signature, "1");
}

TEST(ExpectedText, IsWhatTheDaemonAnswers) {
    EXPECT_EQ(expectedText("y", convert("y", "7")), "0x07");
    EXPECT_EQ(expectedText("n", convert("n", "-7")), "-7");
    EXPECT_EQ(expectedText("t", convert("t", "18446744073709551615")), "18446744073709551615");
    EXPECT_EQ(expectedText("i", convert("i", "1")), "1");
    EXPECT_EQ(expectedText("b", convert("b", "true")), "true");
    EXPECT_EQ(expectedText("b", convert("b", "false")), "false");
    EXPECT_EQ(expectedText("d", convert("d", "0.10")), "0.1");
    EXPECT_EQ(expectedText("s", convert("s", "x y")), "x y");
}

} // namespace
