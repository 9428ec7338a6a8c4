#include "Commands.h"

#include "Table.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace ctl {

namespace {

constexpr const char* indented = "  ";

bool isTerminal() { return isatty(STDOUT_FILENO) == 1; }

/// By the convention of https://no-color.org.
bool wantsColour() {
    const char* const refused = std::getenv("NO_COLOR"); // NOLINT(concurrency-mt-unsafe)
    const char* const kind = std::getenv("TERM");        // NOLINT(concurrency-mt-unsafe)
    return (refused == nullptr || *refused == '\0') && (kind == nullptr || std::strcmp(kind, "dumb") != 0);
}

TableStyle styleFor(const Output& output) {
    TableStyle style;
    style.hasLegend = output.hasLegend;
    style.isFull = output.isFull;
    if (!isTerminal())
        return style;
    style.isColoured = wantsColour();
    winsize size{};
    if (!output.isFull && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        style.width = size.ws_col;
    return style;
}

void printItems(const std::vector<Item>& items) {
    Json::Value array(Json::arrayValue);
    for (const Item& item : items)
        array.append(toJson(item));
    printJson(array, indented);
}

} // namespace

void printJson(const Json::Value& value, const char* indentation) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    builder["emitUTF8"] = true;
    std::cout << Json::writeString(builder, value) << std::endl;
}

void list(Bus& bus, const Output& output) {
    const std::vector<Item> items = bus.items();
    if (output.isJson)
        printItems(items);
    else
        printTable(std::cout, items, styleFor(output));
}

void get(Bus& bus, const Output& output, const std::vector<std::string>& names) {
    const std::vector<Item> items = bus.items();
    std::vector<Item> found;
    for (const std::string& name : names) {
        const Item& item = findItem(items, name);
        if (!item.isReadable())
            throw Failure(item.shortName() + ": cannot be read, it is write-only");
        if (!item.value)
            throw Failure(item.shortName() + ": " + item.error);
        found.push_back(item);
    }
    if (output.isJson)
        return printItems(found);
    for (const Item& item : found)
        std::cout << (isTerminal() ? printable(item.value->text) : item.value->text) << '\n';
}

void set(Bus& bus, const Output& output, const std::string& name, const std::string& text) {
    Item item = findItem(bus.items(), name);
    if (!item.isWritable())
        throw Failure(item.shortName() + ": cannot be set, it is read-only");
    try {
        const BasicValue value = convert(item.signature, text);
        bus.set(item, value);
        bus.refresh(item);
        if (!item.error.empty())
            throw Failure("set, but it cannot be read back: " + item.error);
        // The daemon answers success also when it could not open the file, and keeps the old value then. When it could
        // not fill the file, it serves the new value, and nothing can be noticed here.
        if (item.value && item.value->text != expectedText(item.signature, value))
            throw Failure("the daemon answered success, but the value is " + shown(item.value));
    } catch (const Failure& failure) {
        throw Failure(item.shortName() + ": " + failure.what());
    }
    if (output.isJson)
        printItems({item});
    else if (!item.isReadable())
        std::cerr << item.shortName() << ": sent, but it is write-only and cannot be read back\n";
}

} // namespace ctl
