#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Json {
class Value;
}

/// One published item of board information: the D-Bus property that shows it, the file that holds it, and its value.
///
/// Strings are byte strings of any content; nothing here is validated.
struct ConfigEntry {
    std::string name;         ///< D-Bus property name
    std::string interface;    ///< last part of the D-Bus interface name, below the service's base interface name
    std::string objectPath;   ///< D-Bus object path below the service's root object path; empty: the root itself
    std::string path;         ///< path of the value file
    std::string location;     ///< storage of the value in its file: "par" (text) or "fuses" (binary)
    std::uint32_t offset = 0; ///< "fuses": position of the value in its file, in bytes
    std::uint32_t length = 0; ///< "fuses": size of the value, in bytes
    std::string type;         ///< D-Bus type signature of the property
    std::string content;      ///< the value as text, as last read or written
    bool isRead = false;      ///< clients may read the property
    bool isWrite = false;     ///< clients may write the property
    bool isSignal = false;    ///< clients wish to hear of changes; informative, every change is announced

    /// Returns a labelled dump, one line per field except `path`; `offset` and `length` are in hexadecimal.
    std::string toString() const;
};

/// The board's configuration: reads the JSON file and the value files once, at start, and keeps the entries.
///
/// There is one instance per process. It is used from the main thread only.
class ConfigFileParser {
public:
    /// Returns the process-wide instance; the first call creates it, and it is never freed.
    static ConfigFileParser* getInstance();

    /// Reads the JSON configuration, appends an entry with its current value for each element to `entries`, and
    /// prints the board-information listing to standard output.
    ///
    /// @return false, with the entries untouched, when the file is missing or is not JSON; true otherwise.
    /// @throw Json::Exception for a JSON value of a type that its key cannot take.
    bool parseData(const std::string& fileName);

    /// Reads the current value of one configuration element from its value file, as text.
    ///
    /// "par": the first line of the file without its line feed. "fuses": the bytes at the element's offset, up to
    /// four as one little-endian number in decimal, where bytes that cannot be read are zero; more as two lower-case
    /// hexadecimal digits each in file order, without whitespace bytes, where the last byte that could be read (zero
    /// without one) is repeated for those that could not. Then translated. Any other location: the empty text.
    ///
    /// @throw Json::Exception for a JSON value of a type that its key cannot take.
    static std::string readValueFromPathFile(const Json::Value& element);

    /// Converts the text of an offset: decimal, octal with a leading "0", or hexadecimal with a leading "0x".
    ///
    /// @return the low 32 bits of the number; 0 for an empty text and, with a message in the journal, for one
    ///         without digits or outside the signed 64-bit range. Text behind the number is ignored.
    static std::uint32_t convert(const std::string& text);

    /// Maps a raw value through the element's "translate" object: its own member, else the member "*", else itself.
    /// Members that are not strings are passed over.
    ///
    /// @throw Json::Exception when "translate" is neither an object nor null.
    static std::string translateValue(const Json::Value& element, std::string raw);

    /// Replaces the whole value file of an entry with the value and a line feed, whatever its location, and then
    /// the entry's `content`. A file that cannot be opened is logged and leaves `content` alone; a write that fails
    /// after that goes unnoticed.
    ///
    /// @param index position in `entries`, which must be valid
    /// @param value written byte for byte
    void updateValueInPathFile(std::uint32_t index, const std::string& value);

    std::vector<ConfigEntry> entries; ///< all entries, in the order of the configuration file
};
