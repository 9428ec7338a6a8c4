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

/// The element that answers for a property, of those that earlier elements have published at an object path.
struct Answerer {
    bool isFatal;          ///< the daemon ends over its value
    std::size_t valueSize; ///< in bytes
};

/// What earlier elements have published at one object path.
struct PublishedObject {
    std::size_t firstElement;
    std::string interface;
    std::map<std::string, Finding> duplicates; ///< by name: the finding that is made when there is a second one
    std::map<std::string, Answerer> answerers; ///< by name: the first element that has the object's interface
    std::set<std::string> readable;            ///< names that the bus library lets clients read
};

/// What earlier elements have published, without those that are left out.
struct Published {
    std::map<std::string, PublishedObject> objects; ///< by relative object path
    std::map<std::size_t, std::size_t> sizes;       ///< by position: bytes of an element's names and value
    std::set<std::size_t> leftOut;                  ///< positions of the elements that are left out
};

/// How many findings a salvage keeps, as it has a memory limit.
constexpr std::size_t mostFindings = 1000;

/// What the bus library makes of an element by itself.
struct Declaration {
    std::string error;       ///< why it refuses the document; empty: it does not
    std::string name;        ///< of the property: entities are resolved, and line ends and tabs are blanks
    bool isReadable = false; ///< for clients
};

/// Whether the node has no more in it than the one property of one element.
bool isPlain(const GDBusNodeInfo& node) {
    const GDBusInterfaceInfo* const interface = node.interfaces == nullptr ? nullptr : node.interfaces[0];
    return interface != nullptr && node.interfaces[1] == nullptr && interface->properties != nullptr &&
           interface->properties[0] != nullptr && interface->properties[1] == nullptr;
}

