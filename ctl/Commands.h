#pragma once

#include "Bus.h"

#include <string>
#include <vector>

namespace ctl {

/// How commands print.
struct Output {
    bool isJson = false;
    bool hasLegend = true;
    bool isFull = false;
};

/// Prints all items.
void list(Bus& bus, const Output& output);

/// Prints the values of the named items, one a line.
void get(Bus& bus, const Output& output, const std::vector<std::string>& names);

/// Sets an item, and reads it back. @throw Failure when the daemon has not taken the value.
void set(Bus& bus, const Output& output, const std::string& name, const std::string& text);

/// Follows the changes of the named items, of all without names, and prints them. Does not return.
[[noreturn]] void watch(Bus& bus, const Output& output, const std::vector<std::string>& names);

/// Prints a JSON value; on one line without, over several lines with indentation.
void printJson(const Json::Value& value, const char* indentation);

} // namespace ctl
