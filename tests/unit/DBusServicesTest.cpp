#include "dbus/DBusServices.h"
#include "NameRequests.h"
#include "PeerConnections.h"
#include "Support.h"

#include <stdexcept>
#include <utility>
#include <vector>

namespace {

using dbus::DBusServices;
using Gio::DBus::Error;

const std::string codeFile = "CODE_FILE=src/dbus/DBusServices.cpp";
const Glib::ustring root = "/com/brenvok/Korvaneinfo1";
const Glib::ustring properties = "org.freedesktop.DBus.Properties";

ConfigEntry entryOf(const std::string& objectPath, const std::string& interface, const std::string& name,
                    const std::string& content, const std::string& type = "s") {
    ConfigEntry entry;
    entry.objectPath = objectPath;
    entry.interface = interface;
    entry.name = name;
    entry.content = content;
    entry.type = type;
    entry.isRead = true;
    entry.isWrite = true;
    return entry;
}

class Service : public BoardTest {
protected:
    void SetUp() override {
        BoardTest::SetUp();
        Gio::init();
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        name_requests::answer = name_requests::Answer::hold;
        name_requests::made = 0;
        name_requests::released = 0;
    }

    void TearDown() override {
        DBusServices::destroyInstance(nullptr);
        BoardTest::TearDown();
    }

    static std::vector<ConfigEntry>& entries() { return ConfigFileParser::getInstance()->entries; }

    /// Returns the messages of the service since the last call, without the two that hold the whole document.
    static std::vector<JournalMessage> messages() {
        std::vector<JournalMessage> kept;
        for (const JournalMessage& message : journal::take())
            if (message.line != "CODE_LINE=229" && message.line != "CODE_LINE=52")
                kept.push_back(message);
        return kept;
    }

    static JournalMessage registering(const std::string& line, const std::string& function) {
        return {7, codeFile, line, function, "Registering interfaces"};
    }

