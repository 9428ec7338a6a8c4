// Any configuration text with a value file through the parser, the XML generator and the bus library's reader of
// introspection data.

#include "ConfigFileParser.h"
#include "ConfigurationInput.h"
#include "JournalCapture.h"
#include "dbus/DBusServices.h"

#include <algorithm>
#include <gio/gio.h>
#include <json/json.h>
#include <map>

namespace {

using fuzz::isFlag;
using fuzz::isLength;
using fuzz::isText;
using Outcome = fuzz::ConfigurationInput::Outcome;

/// Whether an element has only values of types that its keys can take.
bool isReadable(const Json::Value& element) {
    if (!element.isObject())
        return element.isNull();
    for (const char* key : {"name", "interface", "objectpath", "path", "location", "offset", "type"})
        if (!isText(element[key]))
            return false;
    for (const char* key : {"read", "write", "signal"})
        if (!isFlag(element[key]))
            return false;
    const bool isTranslated = element["location"].asString() == "fuses";
    return isLength(element["length"]) &&
           (!isTranslated || element["translate"].isNull() || element["translate"].isObject());
}

/// Text that stands in an XML attribute as it is.
bool isPlain(const std::string& text) {
    return g_utf8_validate_len(text.data(), text.size(), nullptr) && std::none_of(text.begin(), text.end(), [](char c) {
               return c == '\'' || c == '<' || c == '&' || (static_cast<unsigned char>(c) < ' ');
           });
}

void requireEntry(const ConfigEntry& entry, const Json::Value& element, const std::string& valuePath,
                  const std::string& value) {
    const auto text = [&element](const char* key) {
        return element.isNull() || element[key].isNull() ? std::string() : element[key].asString();
    };
    const auto flag = [&element](const char* key) { return !element.isNull() && element[key].asBool(); };
    fuzz::require(entry.name == text("name") && entry.interface == text("interface") &&
                      entry.objectPath == text("objectpath") && entry.path == text("path") &&
                      entry.location == text("location") && entry.type == text("type"),
                  "an entry has its element's texts");
    fuzz::require(entry.isRead == flag("read") && entry.isWrite == flag("write") && entry.isSignal == flag("signal"),
                  "an entry has its element's flags");
    fuzz::require(entry.offset == ConfigFileParser::convert(text("offset")) &&
                      entry.length == (element.isNull() ? 0 : element["length"].asUInt()),
                  "an entry has its element's numbers");
    if (entry.location != "fuses" && (entry.location != "par" || entry.path == valuePath))
        fuzz::require(entry.content == (entry.location == "par" ? value.substr(0, value.find('\n')) : ""),
                      "the content is the first line of a text file");
}

void requireInterface(const GDBusNodeInfo* node, const std::vector<const ConfigEntry*>& entries) {
    fuzz::require(node->interfaces != nullptr && node->interfaces[0] != nullptr && node->interfaces[1] == nullptr,
                  "an object has one interface");
    const GDBusInterfaceInfo* const interface = node->interfaces[0];
    fuzz::require("com.brenvok.Info1." + entries.front()->interface == interface->name,
                  "the interface is that of the object's first entry");
    GDBusPropertyInfo** property = interface->properties;
    for (const ConfigEntry* entry : entries) {
        fuzz::require(*property != nullptr && entry->name == (*property)->name && entry->type == (*property)->signature,
                      "every entry is a property of its object, in order");
        const bool isReadable = (((*property)->flags) & G_DBUS_PROPERTY_INFO_FLAGS_READABLE) != 0;
        const bool isWritable = (((*property)->flags) & G_DBUS_PROPERTY_INFO_FLAGS_WRITABLE) != 0;
        fuzz::require(isWritable == entry->isWrite && isReadable == (entry->isRead || !entry->isWrite),
                      "a property has its entry's access");
        ++property;
    }
    fuzz::require(*property == nullptr, "no property is without an entry");
}

void requireNodes(const GDBusNodeInfo* root, const std::vector<ConfigEntry>& entries) {
    std::map<std::string, std::vector<const ConfigEntry*>> byPath;
    for (const ConfigEntry& entry : entries)
        byPath[entry.objectPath].push_back(&entry);
    fuzz::require(std::string("/com/brenvok/Korvaneinfo1") == root->path, "the root has its path");
    GDBusNodeInfo** child = root->nodes;
    for (const auto& [path, own] : byPath) {
        if (path.empty()) {
            requireInterface(root, own);
            continue;
        }
        fuzz::require(*child != nullptr && "/com/brenvok/Korvaneinfo1/" + path == (*child)->path,
                      "every object is a child of the root, in the order of the paths");
        requireInterface(*child, own);
        ++child;
    }
    fuzz::require(child == nullptr || *child == nullptr, "no object is without an entry");
}

void requireIntrospection(const std::vector<ConfigEntry>& entries) {
    std::string xml;
    dbus::DBusServices::generateXMLFile(xml);
    const bool allPlain = std::all_of(entries.begin(), entries.end(), [](const ConfigEntry& entry) {
        return isPlain(entry.name) && isPlain(entry.interface) && isPlain(entry.objectPath) && isPlain(entry.type);
    });
    try {
        const auto nodeInfo = Gio::DBus::NodeInfo::create_for_xml(xml);
        if (allPlain) // other texts may well be accepted as markup, and then the document is theirs
            requireNodes(nodeInfo->gobj(), entries);
    } catch (const Glib::Error&) {
        fuzz::require(!allPlain, "a document of plain texts is accepted");
    }
}

/// Every entry answers, or the first of those that share its three keys.
void requireLookup(const std::vector<ConfigEntry>& entries) {
    for (const ConfigEntry& entry : entries) {
        const auto first = std::find_if(entries.begin(), entries.end(), [&entry](const ConfigEntry& other) {
            return other.objectPath == entry.objectPath && other.interface == entry.interface &&
                   other.name == entry.name;
        });
        if (!g_utf8_validate_len(first->content.data(), first->content.size(), nullptr))
            continue; // not a text that a D-Bus string can hold
        const std::string path = "/com/brenvok/Korvaneinfo1" + (entry.objectPath.empty() ? "" : "/" + entry.objectPath);
        Glib::VariantBase answer;
        try {
            dbus::DBusServices::onGetProperty(answer, {}, "", path, "com.brenvok.Info1." + entry.interface, entry.name);
            const Glib::VariantBase expected = dbus::DBusServices::contentToVariant(first->type, first->content);
            fuzz::require(answer.print(true) == expected.print(true), "a Get answers the first matching entry");
        } catch (const std::logic_error&) {
            const char type = first->type.empty() ? '\0' : first->type.front();
            fuzz::require(type == 'd' || type == 'i' || type == 'u', "only a number can fail to be one");
        }
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::ConfigurationInput input(data, size);
    if (!input.isHarmless())
        return 0;
    const Json::Value& root = input.root;
    Outcome expected = input.outcome;
    Json::ArrayIndex readable = 0;
    if (expected == Outcome::parsed && root.isObject() && !root.empty())
        expected = Outcome::thrown;
    if (expected == Outcome::parsed && root.isArray()) {
        while (readable < root.size() && isReadable(root[readable]))
            ++readable;
        if (readable < root.size())
            expected = Outcome::thrown;
    }

    input.write();
    ConfigFileParser* const parser = ConfigFileParser::getInstance();
    parser->entries.clear();
    Outcome outcome = Outcome::thrown;
    try {
        outcome = parser->parseData(fuzz::ConfigurationInput::configurationPath()) ? Outcome::parsed : Outcome::notJson;
    } catch (const Json::Exception&) {
    }
    journal::take();
    fuzz::require(outcome == expected, "a document is parsed, refused or raises as its values tell");
    fuzz::require(parser->entries.size() == readable, "each element up to the first faulty one is an entry");
    for (Json::ArrayIndex i = 0; i < readable; ++i)
        requireEntry(parser->entries[i], root[i], fuzz::ConfigurationInput::valuePath(), input.value);
    requireIntrospection(parser->entries);
    requireLookup(parser->entries);
    journal::take();
    return 0;
}
