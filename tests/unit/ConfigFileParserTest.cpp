#include "Support.h"

namespace {

const std::string beginBanner = "#### Begin board information ####\n";
const std::string endBanner = "#### End board information ####\n";

class Configuration : public BoardTest {
protected:
    /// Parses a configuration file with this text; the listing goes to `listing`.
    bool parse(const std::string& text) { return parsePath(file("board.json", text)); }

    bool parsePath(const std::string& path) {
        testing::internal::CaptureStdout();
        try {
            const bool parsed = parser.parseData(path);
            listing = testing::internal::GetCapturedStdout();
            return parsed;
        } catch (...) {
            listing = testing::internal::GetCapturedStdout();
            throw;
        }
    }

    void expectNotParsed() {
        const std::vector<JournalMessage> expected{
            {3, "CODE_FILE=src/ConfigFileParser.cpp", "CODE_LINE=56", "parseData", "Error in parsing"}};
        EXPECT_EQ(journal::take(), expected);
        EXPECT_EQ(listing, "");
        EXPECT_TRUE(parser.entries.empty());
    }

    ConfigFileParser parser;
    std::string listing;
};

TEST_F(Configuration, MissingFileIsNotParsed) {
    EXPECT_FALSE(parsePath(folder / "missing"));
    expectNotParsed();
}

TEST_F(Configuration, FolderInPlaceOfTheFileIsNotParsed) {
    EXPECT_FALSE(parsePath(folder));
    expectNotParsed();
}

TEST_F(Configuration, TextThatIsNotJsonIsNotParsed) {
    for (const char* text : {"", " \n", "[", "[{]", "[{\"name\": }]", "['x']", "nothing", "[1 2]", "\xff"}) {
        EXPECT_FALSE(parse(text)) << text;
        expectNotParsed();
    }
}

TEST_F(Configuration, EarlierEntriesSurviveAFailure) {
    ASSERT_TRUE(parse(R"([{"name": "A"}])"));
    EXPECT_FALSE(parse("["));
    EXPECT_EQ(parser.entries.size(), 1U);
}

TEST_F(Configuration, FurtherFilesAddTheirEntries) {
    ASSERT_TRUE(parse(R"([{"name": "A"}])"));
    ASSERT_TRUE(parse(R"([{"name": "B"}])"));
    ASSERT_EQ(parser.entries.size(), 2U);
    EXPECT_EQ(parser.entries[0].name, "A");
    EXPECT_EQ(parser.entries[1].name, "B");
}

TEST_F(Configuration, DocumentWithoutElementsHasNoEntries) {
    for (const char* text : {"[]", "null", "{}", "5", "\"x\"", "true"}) {
        EXPECT_TRUE(parse(text)) << text;
        EXPECT_EQ(listing, beginBanner + endBanner) << text;
        EXPECT_TRUE(parser.entries.empty()) << text;
        EXPECT_TRUE(journal::take().empty()) << text;
    }
}

TEST_F(Configuration, CommentsAndTrailingCommasAreAccepted) {
    EXPECT_TRUE(parse("/* board */ [ // items\n {\"name\": \"A\",}, ] // end\n"));
    ASSERT_EQ(parser.entries.size(), 1U);
    EXPECT_EQ(parser.entries[0].name, "A");
}

TEST_F(Configuration, TextBehindTheDocumentIsAccepted) {
    EXPECT_TRUE(parse(R"([{"name": "A"}] and more)"));
    EXPECT_EQ(parser.entries.size(), 1U);
}

TEST_F(Configuration, TopLevelObjectWithMembersRaisesBeforeAnyMessage) {
    EXPECT_THROW(parse(R"({"name": "A"})"), Json::LogicError);
    EXPECT_EQ(listing, beginBanner);
    EXPECT_TRUE(parser.entries.empty());
    EXPECT_TRUE(journal::take().empty());
}

TEST_F(Configuration, ElementOrNameOfTheWrongTypeRaisesAfterTheDashes) {
    for (const char* text : {"[5]", "[\"x\"]", "[true]", "[[]]", R"([{"name": {}}])"}) {
        EXPECT_THROW(parse(text), Json::LogicError) << text;
        const std::vector<JournalMessage> expected{{6, "CODE_FILE=src/ConfigFileParser.cpp", "CODE_LINE=63",
                                                    "parseData", "-------------------------------------"}};
        EXPECT_EQ(journal::take(), expected) << text;
    }
}

TEST_F(Configuration, ElementsBeforeOneThatRaisesAreListedAndKept) {
    EXPECT_THROW(parse(R"([{"name": "A"}, 5, {"name": "B"}])"), Json::LogicError);
    EXPECT_EQ(listing, beginBanner + "A                       : \n");
    EXPECT_EQ(parser.entries.size(), 1U);
}

TEST_F(Configuration, EveryKeyFillsItsField) {
    const std::string path = file("fuses", "\x11\x22\x33\x44\x55\x66\x77\x88");
    ASSERT_TRUE(parse(R"([{"name": "Revision", "interface": "Board", "objectpath": "Main/Left", "path": ")" + path +
                      R"(", "location": "fuses", "offset": "0x2", "length": 2, "type": "u", "read": true,
                          "write": true, "signal": true, "translate": {"17459": "B2"}}])"));
    ASSERT_EQ(parser.entries.size(), 1U);
    const ConfigEntry& entry = parser.entries[0];
    EXPECT_EQ(entry.name, "Revision");
    EXPECT_EQ(entry.interface, "Board");
    EXPECT_EQ(entry.objectPath, "Main/Left");
    EXPECT_EQ(entry.path, path);
    EXPECT_EQ(entry.location, "fuses");
    EXPECT_EQ(entry.offset, 2U);
    EXPECT_EQ(entry.length, 2U);
    EXPECT_EQ(entry.type, "u");
    EXPECT_EQ(entry.content, "B2"); // 0x4433
    EXPECT_TRUE(entry.isRead);
    EXPECT_TRUE(entry.isWrite);
    EXPECT_TRUE(entry.isSignal);
}