    static Glib::VariantContainerBase get(const PeerConnections& peers, const Glib::ustring& path,
                                          const Glib::ustring& interface, const Glib::ustring& name) {
        return peers.call(path, properties, "Get",
                          Glib::VariantContainerBase::create_tuple({Glib::Variant<Glib::ustring>::create(interface),
                                                                    Glib::Variant<Glib::ustring>::create(name)}));
    }
};

using Construction = Service;

TEST_F(Construction, GeneratesAndLogsTheIntrospectionData) {
    DBusServices::init();
    const std::string xml = "<node name='/com/brenvok/Korvaneinfo1'></node>";
    const std::vector<JournalMessage> expected{
        {7, codeFile, "CODE_LINE=229", "generateXMLFile", "XML file: " + xml},
        {7, codeFile, "CODE_LINE=52", "DBusServices", "Introspection Data:\n" + xml},
    };
    EXPECT_EQ(journal::take(), expected);
}

TEST_F(Construction, IsSilentOnStandardErrorAndOutput) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    DBusServices::init();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(Construction, RejectedIntrospectionDataRaisesAndLeavesNoService) {
    entries().push_back(entryOf("", "Board", "a'b", ""));
    EXPECT_THROW(DBusServices::init(), Glib::Error);
    EXPECT_EQ(DBusServices::instance, nullptr);
    EXPECT_EQ(name_requests::made, 0);
}

TEST_F(Construction, SecondInitReturnsTheSameServiceWithoutARequest) {
    DBusServices* const service = DBusServices::init();
    EXPECT_EQ(DBusServices::instance, service);
    EXPECT_EQ(DBusServices::init(), service);
    EXPECT_EQ(name_requests::made, 1);
}

TEST_F(Construction, RequestsTheNameOnTheSystemBusWithoutFlags) {
    DBusServices::init();
    EXPECT_EQ(name_requests::lastBus, G_BUS_TYPE_SYSTEM);
    EXPECT_EQ(name_requests::lastName, "com.brenvok.korvaneinfod");
    EXPECT_EQ(name_requests::lastFlags, G_BUS_NAME_OWNER_FLAGS_NONE);
}

TEST_F(Construction, RefusedRequestIsLoggedAndRaisesAndTheServiceStays) {
    name_requests::answer = name_requests::Answer::refuse;
    try {
        DBusServices::init();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Failed to own name for com.brenvok.korvaneinfod");
    }
    const std::vector<JournalMessage> expected{{7, codeFile, "CODE_LINE=78", "init", "busname could not be owned"}};
    EXPECT_EQ(messages(), expected);
    EXPECT_NE(DBusServices::instance, nullptr);
}

using Teardown = Service;

TEST_F(Teardown, ReleasesTheNameAndTheService) {
    DBusServices::init();
    DBusServices::destroyInstance(nullptr); // the argument is ignored
    EXPECT_EQ(name_requests::released, 1);
    EXPECT_EQ(DBusServices::instance, nullptr);
}

TEST_F(Teardown, WithoutAServiceDoesNothing) {
    DBusServices::destroyInstance(nullptr);
    EXPECT_EQ(name_requests::released, 0);
}

TEST_F(Teardown, WithoutAnOwnerIdReleasesNoName) {
    name_requests::answer = name_requests::Answer::refuse;
    EXPECT_THROW(DBusServices::init(), std::runtime_error);
    DBusServices::destroyInstance(nullptr);
    EXPECT_EQ(name_requests::released, 0);
    EXPECT_EQ(DBusServices::instance, nullptr);
}

using MainLoop = Service;

TEST_F(MainLoop, EndsWhenThereIsNoBus) {
    name_requests::answer = name_requests::Answer::forward;
    DBusServices* const service = DBusServices::init();
    journal::take();
    service->run();
    const std::vector<JournalMessage> expected{{7, codeFile, "CODE_LINE=460", "onNameLost", "connection lost"}};
    EXPECT_EQ(journal::take(), expected);
}

using Registration = Service;

TEST_F(Registration, VisitsTheRootAndThenEachChild) {
    entries() = {entryOf("Eth0", "Port", "Mac", "x"), entryOf("", "Board", "Serial", "y")};
    DBusServices::init();
    const PeerConnections peers;
    journal::take();
    DBusServices::onBusAcquired(peers.service, "com.brenvok.korvaneinfod");
    const std::vector<JournalMessage> expected{
        {6, codeFile, "CODE_LINE=425", "onBusAcquired", "Bus acquired com.brenvok.korvaneinfod, registering objects"},
        registering("CODE_LINE=494", "registerObjects"),
        registering("CODE_LINE=519", "registerInterfaces"),
        registering("CODE_LINE=494", "registerObjects"),
        registering("CODE_LINE=519", "registerInterfaces")};
    EXPECT_EQ(journal::take(), expected);
    EXPECT_EQ(get(peers, root, "com.brenvok.Info1.Board", "Serial").print(), "(<'y'>,)");
    EXPECT_EQ(get(peers, root + "/Eth0", "com.brenvok.Info1.Port", "Mac").print(), "(<'x'>,)");
}

TEST_F(Registration, RootWithoutAnInterfaceIsPassedOver) {
    entries() = {entryOf("Eth0", "Port", "Mac", "x")};
    DBusServices::init();
    const PeerConnections peers;
    journal::take();
    DBusServices::registerObjects(peers.service);
    const std::vector<JournalMessage> expected{registering("CODE_LINE=494", "registerObjects"),
                                               registering("CODE_LINE=494", "registerObjects"),
                                               registering("CODE_LINE=519", "registerInterfaces")};
    EXPECT_EQ(journal::take(), expected);
}

TEST_F(Registration, NodeWithTwoInterfacesIsRegisteredTwice) {
    DBusServices::init();
    const PeerConnections peers;
    journal::take();
    const auto node = Gio::DBus::NodeInfo::create_for_xml(
        "<node name='/two'><interface name='a.One'/><interface name='a.Two'/></node>");
    DBusServices::registerInterfaces(node->gobj(), peers.service);
    const std::vector<JournalMessage> expected{registering("CODE_LINE=519", "registerInterfaces"),
                                               registering("CODE_LINE=519", "registerInterfaces")};
    EXPECT_EQ(journal::take(), expected);
    DBusServices::onNameLost(peers.service, "the.name"); // each by its own id, or the path would still be taken
    DBusServices::registerInterfaces(node->gobj(), peers.service);
}

TEST_F(Registration, KeepsTheEndOfTheBusFromEndingTheProcess) {
    DBusServices::init();
    const PeerConnections peers;
    peers.service->set_exit_on_close(true);
    DBusServices::onBusAcquired(peers.service, "the.name");
    EXPECT_FALSE(peers.service->get_exit_on_close());
}

TEST_F(Registration, RefusedObjectRaisesWithTheInterfaceName) {
    testing::internal::CaptureStderr(); // the bus library complains there
    DBusServices::init();
    const PeerConnections peers;
    journal::take();
    const auto node = Gio::DBus::NodeInfo::create_for_xml("<node name='/a//b'><interface name='a.One'/></node>");
    try {
        DBusServices::registerInterfaces(node->gobj(), peers.service);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), Error::FAILED);
        EXPECT_EQ(error.what(), "Failed to registering interface a.One");
    }
    const std::vector<JournalMessage> expected{
        {7, codeFile, "CODE_LINE=525", "registerInterfaces", "failed registering interfaces"}};
    EXPECT_EQ(journal::take(), expected);
    testing::internal::GetCapturedStderr();
}

