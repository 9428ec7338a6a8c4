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
    /// Parses the text as the daemon does. What the library refuses, and what it swallows, is found at once.
    Document(const std::string& text, std::vector<Finding>& findings);

    /// The top-level value; null when the text is not JSON.
    const Json::Value& root() const { return rootValue; }

    /// Whether the text is JSON to the daemon.
    bool isValid() const { return valid; }

    /// Returns the line of a value of this document, from 1.
    std::size_t lineOf(const Json::Value& value) const;

private:
    Json::Value rootValue;
    bool valid = false;
    std::vector<std::size_t> lineEnds; ///< offsets of the last bytes of the line ends
};

/// Returns the name of a value's JSON type, with an article.
std::string typeName(const Json::Value& value);

} // namespace check
