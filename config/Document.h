#pragma once

#include "Findings.h"

#include <cstddef>
#include <json/json.h>
#include <string>
#include <vector>

namespace check {

/// A configuration file as the daemon's JSON library reads it, with the lines on which its values stand.
class Document {
public:
    /// Parses the text as the daemon does.
    explicit Document(std::string text);

    /// What the library has refused in the text, or swallowed.
    const std::vector<Finding>& findings() const { return complaints; }

    /// The top-level value; null when the text is not JSON.
    const Json::Value& root() const { return rootValue; }

    /// Whether the text is JSON to the daemon.
    bool isValid() const { return valid; }

    /// Returns the text of the file.
    const std::string& text() const { return source; }

    /// Returns the offset of the first byte of a value of this document in the text.
    std::size_t beginOf(const Json::Value& value) const;

    /// Returns the offset past the last byte of a value.
    std::size_t endOf(const Json::Value& value) const;

    /// Returns the line of a value of this document, from 1.
    std::size_t lineOf(const Json::Value& value) const;

private:
    std::string source;
    std::size_t byteOrderMark = 0; ///< size of the one at the beginning; the library counts from behind it
    std::vector<Finding> complaints;
    Json::Value rootValue;
    bool valid = false;
    std::vector<std::size_t> lineEnds; ///< offsets of the last bytes of the line ends
};

/// Returns the name of a value's JSON type, with an article.
std::string typeName(const Json::Value& value);

} // namespace check
