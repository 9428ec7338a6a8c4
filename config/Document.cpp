#include "Document.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

namespace check {

namespace {

/// Parses with these settings; returns the first complaint, with its position, if there is one.
std::optional<Finding> parse(const Json::CharReaderBuilder& builder, const std::string& text, Json::Value& root) {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    Finding finding{};
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &root, &errors))
            return std::nullopt;
        // The library's report: "* Line 3, Column 5", a line feed, and the message, blanks before it.
        std::istringstream report(errors);
        std::string word;
        char comma = 0;
        report >> word >> word >> finding.line >> comma >> word >> finding.column >> std::ws;
        std::getline(report, finding.reason);
    } catch (const Json::Exception& exception) { // nested too deeply
        finding.reason = exception.what();
    }
    if (!finding.reason.empty() && finding.reason.back() == '.')
        finding.reason.pop_back();
    return finding;
}

/// Parses once more with a setting of the library that makes it refuse what it otherwise swallows.
void findSwallowed(Kind kind, const char* setting, const std::string& text, std::vector<Finding>& findings) {
    Json::CharReaderBuilder builder;
    builder[setting] = true;
    Json::Value root;
    if (auto finding = parse(builder, text, root)) {
        finding->kind = kind;
        findings.push_back(*finding);
    }
}

} // namespace

Document::Document(std::string text) : source(std::move(text)) {
    constexpr std::string_view mark = "\xef\xbb\xbf";
    byteOrderMark = source.compare(0, mark.size(), mark) == 0 ? mark.size() : 0;
    // As the library counts lines in its own complaints: a carriage return alone ends one, too.
    for (std::size_t at = source.find_first_of("\r\n"); at != std::string::npos;
         at = source.find_first_of("\r\n", at + 1))
        if (source.compare(at, 2, "\r\n") != 0)
            lineEnds.push_back(at);
    if (auto finding = parse(Json::CharReaderBuilder(), source, rootValue)) {
        finding->kind = Kind::syntax;
        complaints.push_back(*finding);
        return;
    }
    valid = true;
    findSwallowed(Kind::duplicateKey, "rejectDupKeys", source, complaints);
    findSwallowed(Kind::trailingText, "failIfExtra", source, complaints);
}

std::size_t Document::beginOf(const Json::Value& value) const {
    return byteOrderMark + static_cast<std::size_t>(std::max<std::ptrdiff_t>(value.getOffsetStart(), 0));
}

std::size_t Document::endOf(const Json::Value& value) const {
    return byteOrderMark + static_cast<std::size_t>(std::max<std::ptrdiff_t>(value.getOffsetLimit(), 0));
}

std::size_t Document::lineOf(const Json::Value& value) const {
    const std::size_t offset = beginOf(value);
    return 1 + static_cast<std::size_t>(std::lower_bound(lineEnds.begin(), lineEnds.end(), offset) - lineEnds.begin());
}

std::string typeName(const Json::Value& value) {
    switch (value.type()) {
    case Json::nullValue:
        return "null";
    case Json::booleanValue:
        return "a boolean";
    case Json::stringValue:
        return "a string";
    case Json::arrayValue:
        return "an array";
    case Json::objectValue:
        return "an object";
    default:
        return "a number";
    }
}

} // namespace check
