#pragma once

#include "Fuzz.h"

#include <json/json.h>

namespace fuzz {

/// The input of the targets that take a whole configuration: its text and, behind a line "---", the content of the
/// value file, which it can name as /proc/self/fd/100.
class ConfigurationInput {
public:
    enum class Outcome { parsed, notJson, thrown };

    /// Takes an input apart and reads its JSON.
    ConfigurationInput(const std::uint8_t* data, std::size_t size);

    /// Whether the daemon may get it: files other than the value file could be terminals or devices, and a length of
    /// gigabytes takes minutes.
    bool isHarmless() const;
    /// Writes the text and the value to the two files.
    void write() const;

    static const std::string& configurationPath(); ///< path of the file for the text
    static const std::string& valuePath();         ///< path of the value file

    std::string text;
    std::string value;
    Outcome outcome;  ///< what the daemon's JSON library makes of the text
    Json::Value root; ///< null unless parsed
};

/// Whether a JSON value can be taken for a text.
bool isText(const Json::Value& value);
/// Whether a JSON value can be taken for a flag.
bool isFlag(const Json::Value& value);
/// Whether a JSON value can be taken for a length.
bool isLength(const Json::Value& value);

} // namespace fuzz
