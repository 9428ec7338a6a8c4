#pragma once

#include "ConfigFileParser.h"
#include "Document.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace check {

/// Most bytes that all names and values may have together. The daemon holds the values of an object five times while it
/// answers a client that asks for all of them. With this total, 16 such clients at once take it to 93 MB; the memory
/// limit of its service is 128 MB.
constexpr std::size_t largestTotal = std::size_t{4} << 20U;
/// Longest configuration, in bytes, that the service takes. The daemon needs 32 MB at most to parse one.
constexpr std::size_t largestConfiguration = std::size_t{512} << 10U;

/// One element of the configuration under check: what the daemon makes of it, and a way to report.
struct Element {
    const Document& document;
    const Json::Value& json;
    std::size_t position; ///< in the array, from 0
    std::vector<Finding>& findings;
    ConfigEntry entry; ///< as the daemon fills it, but for the content

    /// Makes a finding about one of the element's keys, on the line of its value where it has one. An empty key
    /// stands for the element as a whole.
    Finding finding(Kind kind, const std::string& key, const std::string& reason) const;

    /// Makes such a finding and adds it to the others.
    void report(Kind kind, const std::string& key, const std::string& reason) const;

    /// Whether the daemon lets clients read the item.
    bool isReadable() const;
};

/// Checks keys and JSON types, and fills the entry. Returns false when the daemon ends over a type; there is no entry
/// then.
bool checkKeys(Element& element);

/// Checks offset, length, translation and access, as far as the configuration alone tells.
void checkStorage(const Element& element);

} // namespace check