TEST_F(Configuration, EachFlagHasItsOwnKey) {
    ASSERT_TRUE(parse(R"([{"read": true}, {"write": true}, {"signal": true}])"));
    EXPECT_TRUE(parser.entries[0].isRead && !parser.entries[0].isWrite && !parser.entries[0].isSignal);
    EXPECT_TRUE(!parser.entries[1].isRead && parser.entries[1].isWrite && !parser.entries[1].isSignal);
    EXPECT_TRUE(!parser.entries[2].isRead && !parser.entries[2].isWrite && parser.entries[2].isSignal);
}

TEST_F(Configuration, MissingAndNullKeysGiveTheDefaults) {
    ASSERT_TRUE(parse(R"([{}, null, {"name": null, "interface": null, "objectpath": null, "path": null,
                          "location": null, "offset": null, "length": null, "type": null, "read": null,
                          "write": null, "signal": null, "translate": null}])"));
    ASSERT_EQ(parser.entries.size(), 3U);
    for (const ConfigEntry& entry : parser.entries) {
        EXPECT_EQ(entry.toString(), ConfigEntry().toString());
        EXPECT_EQ(entry.path, "");
    }
}

TEST_F(Configuration, KeysAreCaseSensitiveAndUnknownOnesIgnored) {
    ASSERT_TRUE(parse(R"([{"objectPath": "Main", "Name": "A", "colour": ["green"]}])"));
    EXPECT_EQ(parser.entries[0].objectPath, "");
    EXPECT_EQ(parser.entries[0].name, "");
}

TEST_F(Configuration, NumbersAndFlagsAreTakenAsText) {
    ASSERT_TRUE(parse(R"([{"name": 5, "interface": true, "offset": 16}])"));
    EXPECT_EQ(parser.entries[0].name, "5");
    EXPECT_EQ(parser.entries[0].interface, "true");
    EXPECT_EQ(parser.entries[0].offset, 16U);
}

TEST_F(Configuration, NumbersAreTakenAsFlags) {
    ASSERT_TRUE(parse(R"([{"read": 0, "write": 1, "signal": 0.5}])"));
    EXPECT_FALSE(parser.entries[0].isRead);
    EXPECT_TRUE(parser.entries[0].isWrite);
    EXPECT_TRUE(parser.entries[0].isSignal);
}

TEST_F(Configuration, OffsetTextIsConverted) {
    ASSERT_TRUE(parse(R"([{"offset": "010"}, {"offset": "0x1F"}, {"offset": "-1"}, {"offset": ""}])"));
    EXPECT_EQ(parser.entries[0].offset, 8U);
    EXPECT_EQ(parser.entries[1].offset, 31U);
    EXPECT_EQ(parser.entries[2].offset, 4294967295U);
    EXPECT_EQ(parser.entries[3].offset, 0U);
}

