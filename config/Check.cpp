#include "Check.h"

#include "Element.h"
#include "Value.h"
#include "dbus/DBusServices.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <map>
#include <sstream>
#include <system_error>

namespace check {

namespace {

/// What earlier elements have published at one object path.
struct PublishedObject {
    std::size_t firstElement;
    std::string interface;
    std::map<std::string, Finding> properties; ///< by name: the finding that is made when there is a second one
    std::size_t size = 0;                      ///< of all readable values, in bytes
};

using PublishedObjects = std::map<std::string, PublishedObject>;

/// Returns what the daemon's introspection parser says to the element, or nothing when it accepts it.
std::string introspectionError(const ConfigEntry& entry) {
    std::string xml;
    ConfigFileParser::getInstance()->entries = {entry};
    dbus::DBusServices::generateXMLFile(xml);
    ConfigFileParser::getInstance()->entries.clear();
    try {
        Gio::DBus::NodeInfo::create_for_xml(xml);
        return {};
    } catch (const Glib::Error& error) {
        return error.what();
    }
}

/// GLib accepts a dictionary entry also outside of an array, D-Bus does not.
bool isSingleCompleteType(const std::string& type) {
    const std::size_t entry = type.find('{');
    const bool isLoneEntry = entry != std::string::npos && (entry == 0 || type[entry - 1] != 'a');
    constexpr std::size_t longest = 255;
    return g_variant_is_signature(type.c_str()) != FALSE && g_variant_type_string_is_valid(type.c_str()) != FALSE &&
           !isLoneEntry && type.size() <= longest && type.find('\0') == std::string::npos;
}

std::string fullObjectPath(const ConfigEntry& entry) {
    const std::string& root = dbus::DBusServices::rootObjectPath.raw();
    return entry.objectPath.empty() ? root : root + "/" + entry.objectPath;
}

/// Checks the names that are published. An interface that differs from its object's is not one of them.
void checkNames(const Element& element, const PublishedObject& object) {
    ConfigEntry entry = element.entry;
    if (entry.interface != object.interface)
        entry.interface = "Unpublished"; // nothing is wrong with this one
    if (const std::string error = introspectionError(entry); !error.empty()) {
        element.report(Kind::introspection, "", "breaks the introspection document: " + error);
        return;
    }
    const std::string path = fullObjectPath(entry);
    if (g_variant_is_object_path(path.c_str()) == FALSE)
        element.report(Kind::objectPath, "objectpath", quoted(path) + " is no valid object path");
    const std::string interface = dbus::DBusServices::interfaceBaseName.raw() + "." + entry.interface;
    if (g_dbus_is_interface_name(interface.c_str()) == FALSE)
        element.report(Kind::interfaceName, "interface", quoted(interface) + " is no valid interface name");
    if (entry.objectPath.find(dbus::DBusServices::rootObjectPath.raw().substr(1)) != std::string::npos)
        element.report(Kind::repeatedBase, "objectpath", quoted(entry.objectPath) + " is published as " + quoted(path));
    if (entry.interface.find(dbus::DBusServices::interfaceBaseName.raw()) != std::string::npos)
        element.report(Kind::repeatedBase, "interface",
                       quoted(entry.interface) + " is published as " + quoted(interface));
    if (g_dbus_is_member_name(entry.name.c_str()) == FALSE)
        element.report(Kind::propertyName, "name",
                       entry.name.empty() ? "is missing" : quoted(entry.name) + " is no valid property name");
    if (!isSingleCompleteType(entry.type))
        element.report(Kind::signature, "type",
                       entry.type.empty() ? "is missing" : quoted(entry.type) + " is no valid type");
    else if (std::string_view("sbdiu").find(entry.type) == std::string_view::npos)
        element.report(Kind::answeredAsText, "type", "type " + quoted(entry.type));
}

/// Checks the element against the earlier ones on its object path, and adds it.
void checkNeighbours(const Element& element, PublishedObject& object) {
    const ConfigEntry& entry = element.entry;
    if (entry.interface != object.interface)
        element.report(Kind::interfaceDiffers, "interface",
                       quoted(entry.interface) + " differs from " + quoted(object.interface) + " of element " +
                           std::to_string(object.firstElement) + ", the first one on this object path");
    const std::string sameAs = " has the same object path and name";
    const auto [property, isNewName] =
        object.properties.try_emplace(entry.name, element.finding(Kind::duplicateItem, "name", ""));
    if (isNewName)
        return;
    // Both are at fault: the bus library goes by the last declaration, and the daemon by the first entry.
    Finding earlier = property->second;
    earlier.reason = "element " + std::to_string(element.position) + sameAs;
    element.findings.push_back(earlier);
    element.report(Kind::duplicateItem, "name", "element " + std::to_string(*earlier.element) + sameAs);
}

/// Reports a value with which the answer to a client that asks for all properties of the object gets longer than a
/// message on the system bus may be.
void checkSize(const Element& element, const std::string& content, PublishedObject& object) {
    constexpr std::size_t longestMessage = std::size_t{32} << 20U; // the bus daemon's default
    constexpr std::size_t overhead = 512;                          // of an item and its share of the message
    object.size += content.size() + element.entry.name.size() + overhead;
    if (object.size > longestMessage)
        element.report(Kind::valueTooLong, "path",
                       "the values of the object have more than " + std::to_string(longestMessage) + " bytes");
}

void checkElement(Element& element, const Options& options, PublishedObjects& objects) {
    if (!checkKeys(element))
        return;
    const ConfigEntry& entry = element.entry;
    PublishedObject& object =
        objects.try_emplace(entry.objectPath, PublishedObject{element.position, entry.interface, {}, 0}).first->second;
    checkNames(element, object);
    checkNeighbours(element, object);
    checkStorage(element);
    if (!options.readsValues)
        return;
    const auto content = checkValueFile(element, options);
    if (!content || !element.isReadable())
        return;
    checkValue(element, *content);
    checkSize(element, *content, object);
}

} // namespace

std::vector<Finding> checkText(const std::string& file, const std::string& text, const Options& options) {
    Gio::init();
    std::vector<Finding> findings;
    const Document document(text, findings);
    const Json::Value& root = document.root();
    if (document.isValid() && !root.isArray()) {
        Finding finding{};
        finding.kind = root.isObject() && !root.empty() ? Kind::topLevel : Kind::topLevelIgnored;
        finding.line = document.lineOf(root);
        finding.reason = "the document is " + typeName(root) + ", not an array";
        findings.push_back(finding);
    } else if (document.isValid()) {
        PublishedObjects objects;
        for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
            Element element{document, root[i], i, findings, {}};
            checkElement(element, options, objects);
        }
    }
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& one, const Finding& other) { return one.element < other.element; });
    for (Finding& finding : findings) {
        finding.file = file;
        finding.reason = printable(finding.reason); // the libraries' messages quote the file as it is
        finding.severity = kindInfo(finding.kind).severity;
    }
    return findings;
}

std::vector<Finding> checkFile(const std::string& file, const Options& options) {
    errno = 0;
    std::ostringstream text;
    std::ifstream stream(file);
    text << stream.rdbuf();
    if (!stream.is_open() || (text.fail() && errno != 0)) {
        Finding finding{};
        finding.kind = Kind::unreadableFile;
        finding.file = file;
        finding.reason = std::generic_category().message(errno);
        finding.severity = kindInfo(finding.kind).severity;
        return {finding};
    }
    return checkText(file, text.str(), options);
}

} // namespace check
