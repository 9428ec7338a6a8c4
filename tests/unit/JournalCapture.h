#pragma once

#include <ostream>
#include <string>
#include <vector>

/// One message as the code under test gave it to the journal.
struct JournalMessage {
    int priority;
    std::string file; ///< with its "CODE_FILE="
    std::string line; ///< with its "CODE_LINE="
    std::string function;
    std::string text;

    bool operator==(const JournalMessage& other) const;
};

std::ostream& operator<<(std::ostream& out, const JournalMessage& message);

/// Takes the place of the journal in the test binary.
namespace journal {

/// Returns all messages since the last call, in order.
std::vector<JournalMessage> take();

} // namespace journal