TEST_F(Configuration, ValueOfTheWrongJsonTypeRaises) {
    for (const char* key : {"name", "interface", "objectpath", "path", "location", "offset", "type"})
        for (const char* value : {"[]", "{}", "[1]", R"({"a": 1})"})
            EXPECT_THROW(parse(std::string("[{\"") + key + "\": " + value + "}]"), Json::LogicError) << key << value;
    for (const char* key : {"read", "write", "signal"})
        for (const char* value : {"\"true\"", "[]", "{}"})
            EXPECT_THROW(parse(std::string("[{\"") + key + "\": " + value + "}]"), Json::LogicError) << key << value;
    for (const char* value : {"\"4\"", "-1", "4294967296", "[]", "{}"})
        EXPECT_THROW(parse(std::string("[{\"length\": ") + value + "}]"), Json::LogicError) << value;
    EXPECT_TRUE(parser.entries.empty());
}

TEST_F(Configuration, ElementsWithTheSameIdentityAreAllKeptInOrder) {
    ASSERT_TRUE(parse(R"([{"name": "A", "type": "s"}, {"name": "A", "type": "u"}])"));
    ASSERT_EQ(parser.entries.size(), 2U);
    EXPECT_EQ(parser.entries[0].type, "s");
    EXPECT_EQ(parser.entries[1].type, "u");
}

TEST_F(Configuration, ListingHasTheNameInAFieldOf24Characters) {
    const std::string path = file("value", "K-0042\n");
    ASSERT_TRUE(parse(R"([{"name": "Serial", "location": "par", "path": ")" + path + R"("},
                          {"name": "exactly-24-characters-xx"},
                          {"name": "a-name-longer-than-24-characters"},
                          {}])"));
    EXPECT_EQ(listing, beginBanner +
                           "Serial                  : K-0042\n"
                           "exactly-24-characters-xx: \n"
                           "a-name-longer-than-24-characters: \n"
                           "                        : \n" +
                           endBanner);
}

TEST_F(Configuration, JournalFollowsTheElementsInOrder) {
    ASSERT_TRUE(parse(R"([{"name": "First", "location": "fuses", "offset": "abc"}, {"name": "Second"}])"));
    const std::string file = "CODE_FILE=src/ConfigFileParser.cpp";
    const JournalMessage badOffset{3, file, "CODE_LINE=210", "convert",
                                   "Invalid-Argument: could not convert value: abc"};
    const std::string dashes = "-------------------------------------";
    ASSERT_EQ(dashes.size(), 37U);
    const std::vector<JournalMessage> expected{
        {6, file, "CODE_LINE=63", "parseData", dashes},
        {6, file, "CODE_LINE=64", "parseData", "Current Entry: First"},
        {7, file, "CODE_LINE=68", "parseData",
         "Current Entry JSON:\n{\n\t\"location\" : \"fuses\",\n\t\"name\" : \"First\",\n\t\"offset\" : \"abc\"\n}\n"},
        badOffset, // from the reader
        badOffset, // from the entry's own field
        {7, file, "CODE_LINE=87", "parseData", "Config Entry:\n" + parser.entries[0].toString()},
        {6, file, "CODE_LINE=63", "parseData", dashes},
        {6, file, "CODE_LINE=64", "parseData", "Current Entry: Second"},
        {7, file, "CODE_LINE=68", "parseData", "Current Entry JSON:\n{\n\t\"name\" : \"Second\"\n}\n"},
        {7, file, "CODE_LINE=87", "parseData", "Config Entry:\n" + parser.entries[1].toString()},
    };
    EXPECT_EQ(journal::take(), expected);
}

TEST_F(Configuration, ValueIsReadBeforeTheFieldsAreFilled) {
    // "length" raises in the reader of a fuse, and only after the reader for any other location.
    EXPECT_THROW(parse(R"([{"name": "A", "location": "fuses", "offset": "abc", "length": "x"}])"), Json::LogicError);
    EXPECT_EQ(journal::take().size(), 4U);
    EXPECT_THROW(parse(R"([{"name": "A", "location": "par", "offset": "abc", "length": "x"}])"), Json::LogicError);
    EXPECT_EQ(journal::take().size(), 4U);
    EXPECT_THROW(parse(R"([{"name": "A", "location": "fuses", "offset": "abc", "interface": []}])"), Json::LogicError);
    EXPECT_EQ(journal::take().size(), 4U);
}

TEST_F(Configuration, PercentSignsAreNotFormats) {
    ASSERT_TRUE(parse(R"([{"name": "%s%n%d"}])"));
    EXPECT_EQ(journal::take().at(1).text, "Current Entry: %s%n%d");
}

TEST(ConfigFileParserInstance, IsTheSameEveryTime) {
    EXPECT_NE(ConfigFileParser::getInstance(), nullptr);
    EXPECT_EQ(ConfigFileParser::getInstance(), ConfigFileParser::getInstance());
}

} // namespace