TEST_F(Registration, FailureIsLoggedAndEndsTheMainLoop) {
    testing::internal::CaptureStderr();
    entries() = {entryOf("", "Board", "Serial", ""), entryOf("a-b", "Board", "Serial", "")};
    DBusServices* const service = DBusServices::init();
    const PeerConnections peers;
    journal::take();
    Glib::signal_idle().connect_once([&] { DBusServices::onBusAcquired(peers.service, "the.name"); });
    service->run();
    const std::vector<JournalMessage> expected{
        {6, codeFile, "CODE_LINE=425", "onBusAcquired", "Bus acquired the.name, registering objects"},
        registering("CODE_LINE=494", "registerObjects"),
        registering("CODE_LINE=519", "registerInterfaces"),
        registering("CODE_LINE=494", "registerObjects"),
        {7, codeFile, "CODE_LINE=525", "registerInterfaces", "failed registering interfaces"},
        {7, codeFile, "CODE_LINE=431", "onBusAcquired", "Registration failed"}};
    EXPECT_EQ(journal::take(), expected);
    EXPECT_EQ(get(peers, root, "com.brenvok.Info1.Board", "Serial").print(), "(<''>,)"); // nothing is rolled back
    testing::internal::GetCapturedStderr();
}

TEST_F(Registration, TakenObjectPathEndsTheMainLoop) {
    entries() = {entryOf("", "Board", "Serial", "")};
    DBusServices* const service = DBusServices::init();
    const PeerConnections peers;
    DBusServices::registerObjects(peers.service);
    journal::take();
    Glib::signal_idle().connect_once([&] { DBusServices::onBusAcquired(peers.service, "the.name"); });
    service->run();
    const std::vector<JournalMessage> expected{
        {6, codeFile, "CODE_LINE=425", "onBusAcquired", "Bus acquired the.name, registering objects"},
        registering("CODE_LINE=494", "registerObjects"),
        {7, codeFile, "CODE_LINE=431", "onBusAcquired", "Registration failed"}};
    EXPECT_EQ(journal::take(), expected);
}

using NameCallbacks = Service;

TEST_F(NameCallbacks, AcquiredNameIsLogged) {
    DBusServices::onNameAcquired({}, "the.name");
    const std::vector<JournalMessage> expected{
        {6, codeFile, "CODE_LINE=446", "onNameAcquired", "Name acquired: the.name"}};
    EXPECT_EQ(journal::take(), expected);
}

TEST_F(NameCallbacks, LostNameUnregistersEveryObjectAndEndsTheMainLoop) {
    entries() = {entryOf("", "Board", "Serial", ""), entryOf("Eth0", "Port", "Mac", "")};
    DBusServices* const service = DBusServices::init();
    const PeerConnections peers;
    DBusServices::registerObjects(peers.service);
    journal::take();
    Glib::signal_idle().connect_once([&] { DBusServices::onNameLost(peers.service, "the.name"); });
    service->run();
    const std::vector<JournalMessage> expected{{7, codeFile, "CODE_LINE=465", "onNameLost", "name lost"}};
    EXPECT_EQ(journal::take(), expected);
    EXPECT_THROW(get(peers, root, "com.brenvok.Info1.Board", "Serial"), Glib::Error);
    EXPECT_THROW(get(peers, root + "/Eth0", "com.brenvok.Info1.Port", "Mac"), Glib::Error);
    DBusServices::registerObjects(peers.service); // the paths are free again
}

