#include "ConfigurationInput.h"

#include <algorithm>
#include <memory>

namespace fuzz {

namespace {

constexpr double longestValue = 4096; ///< longer ones are read as well, but only slowly

const MemoryFile& valueFile() {
    static const MemoryFile file(100);
    return file;
}

const MemoryFile& configurationFile() {
    static const MemoryFile file(101);
    return file;
}

ConfigurationInput::Outcome read(const std::string& text, Json::Value& root) {
    using Outcome = ConfigurationInput::Outcome;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), &root, nullptr) ? Outcome::parsed
                                                                                     : Outcome::notJson;
    } catch (const Json::Exception&) { // nested too deeply
        return Outcome::thrown;
    }
}

bool isHarmlessElement(const Json::Value& element) {
    if (!element.isObject())
        return true;
    const Json::Value& path = element["path"];
    const Json::Value& length = element["length"];
    return (!isText(path) || path.asString() == ConfigurationInput::valuePath() ||
            path.asString().find('/') == std::string::npos) &&
           (!isLength(length) || length.isNull() || length.asDouble() <= longestValue);
}

} // namespace

bool isText(const Json::Value& value) { return !value.isArray() && !value.isObject(); }

bool isFlag(const Json::Value& value) { return isText(value) && !value.isString(); }

bool isLength(const Json::Value& value) {
    return isFlag(value) && (value.isNull() || (value.asDouble() >= 0 && value.asDouble() <= 4294967295.0));
}

ConfigurationInput::ConfigurationInput(const std::uint8_t* data, std::size_t size) {
    static const std::string separator = "\n---\n";
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = input.find(separator);
    text = input.substr(0, end);
    value = end == std::string::npos ? "" : input.substr(end + separator.size());
    outcome = read(text, root);
    if (outcome != Outcome::parsed)
        root = Json::Value();
}

bool ConfigurationInput::isHarmless() const {
    return !root.isArray() || std::all_of(root.begin(), root.end(), isHarmlessElement);
}

void ConfigurationInput::write() const {
    configurationFile().write(text);
    valueFile().write(value);
}

const std::string& ConfigurationInput::configurationPath() { return configurationFile().path(); }

const std::string& ConfigurationInput::valuePath() { return valueFile().path(); }

} // namespace fuzz
