#include "DBusServices.h"

#include "ConfigFileParser.h"
#include "Journal.h"

#include <map>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace dbus {

namespace {

/// What a property request found in the entry list.
struct Lookup {
    bool pathSeen = false;                 ///< some entry has the object path
    bool interfaceSeen = false;            ///< and the interface
    std::optional<std::uint32_t> position; ///< the first entry that has the property name, too
};

/// Returns what follows `base` and `separator` in `text`, or nothing when `text` begins differently.
std::optional<std::string_view> tailOf(std::string_view text, std::string_view base, char separator) {
    if (text.size() <= base.size() || text[base.size()] != separator || text.substr(0, base.size()) != base)
        return std::nullopt;
    return text.substr(base.size() + 1);
}

/// Returns the `objectPath` that an entry must have to be published at the full object path, if there can be one.
std::optional<std::string_view> relativeObjectPath(std::string_view objectPath) {
    if (objectPath == DBusServices::rootObjectPath.raw())
        return "";
    const auto tail = tailOf(objectPath, DBusServices::rootObjectPath.raw(), '/');
    return tail && tail->empty() ? std::nullopt : tail; // an entry without `objectPath` has no trailing slash
}

/// Finds the first entry that matches all three keys. It walks the live list: nothing else runs on this thread.
Lookup findEntry(const Glib::ustring& objectPath, const Glib::ustring& interfaceName, const Glib::ustring& name) {
    const auto wantedPath = relativeObjectPath(objectPath.raw());
    const auto wantedInterface = tailOf(interfaceName.raw(), DBusServices::interfaceBaseName.raw(), '.');
    const auto hasPath = [&](const ConfigEntry& entry) { return wantedPath == entry.objectPath; };
    const auto hasInterface = [&](const ConfigEntry& entry) {
        return hasPath(entry) && wantedInterface == entry.interface;
    };

    const std::vector<ConfigEntry>& entries = ConfigFileParser::getInstance()->entries;
    Lookup lookup;
    for (std::uint32_t position = 0; position < entries.size(); ++position) {
        const ConfigEntry& entry = entries[position];
        // A flag stays set, so that of entries that share an object and an interface only the names are compared.
        lookup.pathSeen = lookup.pathSeen || hasPath(entry);
        lookup.interfaceSeen = lookup.interfaceSeen || hasInterface(entry);
        if (name.raw() == entry.name && hasInterface(entry)) {
            lookup.position = position;
            break;
        }
    }
    return lookup;
}

/// Returns the position that a lookup found. @throw Gio::DBus::Error for the deepest level that no entry matched.
std::uint32_t positionOrThrow(const Lookup& lookup, const Glib::ustring& objectPath, const Glib::ustring& interfaceName,
                              const Glib::ustring& name) {
    if (!lookup.pathSeen)
        throw Gio::DBus::Error(Gio::DBus::Error::UNKNOWN_OBJECT, "object " + objectPath + " unknown");
    if (!lookup.interfaceSeen)
        throw Gio::DBus::Error(Gio::DBus::Error::UNKNOWN_INTERFACE, "interface " + interfaceName + " unknown");
    if (!lookup.position)
        throw Gio::DBus::Error(Gio::DBus::Error::UNKNOWN_PROPERTY, "property " + name + " unknown");
    return *lookup.position;
}

/// Returns the value in the GVariant text format without the single quotes around it. Other quoting stays.
std::string unquotedText(const Glib::VariantBase& value) {
    std::string text = value.print();
    text.erase(0, text.find_first_not_of('\''));
    text.erase(text.find_last_not_of('\'') + 1);
    return text;
}

} // namespace

const Gio::DBus::InterfaceVTable DBusServices::interfaceVTable(sigc::ptr_fun(&DBusServices::onMethodCall),
                                                               sigc::ptr_fun(&DBusServices::onGetProperty),
                                                               sigc::ptr_fun(&DBusServices::setProperty));
const Glib::ustring DBusServices::busName = "com.brenvok.korvaneinfod";
const Glib::ustring DBusServices::rootObjectPath = "/com/brenvok/Korvaneinfo1";
const Glib::ustring DBusServices::interfaceBaseName = "com.brenvok.Info1";
DBusServices* DBusServices::instance = nullptr;

// The null type name keeps glibmm from registering a GObject type for a class that has no C object behind it.
DBusServices::DBusServices() : Glib::ObjectBase(nullptr) {
    Glib::init();
    Gio::init();
    std::string xml;
    generateXMLFile(xml);
    JOURNAL(LOG_DEBUG, 52, "DBusServices", "Introspection Data:\n%s", xml.c_str());
    nodeInfo = Gio::DBus::NodeInfo::create_for_xml(xml);
    mainLoop = Glib::MainLoop::create(false);
}