TEST_F(NameCallbacks, LostNameForgetsTheRegistrations) {
    entries() = {entryOf("", "Board", "Serial", "")};
    DBusServices::init();
    const PeerConnections first;
    const PeerConnections second;
    DBusServices::registerObjects(first.service);
    DBusServices::onNameLost({}, "the.name"); // gone with the connection, not unregistered
    EXPECT_EQ(get(first, root, "com.brenvok.Info1.Board", "Serial").print(), "(<''>,)");
    DBusServices::onNameLost(first.service, "the.name");
    EXPECT_EQ(get(first, root, "com.brenvok.Info1.Board", "Serial").print(), "(<''>,)");
}

TEST_F(NameCallbacks, LostNameEndsTheMainLoopWithoutRegistrations) {
    DBusServices* const service = DBusServices::init();
    const PeerConnections peers;
    journal::take();
    Glib::signal_idle().connect_once([&] { DBusServices::onNameLost(peers.service, "the.name"); });
    service->run();
    const std::vector<JournalMessage> expected{{7, codeFile, "CODE_LINE=465", "onNameLost", "name lost"}};
    EXPECT_EQ(journal::take(), expected);
}

using MethodCall = Service;

TEST_F(MethodCall, IsLoggedAndNotAnswered) {
    DBusServices::onMethodCall({}, ":1.1", root, "com.brenvok.Info1.Board", "Reset", {}, {});
    const std::vector<JournalMessage> expected{
        {3, codeFile, "CODE_LINE=273", "onMethodCall", "Method call not available"}};
    EXPECT_EQ(journal::take(), expected);
}

TEST_F(MethodCall, OfADeclaredMethodGetsNoReply) {
    DBusServices::init();
    const PeerConnections peers;
    const auto node = Gio::DBus::NodeInfo::create_for_xml(
        "<node name='/m'><interface name='a.One'><method name='Reset'/></interface></node>");
    DBusServices::registerInterfaces(node->gobj(), peers.service);
    journal::take();
    bool answered = false;
    const auto cancellable = Gio::Cancellable::create();
    peers.client->call(
        "/m", "a.One", "Reset", {}, [&](Glib::RefPtr<Gio::AsyncResult>&) { answered = true; }, cancellable);
    peers.call("/m", "org.freedesktop.DBus.Peer", "Ping", {}); // replies arrive in order
    EXPECT_FALSE(answered);
    EXPECT_EQ(journal::take().size(), 1U);
    cancellable->cancel();
    while (!answered)
        Glib::MainContext::get_default()->iteration(true);
}

/// Calls the handlers as the bus library does, but also with what it would refuse itself.
class Handlers : public Service {
protected:
    static Glib::VariantBase get(const Glib::ustring& path, const Glib::ustring& interface, const Glib::ustring& name) {
        Glib::VariantBase property;
        DBusServices::onGetProperty(property, {}, ":1.1", path, interface, name);
        return property;
    }

    /// What a request with these keys meets: the error's code and text, and the one message in the journal.
    struct Refusal {
        Glib::ustring path;
        Glib::ustring interface;
        Glib::ustring name;
        Error::Code code;
        std::string error;
        std::string message;
        std::string getLine;
        std::string setLine;
    };

    template <typename Request>
    static void expectRefused(const Refusal& refusal, const std::string& line, const std::string& function,
                              const Request& request) {
        try {
            request();
            ADD_FAILURE() << "nothing was thrown for " << refusal.path << ' ' << refusal.interface;
        } catch (const Error& error) {
            EXPECT_EQ(error.code(), refusal.code);
            EXPECT_EQ(error.what(), refusal.error);
        }
        const std::vector<JournalMessage> expected{{5, codeFile, "CODE_LINE=" + line, function, refusal.message}};
        EXPECT_EQ(journal::take(), expected);
    }

    static void expectRefused(const Refusal& refusal) {
        expectRefused(refusal, refusal.getLine, "onGetProperty",
                      [&] { get(refusal.path, refusal.interface, refusal.name); });
        expectRefused(refusal, refusal.setLine, "setProperty", [&] {
            DBusServices::setProperty({}, ":1.1", refusal.path, refusal.interface, refusal.name,
                                      Glib::Variant<Glib::ustring>::create("x"));
        });
    }