Declaration declarationOf(const ConfigEntry& entry) {
    std::string xml;
    ConfigFileParser::getInstance()->entries = {entry};
    dbus::DBusServices::generateXMLFile(xml);
    ConfigFileParser::getInstance()->entries.clear();
    try {
        const auto document = Gio::DBus::NodeInfo::create_for_xml(xml);
        const GDBusNodeInfo& root = *document->gobj();
        const bool isChild = !entry.objectPath.empty();
        const bool hasChild = root.nodes != nullptr && root.nodes[0] != nullptr;
        const bool hasChildren = hasChild && root.nodes[1] != nullptr;
        const bool hasInterface = root.interfaces != nullptr && root.interfaces[0] != nullptr;
        if (isChild != hasChild || hasChildren || isChild == hasInterface || !isPlain(isChild ? *root.nodes[0] : root))
            return {"it has markup in it", "", false};
        const GDBusPropertyInfo& property = *(isChild ? root.nodes[0] : &root)->interfaces[0]->properties[0];
        return {"", property.name, (property.flags & G_DBUS_PROPERTY_INFO_FLAGS_READABLE) != 0};
    } catch (const Glib::Error& error) {
        return {error.what(), "", false};
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

/// Checks the names that are published. An interface that differs from its object's is not one of them. Returns what
/// they declare.
Declaration checkNames(const Element& element, const PublishedObject& object) {
    ConfigEntry entry = element.entry;
    if (entry.interface != object.interface)
        entry.interface = "Unpublished"; // nothing is wrong with this one
    Declaration declaration = declarationOf(entry);
    if (!declaration.error.empty()) {
        element.report(Kind::introspection, "", "breaks the introspection document: " + declaration.error);
        return declaration;
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
    return declaration;
}

/// Checks the element against the earlier ones on its object path.
void checkNeighbours(const Element& element, const PublishedObject& object) {
    const ConfigEntry& entry = element.entry;
    if (entry.interface != object.interface)
        element.report(Kind::interfaceDiffers, "interface",
                       quoted(entry.interface) + " differs from " + quoted(object.interface) + " of element " +
                           std::to_string(object.firstElement) + ", the first one on this object path");
    const auto known = object.duplicates.find(entry.name);
    if (known == object.duplicates.end())
        return;
    // Both are at fault: the bus library goes by the last declaration, and the daemon by the first entry.
    const std::string sameAs = " has the same object path and name";
    Finding earlier = known->second;
    earlier.reason = "element " + std::to_string(element.position) + sameAs;
    element.findings.push_back(earlier);
    element.report(Kind::duplicateItem, "name", "element " + std::to_string(*earlier.element) + sameAs);
}

/// Returns how much of a configuration's size an entry is, without its value.
std::size_t sizeOf(const ConfigEntry& entry) {
    return entry.name.size() + entry.interface.size() + entry.objectPath.size() + entry.type.size();
}

/// Marks the findings for which the element is left out, from the given one on. Returns whether there are any.
bool markLeftOut(const Element& element, std::size_t begin, bool isFatal) {
    std::vector<Finding>& findings = element.findings;
    bool isLeftOut = false;
    for (std::size_t i = begin; i < findings.size(); ++i) {
        const Salvage salvage = kindInfo(findings[i].kind).salvage;
        findings[i].isLeftOut = findings[i].element == element.position &&
                                (salvage == Salvage::leavesOut || (salvage == Salvage::leavesOutWhenRead && isFatal));
        isLeftOut = isLeftOut || findings[i].isLeftOut;
    }
    if (!isLeftOut && isFatal) {
        element.report(Kind::duplicateItem, "name", "is published under the name of an element that cannot be read");
        findings.back().isLeftOut = isLeftOut = true;
    }
    if (isLeftOut) // findings of others about this element no longer apply
        findings.erase(std::remove_if(findings.begin() + static_cast<std::ptrdiff_t>(begin), findings.end(),
                                      [&](const Finding& finding) { return finding.element != element.position; }),
                       findings.end());
    return isLeftOut;
}

/// What an element adds to its object.
struct Addition {
    bool isFatal = false;             ///< the daemon ends over a read of a property that the element declares
    std::size_t size = 0;             ///< in bytes, of what the daemon holds and answers
    std::optional<Answerer> answerer; ///< the element answers for its name
};

/// Checks the value, and what clients get when they read the object with this element.
Addition checkReading(const Element& element, const Declaration& declaration, const PublishedObject& object,
                      const Options& options) {
    const ConfigEntry& entry = element.entry;
    Addition addition{false, sizeOf(entry), std::nullopt};
    if (entry.interface == object.interface && object.answerers.count(entry.name) == 0)
        addition.answerer = Answerer{false, 0};
    const bool declaresItself = declaration.isReadable && declaration.name == entry.name;
    const bool isRead = addition.answerer && (declaresItself || object.readable.count(entry.name) != 0);
    if (const auto content = options.readsValues ? checkValueFile(element, options) : std::nullopt) {
        const std::size_t before = element.findings.size();
        const bool isFatal = !checkValue(element, *content);
        if (!element.isReadable() && !isRead)
            element.findings.resize(before);
        if (addition.answerer)
            addition.answerer = Answerer{isFatal, content->size()};
        addition.isFatal = isRead && isFatal;
        addition.size += content->size();
    }
    // A name that is declared once more is answered once more, by the same element.
    const auto answerer = object.answerers.find(declaration.name);
    if (declaration.isReadable && answerer != object.answerers.end()) {
        addition.isFatal = addition.isFatal || answerer->second.isFatal;
        addition.size += answerer->second.valueSize;
    }
    return addition;
}

/// Checks an element, and adds it to what is published unless it is left out, or one of those that are too long.
void checkElement(Element& element, const Options& options, const std::set<std::size_t>& tooLong,
                  Published& published) {
    const std::size_t begin = element.findings.size();
    if (!checkKeys(element)) {
        if (options.isSalvage && markLeftOut(element, begin, false))
            published.leftOut.insert(element.position);
        return;
    }
    const ConfigEntry& entry = element.entry;
    const auto [place, isNew] =
        published.objects.try_emplace(entry.objectPath, PublishedObject{element.position, entry.interface, {}, {}, {}});
    PublishedObject& object = place->second;
    const Declaration declaration = checkNames(element, object);
    checkNeighbours(element, object);
    checkStorage(element);
    const Addition addition = checkReading(element, declaration, object, options);
    const bool isTooLong = tooLong.count(element.position) != 0;
    if (isTooLong)
        element.report(Kind::valueTooLong, "path",
                       "all names and values have more than " + std::to_string(largestTotal) + " bytes, of which " +
                           std::to_string(addition.size) + " are this item's");
    if (options.isSalvage && markLeftOut(element, begin, addition.isFatal)) {
        published.leftOut.insert(element.position);
        if (isNew)
            published.objects.erase(place);
        return;
    }
    object.duplicates.try_emplace(entry.name, element.finding(Kind::duplicateItem, "name", ""));
    if (addition.answerer)
        object.answerers.try_emplace(entry.name, *addition.answerer);
    if (declaration.isReadable)
        object.readable.insert(declaration.name);
    if (!isTooLong)
        published.sizes[element.position] = addition.size;
}

/// Adds the largest of all elements to those that are too long, until the rest is not. Returns whether there were any.
bool findTooLong(const Published& published, std::set<std::size_t>& tooLong) {
    std::vector<std::pair<std::size_t, std::size_t>> bySize;
    std::size_t total = 0;
    for (const auto& [position, size] : published.sizes) {
        bySize.emplace_back(size, position);
        total += size;
    }
    std::sort(bySize.begin(), bySize.end());
    const std::size_t before = tooLong.size();
    for (; total > largestTotal; bySize.pop_back()) {
        total -= bySize.back().first;
        tooLong.insert(bySize.back().second);
    }
    return tooLong.size() != before;
}

Published checkElements(const Document& document, const Options& options, const std::set<std::size_t>& tooLong,
                        std::vector<Finding>& findings) {
    Published published;
    for (Json::ArrayIndex i = 0; i < document.root().size(); ++i) {
        const std::size_t begin = findings.size();
        Element element{document, document.root()[i], i, findings, {}};
        checkElement(element, options, tooLong, published);
        if (options.isSalvage && begin > mostFindings)
            findings.resize(begin);
        else if (options.isSalvage && findings.size() > mostFindings)
            element.report(Kind::moreFindings, "", "from here on, no finding is reported");
    }
    return published;
}

} // namespace

Checked checkDocument(const std::string& file, const Document& document, const Options& options) {
    Gio::init();
    Checked checked{document.findings(), {}};
    std::vector<Finding>& findings = checked.findings;
    const Json::Value& root = document.root();
    if (document.isValid() && !root.isArray()) {
        Finding finding{};
        finding.kind = root.isObject() && !root.empty() ? Kind::topLevel : Kind::topLevelIgnored;
        finding.line = document.lineOf(root);
        finding.reason = "the document is " + typeName(root) + ", not an array";
        findings.push_back(finding);
    } else if (document.isValid()) {
        const std::size_t begin = findings.size();
        std::set<std::size_t> tooLong;
        Published published = checkElements(document, options, tooLong, findings);
        while (findTooLong(published, tooLong)) {
            findings.resize(begin);
            published = checkElements(document, options, tooLong, findings);
        }
        checked.leftOut = published.leftOut;
    }
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& one, const Finding& other) { return one.element < other.element; });
    for (Finding& finding : findings) {
        finding.file = file;
        finding.reason = printable(finding.reason); // the libraries' messages quote the file as it is
        finding.severity = finding.isLeftOut ? Severity::error : kindInfo(finding.kind).severity;
    }
    return checked;
}

std::vector<Finding> checkText(const std::string& file, const std::string& text, const Options& options) {
    return checkDocument(file, Document(text), options).findings;
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