DBusServices* DBusServices::init() {
    if (instance != nullptr)
        return instance;
    instance = new DBusServices;
    instance->ownerId =
        Gio::DBus::own_name(Gio::DBus::BUS_TYPE_SYSTEM, busName, sigc::ptr_fun(&DBusServices::onBusAcquired),
                            sigc::ptr_fun(&DBusServices::onNameAcquired), sigc::ptr_fun(&DBusServices::onNameLost));
    if (instance->ownerId == 0) {
        JOURNAL(LOG_DEBUG, 78, "init", "busname could not be owned");
        throw std::runtime_error("Failed to own name for " + busName);
    }
    return instance;
}

void DBusServices::run() { mainLoop->run(); }

void DBusServices::destroyInstance(DBusServices* /*service*/) {
    if (instance == nullptr)
        return;
    if (instance->ownerId != 0)
        Gio::DBus::unown_name(instance->ownerId);
    delete instance;
    instance = nullptr;
}

void DBusServices::generateXMLFile(std::string& xml) {
    std::map<std::string, std::string> pathFragments; // by full object path
    for (const ConfigEntry& entry : ConfigFileParser::getInstance()->entries) {
        const std::string fullPath =
            entry.objectPath.empty() ? rootObjectPath.raw() : rootObjectPath.raw() + "/" + entry.objectPath;
        const std::string property = " <property name='" + entry.name + "' type='" + entry.type + "' access='" +
                                     accessString(entry.isRead, entry.isWrite) + "'/>";
        const auto [known, isNew] = pathFragments.try_emplace(fullPath);
        std::string& fragment = known->second;
        if (isNew) {
            // An object has one interface, that of its first entry; later entries join it whatever their own is.
            if (!entry.objectPath.empty())
                fragment += "<node name='" + fullPath + "'>";
            fragment += " <interface name='" + interfaceBaseName.raw() + "." + entry.interface + "'> ";
        }
        fragment += property;
    }

    xml += "<node name='" + rootObjectPath.raw() + "'>";
    for (const auto& [path, fragment] : pathFragments) {
        xml += fragment + " </interface>";
        if (path != rootObjectPath.raw())
            xml += "</node>";
    }
    xml += "</node>";
    JOURNAL(LOG_DEBUG, 229, "generateXMLFile", "XML file: %s", xml.c_str());
}

std::string DBusServices::accessString(bool isRead, bool isWrite) {
    if (isRead && isWrite)
        return "readwrite";
    if (isWrite)
        return "write";
    return "read"; // also with neither flag, on purpose: every entry is published
}

void DBusServices::onBusAcquired(const Glib::RefPtr<Gio::DBus::Connection>& connection, const Glib::ustring& name) {
    JOURNAL(LOG_INFO, 425, "onBusAcquired", "Bus acquired %s, registering objects", name.c_str());
    connection->set_exit_on_close(false); // the end of the bus is to end the main loop, not to raise SIGTERM
    try {
        registerObjects(connection);
    } catch (const Glib::Error&) {
        JOURNAL(LOG_DEBUG, 431, "onBusAcquired", "Registration failed");
        instance->mainLoop->quit();
    }
}

void DBusServices::onNameAcquired(const Glib::RefPtr<Gio::DBus::Connection>& /*connection*/,
                                  const Glib::ustring& name) {
    JOURNAL(LOG_INFO, 446, "onNameAcquired", "Name acquired: %s", name.c_str());
}

void DBusServices::onNameLost(const Glib::RefPtr<Gio::DBus::Connection>& connection, const Glib::ustring& /*name*/) {
    if (connection) {
        JOURNAL(LOG_DEBUG, 465, "onNameLost", "name lost");
        for (const guint id : instance->registrationIds)
            connection->unregister_object(id);
    } else {
        JOURNAL(LOG_DEBUG, 460, "onNameLost", "connection lost"); // and the registrations with it
    }
    instance->registrationIds.clear();
    instance->mainLoop->quit();
}

void DBusServices::registerObjects(const Glib::RefPtr<Gio::DBus::Connection>& connection) {
    if (!instance->nodeInfo)
        return;
    GDBusNodeInfo* const root = instance->nodeInfo->gobj();
    GDBusNodeInfo** child = root->nodes;
    for (GDBusNodeInfo* node = root; node != nullptr; node = child != nullptr ? *child++ : nullptr) {
        JOURNAL(LOG_DEBUG, 494, "registerObjects", "Registering interfaces");
        registerInterfaces(node, connection);
    }
}