    static void expectUnknownObject(const Glib::ustring& path) {
        expectRefused({path, "com.brenvok.Info1.Board", "Serial", Error::UNKNOWN_OBJECT, "object " + path + " unknown",
                       "Object path " + path + " not found", "323", "400"});
    }

    static void expectUnknownInterface(const Glib::ustring& path, const Glib::ustring& interface) {
        expectRefused({path, interface, "Serial", Error::UNKNOWN_INTERFACE, "interface " + interface + " unknown",
                       "Interface " + interface + " not found", "329", "406"});
    }

    static void expectUnknownProperty(const Glib::ustring& path, const Glib::ustring& interface,
                                      const Glib::ustring& name) {
        expectRefused({path, interface, name, Error::UNKNOWN_PROPERTY, "property " + name + " unknown",
                       "Property " + name + " not found", "333", "410"});
    }
};

TEST_F(Handlers, EmptyEntryListKnowsNoObject) {
    expectUnknownObject(root);
    expectUnknownObject("");
}

TEST_F(Handlers, UnknownObjectIsRefused) {
    entries() = {entryOf("", "Board", "Serial", "x"), entryOf("Eth0", "Board", "Serial", "x")};
    for (const char* path :
         {"/", "/com/brenvok", "/com/brenvok/Korvaneinfo", "/com/brenvok/Korvaneinfo1/",
          "/com/brenvok/Korvaneinfo1/Eth", "/com/brenvok/Korvaneinfo1/Eth00", "/com/brenvok/Korvaneinfo1/eth0",
          "/com/brenvok/Korvaneinfo1/Eth0/", "/com/brenvok/Korvaneinfo1//Eth0", "/com/brenvok/Korvaneinfo2/Eth0",
          "/com/brenvok/Korvaneinfo1xEth0"})
        expectUnknownObject(path);
}

TEST_F(Handlers, RootIsUnknownWhenOnlyChildrenAreConfigured) {
    entries() = {entryOf("Eth0", "Board", "Serial", "x")};
    expectUnknownObject(root);
}

TEST_F(Handlers, ForeignInterfaceIsRefusedThoughAnotherObjectHasIt) {
    entries() = {entryOf("", "Board", "Serial", "x"), entryOf("Eth0", "Port", "Serial", "x")};
    for (const char* interface : {"com.brenvok.Info1.Port", "com.brenvok.Info1", "com.brenvok.Info1.", "Board",
                                  "com.brenvok.Info1.board", "com.brenvok.Info1.Board2", "com.brenvok.Info1xBoard", ""})
        expectUnknownInterface(root, interface);
}

TEST_F(Handlers, UnknownPropertyIsRefused) {
    entries() = {entryOf("", "Board", "Serial", "x"), entryOf("Eth0", "Port", "Mac", "x")};
    for (const char* name : {"Mac", "serial", "Serial2", "Seria", ""})
        expectUnknownProperty(root, "com.brenvok.Info1.Board", name);
}

TEST_F(Handlers, ErrorNamesTheDeepestLevelThatAnyEntryMatched) {
    // The second entry has the path alone, after the first had path and interface.
    entries() = {entryOf("", "Board", "Serial", "x"), entryOf("", "Other", "Tag", "x")};
    expectUnknownProperty(root, "com.brenvok.Info1.Board", "Tag");
    expectUnknownProperty(root, "com.brenvok.Info1.Other", "Serial");
    expectUnknownInterface(root, "com.brenvok.Info1.Third");
}

TEST_F(Handlers, EntriesAreFoundByAllThreeKeys) {
    entries() = {entryOf("", "Board", "Serial", "1"), entryOf("", "Board", "Tag", "2"),
                 entryOf("Eth0", "Board", "Serial", "3"), entryOf("Eth0/Sub", "Board", "Serial", "4"),
                 entryOf("", "Other", "Serial", "5")};
    EXPECT_EQ(get(root, "com.brenvok.Info1.Board", "Serial").print(), "'1'");
    EXPECT_EQ(get(root, "com.brenvok.Info1.Board", "Tag").print(), "'2'");
    EXPECT_EQ(get(root + "/Eth0", "com.brenvok.Info1.Board", "Serial").print(), "'3'");
    EXPECT_EQ(get(root + "/Eth0/Sub", "com.brenvok.Info1.Board", "Serial").print(), "'4'");
    EXPECT_EQ(get(root, "com.brenvok.Info1.Other", "Serial").print(), "'5'");
    EXPECT_TRUE(journal::take().empty());
}

