#pragma once

#include "Item.h"

#include <cstddef>
#include <optional>
#include <ostream>
#include <vector>

namespace ctl {

/// How the table of items is printed.
struct TableStyle {
    bool hasLegend = true;            ///< a line of headings
    bool isFull = false;              ///< full object paths and interface names
    bool isColoured = false;          ///< with a terminal's control sequences
    std::optional<std::size_t> width; ///< in characters; longer lines are cut
};

/// Prints the items as a table with one line each.
void printTable(std::ostream& out, const std::vector<Item>& items, const TableStyle& style);

} // namespace ctl
