#include "Support.h"
#include "dbus/DBusServices.h"

namespace {

using dbus::DBusServices;

class IntrospectionXml : public BoardTest {
protected:
    static void add(const std::string& name, const std::string& interface, const std::string& objectPath,
                    const std::string& type, bool isRead = true, bool isWrite = false) {
        ConfigEntry entry;
        entry.name = name;
        entry.interface = interface;
        entry.objectPath = objectPath;
        entry.type = type;
        entry.isRead = isRead;
        entry.isWrite = isWrite;
        ConfigFileParser::getInstance()->entries.push_back(entry);
    }

    static std::string generated() {
        std::string xml;
        DBusServices::generateXMLFile(xml);
        return xml;
    }
};

TEST_F(IntrospectionXml, OfNoEntriesIsAnEmptyNode) {
    EXPECT_EQ(generated(), "<node name='/com/brenvok/Korvaneinfo1'></node>");
}

TEST_F(IntrospectionXml, OfRootAndChildEntries) {
    add("Serial", "Board", "", "s", true, false);
    add("MacAddress", "Network", "Eth0", "s", true, true);
    add("Revision", "Board", "", "u", true, false);
    add("Speed", "Network", "Eth0", "i", false, false);
    EXPECT_EQ(generated(), "<node name='/com/brenvok/Korvaneinfo1'> <interface name='com.brenvok.Info1.Board'>  "
                           "<property name='Serial' type='s' access='read'/> <property name='Revision' type='u' "
                           "access='read'/> </interface><node name='/com/brenvok/Korvaneinfo1/Eth0'> <interface "
                           "name='com.brenvok.Info1.Network'>  <property name='MacAddress' type='s' "
                           "access='readwrite'/> <property name='Speed' type='i' access='read'/> "
                           "</interface></node></node>");
}

TEST_F(IntrospectionXml, OfChildEntriesAloneHasNoRootInterface) {
    add("A", "I", "Eth0", "s");
    EXPECT_EQ(generated(), "<node name='/com/brenvok/Korvaneinfo1'><node name='/com/brenvok/Korvaneinfo1/Eth0'> "
                           "<interface name='com.brenvok.Info1.I'>  <property name='A' type='s' access='read'/> "
                           "</interface></node></node>");
}

TEST_F(IntrospectionXml, OfRootEntriesAloneHasNoChildNode) {
    add("A", "I", "", "s");
    add("B", "I", "", "s");
    add("C", "I", "", "s");
    EXPECT_EQ(generated(), "<node name='/com/brenvok/Korvaneinfo1'> <interface name='com.brenvok.Info1.I'>  "
                           "<property name='A' type='s' access='read'/> <property name='B' type='s' access='read'/> "
                           "<property name='C' type='s' access='read'/> </interface></node>");
}

TEST_F(IntrospectionXml, ObjectHasTheInterfaceOfItsFirstEntryAlone) {
    add("A", "First", "Eth0", "s");
    add("B", "Second", "Eth0", "u");
    EXPECT_EQ(generated(), "<node name='/com/brenvok/Korvaneinfo1'><node name='/com/brenvok/Korvaneinfo1/Eth0'> "
                           "<interface name='com.brenvok.Info1.First'>  <property name='A' type='s' access='read'/> "
                           "<property name='B' type='u' access='read'/> </interface></node></node>");
}

TEST_F(IntrospectionXml, ChildNodesAreInByteOrderAndPropertiesInFileOrder) {
    for (const char* path : {"eth0", "Eth1", "", "Eth0", "Eth", "\xc3\xa4", "Eth0/x"}) {
        add("Z", "I", path, "s");
        add("A", "I", path, "s");
    }
    const std::string interface = " <interface name='com.brenvok.Info1.I'>  <property name='Z' type='s' "
                                  "access='read'/> <property name='A' type='s' access='read'/> </interface>";
    std::string expected = "<node name='/com/brenvok/Korvaneinfo1'>" + interface;
    for (const char* path : {"Eth", "Eth0", "Eth0/x", "Eth1", "eth0", "\xc3\xa4"})
        expected += "<node name='/com/brenvok/Korvaneinfo1/" + std::string(path) + "'>" + interface + "</node>";
    EXPECT_EQ(generated(), expected + "</node>");
}

TEST_F(IntrospectionXml, ObjectPathsAreTakenVerbatim) {
    add("A", "I", "/Eth0", "s");
    add("B", "I", "Eth0/", "s");
    const std::string xml = generated();
    EXPECT_NE(xml.find("<node name='/com/brenvok/Korvaneinfo1//Eth0'>"), std::string::npos);
    EXPECT_NE(xml.find("<node name='/com/brenvok/Korvaneinfo1/Eth0/'>"), std::string::npos);
}

TEST_F(IntrospectionXml, TextsAreNeitherCheckedNorEscaped) {
    add("it's <A> & B", "", "x'y", "");
    EXPECT_EQ(generated(), "<node name='/com/brenvok/Korvaneinfo1'><node name='/com/brenvok/Korvaneinfo1/x'y'> "
                           "<interface name='com.brenvok.Info1.'>  <property name='it's <A> & B' type='' "
                           "access='read'/> </interface></node></node>");
}

TEST_F(IntrospectionXml, DuplicatesAreNotMerged) {
    add("A", "I", "", "s");
    add("A", "I", "", "s");
    EXPECT_EQ(generated(), "<node name='/com/brenvok/Korvaneinfo1'> <interface name='com.brenvok.Info1.I'>  "
                           "<property name='A' type='s' access='read'/> <property name='A' type='s' access='read'/> "
                           "</interface></node>");
}

TEST_F(IntrospectionXml, IsAppendedAndLoggedWhole) {
    std::string xml = "before";
    DBusServices::generateXMLFile(xml);
    EXPECT_EQ(xml, "before<node name='/com/brenvok/Korvaneinfo1'></node>");
    const std::vector<JournalMessage> expected{
        {7, "CODE_FILE=src/dbus/DBusServices.cpp", "CODE_LINE=229", "generateXMLFile", "XML file: " + xml}};
    EXPECT_EQ(journal::take(), expected);
}

TEST_F(IntrospectionXml, AccessFollowsTheFlags) {
    EXPECT_EQ(DBusServices::accessString(true, true), "readwrite");
    EXPECT_EQ(DBusServices::accessString(false, true), "write");
    EXPECT_EQ(DBusServices::accessString(true, false), "read");
    EXPECT_EQ(DBusServices::accessString(false, false), "read");
}

} // namespace