TEST_F(Handlers, EmptyInterfaceIsTheBaseNameWithADot) {
    entries() = {entryOf("", "", "Serial", "x")};
    EXPECT_EQ(get(root, "com.brenvok.Info1.", "Serial").print(), "'x'");
    expectUnknownInterface(root, "com.brenvok.Info1");
}

TEST_F(Handlers, ObjectPathWithALeadingSlashIsNotNormalised) {
    entries() = {entryOf("/Eth0", "Board", "Serial", "x")};
    EXPECT_EQ(get(root + "//Eth0", "com.brenvok.Info1.Board", "Serial").print(), "'x'");
    expectUnknownObject(root + "/Eth0");
}

TEST_F(Handlers, EarlierOfTwoEqualEntriesIsReadAndWritten) {
    entries() = {entryOf("", "Board", "Other", "0"), entryOf("", "Board", "Serial", "1"),
                 entryOf("", "Board", "Serial", "2")};
    entries()[1].path = file("first", "");
    entries()[2].path = file("second", "");
    EXPECT_EQ(get(root, "com.brenvok.Info1.Board", "Serial").print(), "'1'");
    const PeerConnections peers;
    EXPECT_TRUE(DBusServices::setProperty(peers.service, "", root, "com.brenvok.Info1.Board", "Serial",
                                          Glib::Variant<Glib::ustring>::create("new")));
    EXPECT_EQ(bytesOf(folder / "first"), "new\n");
    EXPECT_EQ(bytesOf(folder / "second"), "");
    EXPECT_EQ(entries()[1].content, "new");
    EXPECT_EQ(entries()[2].content, "2");
}

TEST_F(Handlers, ReadChangesNothing) {
    entries() = {entryOf("", "Board", "Serial", "1")};
    entries()[0].path = file("value", "changed behind the daemon's back\n");
    EXPECT_EQ(get(root, "com.brenvok.Info1.Board", "Serial").print(), "'1'");
    EXPECT_EQ(entries()[0].content, "1");
}

/// Returns a stored text as its type and value in the GVariant text format.
std::string variant(const std::string& type, const std::string& content) {
    const Glib::VariantBase value = DBusServices::contentToVariant(type, content);
    return value.get_type_string() + " " + value.print();
}

TEST(ContentToVariant, BooleanIsTrueForTheExactWordAlone) {
    EXPECT_EQ(variant("b", "true"), "b true");
    for (const char* text : {"TRUE", "True", "1", "true ", " true", "yes", "", "false"})
        EXPECT_EQ(variant("b", text), "b false") << text;
}

TEST(ContentToVariant, IntegerIsTheLeadingNumber) {
    EXPECT_EQ(variant("i", "12"), "i 12");
    EXPECT_EQ(variant("i", "12abc"), "i 12");
    EXPECT_EQ(variant("i", " \t-7"), "i -7");
    EXPECT_EQ(variant("i", "+7"), "i 7");
    EXPECT_EQ(variant("i", "0x1F"), "i 0");
    EXPECT_EQ(variant("i", "017"), "i 17");
    EXPECT_EQ(variant("i", "2147483647"), "i 2147483647");
    EXPECT_EQ(variant("i", "-2147483648"), "i -2147483648");
}

TEST(ContentToVariant, UnsignedIsParsedAsSigned) {
    EXPECT_EQ(variant("u", "42"), "u 42");
    EXPECT_EQ(variant("u", "-1"), "u 4294967295");
    EXPECT_EQ(variant("u", "-2147483648"), "u 2147483648");
    EXPECT_EQ(variant("u", "2147483647"), "u 2147483647");
}

