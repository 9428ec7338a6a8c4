#include "Item.h"
#include "Introspection.h"
#include "Table.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {

using ctl::Item;

Item makeItem(const std::string& object, const std::string& interface, const std::string& name) {
    const std::string root = "/com/brenvok/Korvaneinfo1";
    return {object.empty() ? root : root + "/" + object,
            "com.brenvok.Info1." + interface,
            name,
            "s",
            "read",
            ctl::Value{"x", Json::Value("x")},
            {}};
}

TEST(Item, ShortNamesLeaveOutWhatAllHaveInCommon) {
    EXPECT_EQ(makeItem("", "Board", "Serial").shortName(), "/Board/Serial");
    EXPECT_EQ(makeItem("a/b", "Net.Sub", "Speed").shortName(), "a/b/Net.Sub/Speed");
    Item foreign = makeItem("", "Board", "Serial");
    foreign.objectPath = "/com/brenvok/Korvaneinfo10";
    EXPECT_EQ(foreign.shortObject(), "/com/brenvok/Korvaneinfo10");
}

TEST(FindItem, TheLongestShortNameIsNeverAmbiguous) {
    // The first item's name is also the second one's without its interface.
    const std::vector<Item> items{makeItem("a", "b", "X"), makeItem("a/b", "c", "X")};
    EXPECT_EQ(&ctl::findItem(items, "a/b/X"), items.data());
    EXPECT_EQ(&ctl::findItem(items, "a/b/c/X"), &items[1]);
    EXPECT_THROW(ctl::findItem(items, "X"), ctl::Failure);
    EXPECT_THROW(ctl::findItem(items, "b/c"), ctl::Failure);
}

TEST(Printable, ControlCharactersAreEscaped) {
    EXPECT_EQ(ctl::printable("a\tb\x1b[m\x7f\r\n"), "a\\x09b\\x1b[m\\x7f\\x0d\\x0a");
    EXPECT_EQ(ctl::printable("\xc2\x9b\xc2\xa0ä"), "\\x9b\xc2\xa0ä"); // C1 controls, but not what follows them
}

TEST(Shortest, ReadsBackAsTheSameNumber) {
    EXPECT_EQ(ctl::shortest(0.1), "0.1");
    EXPECT_EQ(ctl::shortest(21.55), "21.55");
    EXPECT_EQ(ctl::shortest(1.0 / 3), "0.3333333333333333");
}

std::string table(const std::vector<Item>& items, const ctl::TableStyle& style) {
    std::ostringstream out;
    printTable(out, items, style);
    return out.str();
}

TEST(Table, LinesAreCutAtTheWidthInCharacters) {
    Item item = makeItem("", "B", "P");
    item.value->text = "äöüäöü";
    ctl::TableStyle style;
    style.hasLegend = false;
    style.width = 17;
    EXPECT_EQ(table({item}, style), "/ B P s read äöü…\n");
    style.width = 20;
    EXPECT_EQ(table({item}, style), "/ B P s read äöüäöü\n");
    style.width = 1;
    EXPECT_EQ(table({item}, style), "…\n");
}

TEST(Table, ColourMarksHeadingsAndErrors) {
    Item item = makeItem("", "B", "P");
    item.error = "gone\x1b";
    ctl::TableStyle style;
    style.isColoured = true;
    EXPECT_EQ(table({item}, style), "\x1b[1mOBJECT INTERFACE PROPERTY TYPE ACCESS VALUE\x1b[0m\n"
                                    "\x1b[31m/      B         P        s    read   error: gone\\x1b\x1b[0m\n");
}

TEST(Introspection, OnlyTheObjectsOwnPropertiesAndChildrenCount) {
    const ctl::Introspection result = ctl::parseIntrospection(
        "<!DOCTYPE node PUBLIC \"x\" \"y\"><node name='/r'>"
        "<interface name='I'><method name='M'><arg name='A' type='s'/></method>"
        "<property name='P' type='u' access='readwrite'><annotation name='N' value='v'/></property></interface>"
        "<property name='Q' type='u' access='read'/>"
        "<node name='c'><interface name='J'><property name='R' type='s' access='read'/></interface>"
        "<node name='d'/></node></node>");
    ASSERT_EQ(result.properties.size(), 1U);
    EXPECT_EQ(result.properties[0].interface, "I");
    EXPECT_EQ(result.properties[0].name, "P");
    EXPECT_EQ(result.properties[0].signature, "u");
    EXPECT_EQ(result.properties[0].access, "readwrite");
    EXPECT_EQ(result.children, std::vector<std::string>{"c"});
}

TEST(Introspection, WhatIsNoXmlRaises) {
    for (const char* xml : {"", "<node>", "<node></x>", "x", "<node a='<'/>"})
        EXPECT_THROW(ctl::parseIntrospection(xml), std::runtime_error) << xml;
}

} // namespace
