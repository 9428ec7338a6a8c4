#include "Check.h"

#include "Element.h"
#include "Value.h"
#include "dbus/DBusServices.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

namespace check {

namespace {

/// What earlier elements have declared under one name at one object path.
struct PublishedProperty {
    Finding duplicate;       ///< the finding that is made when there is a second one
    bool isReadable = false; ///< by what one of them says
    bool isAnswered = false; ///< one of them has the object's interface: the first one answers
    bool isFatal = false;    ///< the daemon ends over the value of that one
};

/// What earlier elements have published at one object path.
struct PublishedObject {
    std::size_t firstElement;
    std::string interface;
    std::map<std::string, PublishedProperty> properties; ///< by name
};

/// What earlier elements have published.
struct Published {
    std::map<std::string, PublishedObject> objects; ///< by relative object path
    std::size_t size = 0;                           ///< of all texts and values, in bytes
    std::vector<std::size_t> elements;              ///< positions of those elements
    std::vector<ConfigEntry> entries;               ///< and what they are to the daemon, but for the values
};

/// How many findings a salvage keeps, as it has a memory limit, before it passes over those that leave no element out.
constexpr std::size_t mostFindings = 1000;

/// Returns the introspection document of these entries.
std::string introspectionDocument(const std::vector<ConfigEntry>& entries) {
    std::string xml;
    ConfigFileParser::getInstance()->entries = entries;
    dbus::DBusServices::generateXMLFile(xml);
    ConfigFileParser::getInstance()->entries.clear();
    return xml;
}

/// Returns what the daemon's introspection parser says to the element, or nothing when it accepts it.
std::string introspectionError(const ConfigEntry& entry) {
    try {
        Gio::DBus::NodeInfo::create_for_xml(introspectionDocument({entry}));
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

/// Checks the element against the earlier ones on its object path.
void checkNeighbours(const Element& element, const PublishedObject& object) {
    const ConfigEntry& entry = element.entry;
    if (entry.interface != object.interface)
        element.report(Kind::interfaceDiffers, "interface",
                       quoted(entry.interface) + " differs from " + quoted(object.interface) + " of element " +
                           std::to_string(object.firstElement) + ", the first one on this object path");
    const auto property = object.properties.find(entry.name);
    if (property == object.properties.end())
        return;
    // Both are at fault: the bus library goes by the last declaration, and the daemon by the first entry.
    const std::string sameAs = " has the same object path and name";
    Finding earlier = property->second.duplicate;
    earlier.reason = "element " + std::to_string(element.position) + sameAs;
    element.findings.push_back(earlier);
    element.report(Kind::duplicateItem, "name", "element " + std::to_string(*earlier.element) + sameAs);
}

/// Returns how much the element adds to what the daemon holds in memory, many times over.
std::size_t sizeOf(const ConfigEntry& entry, const std::string& content) {
    return content.size() + entry.name.size() + entry.interface.size() + entry.objectPath.size() + entry.type.size();
}

/// Checks the value, and updates what is known of the property. Returns how much it adds to the size so far.
std::size_t checkContent(const Element& element, const std::string& content, bool answers, std::size_t sizeSoFar,
                         PublishedProperty& property) {
    const std::size_t before = element.findings.size();
    const bool isSound = checkValue(element, content);
    if (!property.isReadable)
        element.findings.resize(before);
    if (answers)
        property.isFatal = !isSound;
    const std::size_t size = sizeOf(element.entry, content);
    if (sizeSoFar + size <= largestTotal)
        return size;
    element.report(Kind::valueTooLong, "path",
                   "with those before it, names and values have more than " + std::to_string(largestTotal) + " bytes");
    return 0;
}

/// Marks the findings for which the element at this position has to be left out, from the given one on. Returns whether
/// there are any.
bool markLeftOut(std::vector<Finding>& findings, std::size_t begin, std::size_t position, bool isFatalWhenRead) {
    bool isLeftOut = false;
    for (std::size_t i = begin; i < findings.size(); ++i) {
        const Salvage salvage = kindInfo(findings[i].kind).salvage;
        findings[i].isLeftOut =
            findings[i].element == position &&
            (salvage == Salvage::leavesOut || (salvage == Salvage::leavesOutWhenRead && isFatalWhenRead));
        isLeftOut = isLeftOut || findings[i].isLeftOut;
    }
    if (isLeftOut) // others have no quarrel with an element that is not there
        findings.erase(std::remove_if(findings.begin() + static_cast<std::ptrdiff_t>(begin), findings.end(),
                                      [=](const Finding& finding) { return finding.element != position; }),
                       findings.end());
    return isLeftOut;
}

/// Checks an element, and adds it to what is published unless it is left out.
void checkElement(Element& element, const Options& options, Published& published) {
    const std::size_t begin = element.findings.size();
    if (!checkKeys(element)) {
        if (options.isSalvage)
            markLeftOut(element.findings, begin, element.position, false);
        return;
    }
    const ConfigEntry& entry = element.entry;
    const auto [known, isNew] =
        published.objects.try_emplace(entry.objectPath, PublishedObject{element.position, entry.interface, {}});
    PublishedObject& object = known->second;
    checkNames(element, object);
    checkNeighbours(element, object);
    checkStorage(element);

    const auto earlier = object.properties.find(entry.name);
    PublishedProperty property = earlier == object.properties.end()
                                     ? PublishedProperty{element.finding(Kind::duplicateItem, "name", "")}
                                     : earlier->second;
    // The bus library declares a name with an entity in it as another one, under which no entry is found.
    const bool isPlain = entry.name.find('&') == std::string::npos;
    const bool answers = entry.interface == object.interface && isPlain && !property.isAnswered;
    property.isReadable = property.isReadable || element.isReadable();
    property.isAnswered = property.isAnswered || answers;
    std::size_t size = sizeOf(entry, "");
    if (options.readsValues)
        if (const auto content = checkValueFile(element, options))
            size = checkContent(element, *content, answers, published.size, property);
    if (options.isSalvage &&
        markLeftOut(element.findings, begin, element.position, property.isReadable && property.isFatal)) {
        if (isNew)
            published.objects.erase(known);
        return;
    }
    object.properties.insert_or_assign(entry.name, property);
    published.size += size;
    published.elements.push_back(element.position);
    published.entries.push_back(entry);
}

/// Whether the bus library takes in these entries together. Each may be fine by itself, and yet have a name with which
/// it ends the markup of another.
bool areAccepted(const std::vector<ConfigEntry>& entries) {
    try {
        const auto document = Gio::DBus::NodeInfo::create_for_xml(introspectionDocument(entries));
        std::set<std::pair<std::string, std::string>> registered;
        const auto isRegistered = [&](const GDBusNodeInfo& node) {
            for (GDBusInterfaceInfo** interface = node.interfaces; interface != nullptr && *interface != nullptr;
                 ++interface)
                if (node.path == nullptr || g_variant_is_object_path(node.path) == FALSE ||
                    g_dbus_is_interface_name((*interface)->name) == FALSE ||
                    !registered.emplace(node.path, (*interface)->name).second)
                    return false;
            return true;
        };
        bool areRegistered = isRegistered(*document->gobj());
        for (GDBusNodeInfo** node = document->gobj()->nodes; areRegistered && node != nullptr && *node != nullptr;
             ++node)
            areRegistered = isRegistered(**node);
        return areRegistered;
    } catch (const Glib::Error&) {
        return false;
    }
}

/// Returns the position of an element that makes the entries up to and with it unacceptable, if all together are.
std::optional<std::size_t> findCulprit(const Published& published) {
    const auto first = [&](std::size_t count) {
        return std::vector<ConfigEntry>(published.entries.begin(),
                                        published.entries.begin() + static_cast<std::ptrdiff_t>(count));
    };
    std::size_t accepted = 0;
    std::size_t refused = published.entries.size();
    if (areAccepted(published.entries))
        return std::nullopt;
    while (refused - accepted > 1) {
        const std::size_t middle = accepted + (refused - accepted) / 2;
        (areAccepted(first(middle)) ? accepted : refused) = middle;
    }
    return published.elements[accepted];
}

/// Forgets an element's findings, from the given one on, when there are too many, but for those that leave it out.
void bound(std::vector<Finding>& findings, std::size_t begin, const Element& element) {
    if (begin > mostFindings)
        findings.erase(std::remove_if(findings.begin() + static_cast<std::ptrdiff_t>(begin), findings.end(),
                                      [](const Finding& finding) { return !finding.isLeftOut; }),
                       findings.end());
    else if (findings.size() > mostFindings)
        element.report(Kind::moreFindings, "", "from here on, only findings that leave an element out are told of");
}

/// Checks all elements. A salvage does so without those that earlier rounds have found at fault, of which it knows.
Published checkElements(const Document& document, const Options& options, const std::set<std::size_t>& culprits,
                        std::vector<Finding>& findings) {
    Published published;
    for (Json::ArrayIndex i = 0; i < document.root().size(); ++i) {
        const std::size_t begin = findings.size();
        Element element{document, document.root()[i], i, findings, {}};
        if (culprits.count(i) == 0) {
            checkElement(element, options, published);
        } else if (checkKeys(element)) {
            element.report(Kind::introspection, "", "breaks the introspection document of the other elements");
            findings.back().isLeftOut = true;
        }
        if (options.isSalvage)
            bound(findings, begin, element);
    }
    return published;
}

} // namespace

std::vector<Finding> checkDocument(const std::string& file, const Document& document, const Options& options) {
    Gio::init();
    std::vector<Finding> findings = document.findings();
    const Json::Value& root = document.root();
    if (document.isValid() && !root.isArray()) {
        Finding finding{};
        finding.kind = root.isObject() && !root.empty() ? Kind::topLevel : Kind::topLevelIgnored;
        finding.line = document.lineOf(root);
        finding.reason = "the document is " + typeName(root) + ", not an array";
        findings.push_back(finding);
    } else if (document.isValid()) {
        const std::size_t begin = findings.size();
        std::set<std::size_t> culprits;
        Published published = checkElements(document, options, culprits, findings);
        while (const auto culprit = options.isSalvage ? findCulprit(published) : std::nullopt) {
            culprits.insert(*culprit);
            findings.resize(begin);
            published = checkElements(document, options, culprits, findings);
        }
    }
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& one, const Finding& other) { return one.element < other.element; });
    for (Finding& finding : findings) {
        finding.file = file;
        finding.reason = printable(finding.reason); // the libraries' messages quote the file as it is
        finding.severity = finding.isLeftOut ? Severity::error : kindInfo(finding.kind).severity;
    }
    return findings;
}

std::vector<Finding> checkText(const std::string& file, const std::string& text, const Options& options) {
    return checkDocument(file, Document(text), options);
}

std::vector<Finding> checkFile(const std::string& file, const Options& options) {
    errno = 0;
    std::ostringstream text;
    std::ifstream stream(file);
    text << stream.rdbuf();
    if (!stream.is_open() || (text.fail() && errno != 0))
        return {unreadable(file, std::generic_category().message(errno))};
    return checkText(file, text.str(), options);
}

} // namespace check