TEST(ContentToVariant, DoubleIsTheLeadingNumber) {
    EXPECT_EQ(variant("d", "1.5"), "d 1.5");
    EXPECT_EQ(variant("d", "  -2.25e2 mV"), "d -225.0");
    EXPECT_EQ(variant("d", "0x10"), "d 16.0");
    EXPECT_EQ(variant("d", "inf"), "d inf");
}

/// Expects that a stored text raises, with the name of the conversion that refuses it.
template <typename Exception> void expectRaises(const char* type, const char* text) {
    try {
        DBusServices::contentToVariant(type, text);
        ADD_FAILURE() << type << text;
    } catch (const Exception& error) {
        EXPECT_STREQ(error.what(), *type == 'd' ? "stod" : "stoi");
    }
}

TEST(ContentToVariant, TextThatIsNoNumberRaises) {
    for (const char* type : {"i", "u", "d"})
        for (const char* text : {"abc", "", " ", "-"})
            expectRaises<std::invalid_argument>(type, text);
}

TEST(ContentToVariant, NumberOutOfRangeRaises) {
    for (const char* text : {"2147483648", "-2147483649"})
        expectRaises<std::out_of_range>("i", text);
    for (const char* text : {"2147483648", "4294967295", "-2147483649"})
        expectRaises<std::out_of_range>("u", text);
    for (const char* text : {"1e999", "-1e999", "1e-320"})
        expectRaises<std::out_of_range>("d", text);
}

TEST(ContentToVariant, EveryOtherTypeIsText) {
    for (const char* type : {"s", "y", "n", "q", "x", "t", "o", "g", "v", "as", "ai", "(ib)", "a{sv}", "", "B", "?"})
        EXPECT_EQ(variant(type, "123"), "s '123'") << type;
}

TEST(ContentToVariant, OnlyTheFirstCharacterOfTheTypeCounts) {
    EXPECT_EQ(variant("ixx", "5"), "i 5");
    EXPECT_EQ(variant("bool", "true"), "b true");
    EXPECT_EQ(variant("double", "5"), "d 5.0");
    EXPECT_EQ(variant("uint", "5"), "u 5");
}

class Write : public Service {
protected:
    void SetUp() override {
        Service::SetUp();
        entries() = {entryOf("Eth0", "Port", "Value", "old")};
        entries()[0].path = file("value", "old\n");
    }

    /// Sets the property and returns what is stored then.
    std::string set(const Glib::VariantBase& value) {
        EXPECT_TRUE(
            DBusServices::setProperty(peers.service, ":1.1", root + "/Eth0", "com.brenvok.Info1.Port", "Value", value));
        EXPECT_EQ(bytesOf(folder / "value"), entries()[0].content + "\n");
        EXPECT_EQ(read(), entries()[0].content);
        return entries()[0].content;
    }

    /// Returns the property as a Get answers it, as text.
    static std::string read() {
        Glib::VariantBase property;
        DBusServices::onGetProperty(property, {}, ":1.1", root + "/Eth0", "com.brenvok.Info1.Port", "Value");
        return Glib::VariantBase::cast_dynamic<Glib::Variant<Glib::ustring>>(property).get();
    }

    std::string setText(const std::string& text) { return set(Glib::Variant<Glib::ustring>::create(text)); }

    const PeerConnections peers;
};

TEST_F(Write, StringIsStoredWithoutItsQuotes) {
    EXPECT_EQ(setText("abc"), "abc");
    EXPECT_EQ(setText("a b\"c"), "a b\"c");
    EXPECT_EQ(setText("grün"), "grün");
}

TEST_F(Write, EmptyStringIsStoredEmpty) { EXPECT_EQ(setText(""), ""); }

TEST_F(Write, StringWithASingleQuoteKeepsItsDoubleQuotes) {
    EXPECT_EQ(setText("it's"), "\"it's\"");
    EXPECT_EQ(setText("'"), "\"'\"");
    EXPECT_EQ(setText("'abc'"), "\"'abc'\"");
    EXPECT_EQ(setText("'\""), "\"'\\\"\"");
}

TEST_F(Write, EscapesOfTheTextFormatAreStored) {
    EXPECT_EQ(setText("a\nb"), "a\\nb");
    EXPECT_EQ(setText("a\\b"), "a\\\\b");
    EXPECT_EQ(setText("\t\x01"), "\\t\\u0001");
}

