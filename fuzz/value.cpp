// Any value of a type that D-Bus has, through a Set to the value file and back by a Get and by the next start; and any
// stored text through a Get. The first byte selects one of the two and the type.

#include "ConfigFileParser.h"
#include "Fuzz.h"
#include "JournalCapture.h"
#include "dbus/DBusServices.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <gio/gio.h>
#include <json/json.h>
#include <limits>
#include <stdexcept>

namespace {

constexpr int valueDescriptor = 100;
constexpr std::array types{"s", "b", "i", "u",  "d",  "y",    "n",     "q", "x",
                           "t", "o", "g", "as", "ay", "(sd)", "a{sv}", "v", "ad"};

int signals = 0; ///< emitted since the start of the current input

const Glib::ustring objectPath = "/com/brenvok/Korvaneinfo1/Item";
const Glib::ustring interfaceName = "com.brenvok.Info1.Board";
const Glib::ustring propertyName = "Value";

ConfigEntry& entryOf(const std::string& path, const std::string& type) {
    auto& entries = ConfigFileParser::getInstance()->entries;
    entries.resize(1);
    ConfigEntry& entry = entries.front();
    entry.name = propertyName;
    entry.interface = "Board";
    entry.objectPath = "Item";
    entry.path = path;
    entry.location = "par";
    entry.type = type;
    return entry;
}

Glib::VariantBase get() {
    Glib::VariantBase answer;
    dbus::DBusServices::onGetProperty(answer, {}, "", objectPath, interfaceName, propertyName);
    return answer;
}

/// A value as a client sends it: in normal form.
Glib::VariantBase variantOf(const char* type, const std::string& bytes) {
    void* const copy = g_memdup2(bytes.data(), bytes.size()); // aligned as the type may need it
    GVariant* const raw = g_variant_new_from_data(G_VARIANT_TYPE(type), copy, bytes.size(), FALSE, g_free, copy);
    g_variant_ref_sink(raw);
    GVariant* const normal = g_variant_get_normal_form(raw);
    g_variant_unref(raw);
    return Glib::VariantBase(normal);
}

/// The stored text as the GVariant text format has it, with the single quotes that a Set has taken away.
std::string quotedAgain(const Glib::VariantBase& value, const std::string& text) {
    auto* const gvariant = const_cast<GVariant*>(value.gobj());
    const std::string type = value.get_type_string();
    const bool isString = type == "s" || type == "o" || type == "g";
    const bool isByteString = type == "ay" && text.front() == 'b';
    if (!isString && !isByteString)
        return text;
    const char* const string = isString ? g_variant_get_string(gvariant, nullptr) : g_variant_get_bytestring(gvariant);
    if (std::strchr(string, '\'') != nullptr)
        return text; // the format has used double quotes, which stay
    if (isString)
        return "'" + text + "'";
    return *string == '\0' ? "b''" : text + "'";
}

void requireSameValue(const Glib::VariantBase& value, const std::string& text) {
    GError* error = nullptr;
    GVariant* const parsed =
        g_variant_parse(value.get_type().gobj(), quotedAgain(value, text).c_str(), nullptr, nullptr, &error);
    if (parsed != nullptr) {
        fuzz::require(Glib::VariantBase(parsed).print(true) == value.print(true), "the text is the value's");
        return;
    }
    const bool isOutOfRange = g_error_matches(error, G_VARIANT_PARSE_ERROR, G_VARIANT_PARSE_ERROR_NUMBER_TOO_BIG) != 0;
    g_error_free(error);
    fuzz::require(isOutOfRange && text.find("e-3") != std::string::npos,
                  "only a text with a subnormal number cannot be parsed");
}

void requireReadBack(const Glib::VariantBase& value, const std::string& text) {
    auto* const gvariant = const_cast<GVariant*>(value.gobj());
    const std::string type = value.get_type_string();
    try {
        const Glib::VariantBase answer = get();
        if (type == "b" || type == "i" || type == "u" || type == "d")
            fuzz::require(answer.print(true) == value.print(true), "a Get answers the number or flag that was set");
        else
            fuzz::require(Glib::VariantBase::cast_dynamic<Glib::Variant<Glib::ustring>>(answer).get().raw() == text,
                          "a Get answers other types by their text");
    } catch (const std::out_of_range&) {
        const bool isLarge = type == "u" && g_variant_get_uint32(gvariant) > std::uint32_t{G_MAXINT32};
        const bool isTiny = type == "d" && std::fpclassify(g_variant_get_double(gvariant)) == FP_SUBNORMAL;
        fuzz::require(isLarge || isTiny, "only large unsigned and subnormal numbers cannot be read back");
    }
}

void setAndReadBack(const fuzz::MemoryFile& valueFile, const char* type, const std::string& bytes) {
    // Enough of a connection for a signal that the function below takes.
    static const auto connection = Glib::wrap(G_DBUS_CONNECTION(g_object_new(G_TYPE_DBUS_CONNECTION, nullptr)));
    const Glib::VariantBase value = variantOf(type, bytes);
    valueFile.write("a longer text that was there before\nand another line");
    const ConfigEntry& entry = entryOf(valueFile.path(), type);
    signals = 0;
    fuzz::require(dbus::DBusServices::setProperty(connection, "", objectPath, interfaceName, propertyName, value),
                  "a Set succeeds");
    fuzz::require(signals == 1, "a Set is announced once");
    const std::string text = entry.content;
    fuzz::require(valueFile.read() == text + "\n", "the file holds the content and a line feed");

    requireSameValue(value, text);
    Json::Value element;
    element["path"] = entry.path;
    element["location"] = entry.location;
    fuzz::require(ConfigFileParser::readValueFromPathFile(element) == text, "the next start reads the same text");
    requireReadBack(value, text);
}

/// Returns whether a text begins with a decimal number that an int can hold, and the number.
bool modelInt(const std::string& text, std::int64_t& number) {
    const char* c = text.c_str();
    while (*c != '\0' && std::strchr(" \t\n\v\f\r", *c) != nullptr)
        ++c;
    const bool negative = *c == '-';
    if (*c == '-' || *c == '+')
        ++c;
    if (*c < '0' || *c > '9')
        return false;
    number = 0;
    for (; *c >= '0' && *c <= '9' && number <= 0x80000000LL; ++c)
        number = number * 10 + (*c - '0');
    number = negative ? -number : number;
    return number >= std::numeric_limits<std::int32_t>::min() && number <= std::numeric_limits<std::int32_t>::max();
}

/// Returns whether a text begins with a number that a double can hold in full precision, and the number.
bool modelDouble(const std::string& text, double& number) {
    char* end = nullptr;
    errno = 0;
    number = std::strtod(text.c_str(), &end);
    return end != text.c_str() && errno != ERANGE;
}

void getStored(const char* type, const std::string& content) {
    if (!g_utf8_validate_len(content.data(), content.size(), nullptr))
        return; // not a text that a D-Bus string can hold
    entryOf("", type).content = content;
    std::int64_t number = 0;
    double realNumber = 0;
    const bool isAccepted = *type == 'i' || *type == 'u' ? modelInt(content, number)
                            : *type == 'd'               ? modelDouble(content, realNumber)
                                                         : true;
    Glib::VariantBase answer;
    try {
        answer = get();
    } catch (const std::logic_error&) { // invalid_argument, out_of_range
        fuzz::require(!isAccepted, "only a text that is no number in range fails");
        return;
    }
    fuzz::require(isAccepted, "a text that is no number in range fails");
    GVariant* const value = answer.gobj();
    switch (*type) {
    case 'b':
        fuzz::require((g_variant_get_boolean(value) != FALSE) == (content == "true"), "only \"true\" is true");
        break;
    case 'i':
        fuzz::require(g_variant_get_int32(value) == number, "a signed number is its text's");
        break;
    case 'u':
        fuzz::require(g_variant_get_uint32(value) == static_cast<std::uint32_t>(number),
                      "an unsigned number is its text's, taken as signed");
        break;
    case 'd': {
        const double got = g_variant_get_double(value);
        fuzz::require(got == realNumber || (std::isnan(got) && std::isnan(realNumber)), "a double is its text's");
        break;
    }
    default:
        fuzz::require(g_variant_get_string(value, nullptr) == content, "other types are published as text");
    }
}

} // namespace

/// Defined in the program, it is found before the one in the shared library.
gboolean g_dbus_connection_emit_signal(GDBusConnection* /*connection*/, const gchar* destination, const gchar* path,
                                       const gchar* interface, const gchar* signal, GVariant* parameters,
                                       GError** /*error*/) {
    fuzz::require(destination == nullptr && parameters == nullptr, "the signal is for all and has no arguments");
    fuzz::require(objectPath.raw() == path, "the signal comes from the object");
    fuzz::require(std::strcmp(interface, "org.freedesktop.DBus.Properties") == 0 &&
                      std::strcmp(signal, "PropertiesChanged") == 0,
                  "the signal is PropertiesChanged");
    ++signals;
    return TRUE;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryFile valueFile(valueDescriptor);
    fuzz::Input input(data, size);
    const unsigned selector = input.byte();
    const char* const type = types[selector / 2 % types.size()];
    if (selector % 2 == 0)
        setAndReadBack(valueFile, type, input.rest());
    else
        getStored(type, input.rest());
    fuzz::require(journal::take().empty(), "nothing is worth a message");
    return 0;
}
