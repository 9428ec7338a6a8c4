#pragma once

#include <json/json.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ctl {

/// A request that failed: the text is for the user, the exit status is 1.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The value of a property.
struct Value {
    std::string text; ///< as people write it, without quotes
    Json::Value json; ///< of the JSON type that fits; infinite numbers and the like as text

    bool operator==(const Value& other) const { return text == other.text && json.type() == other.json.type(); }
    bool operator!=(const Value& other) const { return !(*this == other); }
};

/// Returns a number as its shortest text that reads back as the same number.
std::string shortest(double number);

/// One property of the daemon.
struct Item {
    std::string objectPath; ///< full
    std::string interface;  ///< full
    std::string name;
    std::string signature;
    std::string access;         ///< "read", "write" or "readwrite"
    std::optional<Value> value; ///< none: write-only, or it could not be read
    std::string error;          ///< why a readable property could not be read

    bool isReadable() const { return access != "write"; }
    bool isWritable() const { return access != "read"; }
    bool isSame(const Item& other) const;

    /// The object path below the daemon's own; empty: the daemon's own.
    std::string shortObject() const;
    /// The interface name below the daemon's own.
    std::string shortInterface() const;
    /// Object, interface and property, short, with slashes between: a NAME that is unique.
    std::string shortName() const;
    /// Whether the NAME means this item: its property, after as much of interface and object as is wanted.
    bool isMeantBy(const std::string& wanted) const;
};

/// Returns the one item that the NAME means. @throw Failure when it is none or several.
const Item& findItem(const std::vector<Item>& items, const std::string& wanted);

/// Returns the item as a JSON object, with the keys object, interface, property, type, access, value.
Json::Value toJson(const Item& item);

/// Returns the text with its control characters escaped, which could make a terminal do anything.
std::string printable(const std::string& text);

/// Returns the value, or the absence of one, as it is shown to people, printable.
std::string shown(const std::optional<Value>& value);

} // namespace ctl