TEST_F(Write, NumbersAndBooleansAreStoredPlain) {
    EXPECT_EQ(set(Glib::Variant<bool>::create(true)), "true");
    EXPECT_EQ(set(Glib::Variant<bool>::create(false)), "false");
    EXPECT_EQ(set(Glib::Variant<gint16>::create(-5)), "-5");
    EXPECT_EQ(set(Glib::Variant<guint16>::create(65535)), "65535");
    EXPECT_EQ(set(Glib::Variant<gint32>::create(-2147483647 - 1)), "-2147483648");
    EXPECT_EQ(set(Glib::Variant<guint32>::create(4294967295)), "4294967295");
    EXPECT_EQ(set(Glib::Variant<gint64>::create(-9000000000)), "-9000000000");
    EXPECT_EQ(set(Glib::Variant<guint64>::create(18446744073709551615U)), "18446744073709551615");
    EXPECT_EQ(set(Glib::Variant<double>::create(1.5)), "1.5");
    EXPECT_EQ(set(Glib::Variant<double>::create(2)), "2.0");
    EXPECT_EQ(set(Glib::Variant<unsigned char>::create(7)), "0x07");
}

TEST_F(Write, BooleanIsReadBack) {
    entries()[0].type = "b";
    for (const bool value : {true, false}) {
        DBusServices::setProperty(peers.service, ":1.1", root + "/Eth0", "com.brenvok.Info1.Port", "Value",
                                  Glib::Variant<bool>::create(value));
        Glib::VariantBase property;
        DBusServices::onGetProperty(property, {}, ":1.1", root + "/Eth0", "com.brenvok.Info1.Port", "Value");
        EXPECT_EQ(property.print(), value ? "true" : "false");
    }
}

TEST_F(Write, TypeAndFlagsOfTheEntryAreNotLookedAt) {
    entries()[0].type = "as";
    entries()[0].isWrite = false;
    EXPECT_EQ(setText("abc"), "abc");
}

class ChangeSignal : public Write {
protected:
    void SetUp() override {
        Write::SetUp();
        peers.client->signal_subscribe([this](const Glib::RefPtr<Gio::DBus::Connection>&, const Glib::ustring&,
                                              const Glib::ustring& path, const Glib::ustring& interface,
                                              const Glib::ustring& name, const Glib::VariantContainerBase& parameters) {
            seen.push_back(path + " " + interface + " " + name + " " + parameters.print());
        });
    }

    /// Returns the signals that arrived before the reply to a call made now.
    std::vector<std::string> signals() {
        peers.call("/", "org.freedesktop.DBus.Peer", "Ping", {});
        return std::exchange(seen, {});
    }

    const std::vector<std::string> one{
        "/com/brenvok/Korvaneinfo1/Eth0 org.freedesktop.DBus.Properties PropertiesChanged ()"};

private:
    std::vector<std::string> seen;
};

TEST_F(ChangeSignal, IsSentWithoutArgumentsAfterEachWrite) {
    setText("x");
    EXPECT_EQ(signals(), one);
    setText("x"); // also when nothing has changed
    EXPECT_EQ(signals(), one);
}

TEST_F(ChangeSignal, DoesNotDependOnTheFlag) {
    entries()[0].isSignal = true;
    setText("x");
    EXPECT_EQ(signals(), one);
    entries()[0].isSignal = false;
    setText("y");
    EXPECT_EQ(signals(), one);
}

TEST_F(ChangeSignal, IsSentAlsoWhenTheFileCannotBeWritten) {
    entries()[0].path = folder / "missing" / "value";
    EXPECT_TRUE(DBusServices::setProperty(peers.service, "", root + "/Eth0", "com.brenvok.Info1.Port", "Value",
                                          Glib::Variant<Glib::ustring>::create("x")));
    EXPECT_EQ(signals(), one);
    EXPECT_EQ(read(), "old");
}

TEST_F(ChangeSignal, IsNotSentForAnUnknownProperty) {
    EXPECT_THROW(DBusServices::setProperty(peers.service, "", root + "/Eth0", "com.brenvok.Info1.Port", "Other",
                                           Glib::Variant<Glib::ustring>::create("x")),
                 Error);
    EXPECT_TRUE(signals().empty());
    EXPECT_EQ(bytesOf(folder / "value"), "old\n");
}

} // namespace
