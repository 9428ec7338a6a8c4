#include "Table.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string>

namespace ctl {

namespace {

constexpr std::size_t columns = 6;
using Row = std::array<std::string, columns>;

/// Returns where the character after the first `count` ones begins; characters are of UTF-8.
std::size_t bytesOf(const std::string& text, std::size_t count) {
    std::size_t at = 0;
    for (; at < text.size(); ++at)
        if ((static_cast<unsigned char>(text[at]) & 0xC0U) != 0x80U && count-- == 0)
            break;
    return at;
}

std::size_t widthOf(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

std::string cut(const std::string& text, std::size_t width) {
    if (widthOf(text) <= width)
        return text;
    return width == 0 ? "" : text.substr(0, bytesOf(text, width - 1)) + "…";
}

Row rowOf(const Item& item, const TableStyle& style) {
    const std::string object = item.shortObject().empty() ? "/" : item.shortObject();
    return {printable(style.isFull ? item.objectPath : object),
            printable(style.isFull ? item.interface : item.shortInterface()),
            printable(item.name),
            printable(item.signature),
            printable(item.access),
            item.error.empty() ? shown(item.value) : printable("error: " + item.error)};
}

/// Prints one line, at most as wide as there is room for.
void printRow(std::ostream& out, const Row& row, const std::array<std::size_t, columns>& widths, std::size_t room,
              const char* colour) {
    out << colour;
    for (std::size_t column = 0; column < columns && room > 0; ++column) {
        std::string cell = row.at(column);
        if (column + 1 < columns)
            cell.append(widths.at(column) - widthOf(cell) + 1, ' ');
        cell = cut(cell, room);
        room -= widthOf(cell);
        out << cell;
    }
    out << (*colour != '\0' ? "\x1b[0m" : "") << '\n';
}

} // namespace

void printTable(std::ostream& out, const std::vector<Item>& items, const TableStyle& style) {
    std::vector<Row> rows;
    if (style.hasLegend)
        rows.push_back({"OBJECT", "INTERFACE", "PROPERTY", "TYPE", "ACCESS", "VALUE"});
    for (const Item& item : items)
        rows.push_back(rowOf(item, style));

    std::array<std::size_t, columns> widths{};
    for (const Row& row : rows)
        for (std::size_t column = 0; column < columns; ++column)
            widths.at(column) = std::max(widths.at(column), widthOf(row.at(column)));

    const std::size_t room = style.width.value_or(std::numeric_limits<std::size_t>::max());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const bool isLegend = style.hasLegend && i == 0;
        const bool isError = !isLegend && !items[i - (style.hasLegend ? 1 : 0)].error.empty();
        const char* const colour = !style.isColoured ? "" : isLegend ? "\x1b[1m" : isError ? "\x1b[31m" : "";
        printRow(out, rows[i], widths, room, colour);
    }
}

} // namespace ctl
