#include "JournalCapture.h"

#include "Journal.h"

#include <cstdarg>
#include <cstdio>
#include <tuple>
#include <utility>

namespace {

std::vector<JournalMessage> messages;

std::string formatted(const char* format, va_list arguments) {
    va_list forSize;
    va_copy(forSize, arguments);
    const auto size = static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, forSize));
    va_end(forSize);
    std::string text(size + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.resize(size);
    return text;
}

} // namespace

// Defined in the program, it is found before the one in the shared library.
int sd_journal_print_with_location(int priority, const char* file, const char* line, const char* func,
                                   const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    messages.push_back({priority, file, line, func, formatted(format, arguments)});
    va_end(arguments);
    return 0;
}

bool JournalMessage::operator==(const JournalMessage& other) const {
    return std::tie(priority, file, line, function, text) ==
           std::tie(other.priority, other.file, other.line, other.function, other.text);
}

std::ostream& operator<<(std::ostream& out, const JournalMessage& message) {
    return out << message.priority << ' ' << message.file << ' ' << message.line << ' ' << message.function << ": "
               << message.text;
}

std::vector<JournalMessage> journal::take() { return std::exchange(messages, {}); }