void DBusServices::registerInterfaces(GDBusNodeInfo* node, const Glib::RefPtr<Gio::DBus::Connection>& connection) {
    for (GDBusInterfaceInfo** interface = node->interfaces; interface != nullptr && *interface != nullptr;
         ++interface) {
        const guint id = connection->register_object(node->path, Glib::wrap(*interface, true), interfaceVTable);
        if (id == 0) {
            JOURNAL(LOG_DEBUG, 525, "registerInterfaces", "failed registering interfaces");
            throw Gio::DBus::Error(Gio::DBus::Error::FAILED,
                                   std::string("Failed to registering interface ") + (*interface)->name);
        }
        JOURNAL(LOG_DEBUG, 519, "registerInterfaces", "Registering interfaces");
        instance->registrationIds.push_back(id);
    }
}

void DBusServices::onMethodCall(const Glib::RefPtr<Gio::DBus::Connection>& /*connection*/,
                                const Glib::ustring& /*sender*/, const Glib::ustring& /*object_path*/,
                                const Glib::ustring& /*interface_name*/, const Glib::ustring& /*method_name*/,
                                const Glib::VariantContainerBase& /*parameters*/,
                                const Glib::RefPtr<Gio::DBus::MethodInvocation>& /*invocation*/) {
    JOURNAL(LOG_ERR, 273, "onMethodCall", "Method call not available");
}

void DBusServices::onGetProperty(Glib::VariantBase& property, const Glib::RefPtr<Gio::DBus::Connection>& /*connection*/,
                                 const Glib::ustring& /*sender*/, const Glib::ustring& object_path,
                                 const Glib::ustring& interface_name, const Glib::ustring& property_name) {
    const Lookup lookup = findEntry(object_path, interface_name, property_name);
    if (!lookup.pathSeen)
        JOURNAL(LOG_NOTICE, 323, "onGetProperty", "Object path %s not found", object_path.c_str());
    else if (!lookup.interfaceSeen)
        JOURNAL(LOG_NOTICE, 329, "onGetProperty", "Interface %s not found", interface_name.c_str());
    else if (!lookup.position)
        JOURNAL(LOG_NOTICE, 333, "onGetProperty", "Property %s not found", property_name.c_str());
    const std::uint32_t position = positionOrThrow(lookup, object_path, interface_name, property_name);
    const ConfigEntry& entry = ConfigFileParser::getInstance()->entries[position];
    property = contentToVariant(entry.type, entry.content);
}

Glib::VariantBase DBusServices::contentToVariant(const Glib::ustring& type, const Glib::ustring& content) {
    switch (type.empty() ? '\0' : type.raw().front()) {
    case 'b':
        return Glib::Variant<bool>::create(content.raw() == "true");
    case 'd':
        return Glib::Variant<double>::create(std::stod(content.raw()));
    case 'i':
        return Glib::Variant<int>::create(std::stoi(content.raw()));
    case 'u': // parsed as signed on purpose: -1 is 4294967295, and text above 2147483647 is out of range
        return Glib::Variant<unsigned int>::create(static_cast<unsigned int>(std::stoi(content.raw())));
    default:
        return Glib::Variant<Glib::ustring>::create(content);
    }
}

bool DBusServices::setProperty(const Glib::RefPtr<Gio::DBus::Connection>& connection, const Glib::ustring& /*sender*/,
                               const Glib::ustring& object_path, const Glib::ustring& interface_name,
                               const Glib::ustring& property_name, const Glib::VariantBase& value) {
    const Lookup lookup = findEntry(object_path, interface_name, property_name);
    if (!lookup.pathSeen)
        JOURNAL(LOG_NOTICE, 400, "setProperty", "Object path %s not found", object_path.c_str());
    else if (!lookup.interfaceSeen)
        JOURNAL(LOG_NOTICE, 406, "setProperty", "Interface %s not found", interface_name.c_str());
    else if (!lookup.position)
        JOURNAL(LOG_NOTICE, 410, "setProperty", "Property %s not found", property_name.c_str());
    const std::uint32_t position = positionOrThrow(lookup, object_path, interface_name, property_name);
    ConfigFileParser::getInstance()->updateValueInPathFile(position, unquotedText(value));
    // Without arguments on purpose: it says that something on the object has changed, and clients read it back.
    connection->emit_signal(object_path, "org.freedesktop.DBus.Properties", "PropertiesChanged");
    return true;
}

} // namespace dbus
