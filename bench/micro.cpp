// The daemon's own steps, timed without bus and journal.
#include "ConfigFileParser.h"
#include "dbus/DBusServices.h"
#include "items.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <json/json.h>
#include <stdexcept>
#include <string>

/// Stands before the library's: what the journal costs is another question.
extern "C" int sd_journal_print_with_location(int /*priority*/, const char* /*file*/, const char* /*line*/,
                                              const char* /*function*/, const char* /*format*/, ...) {
    return 0;
}

namespace {

/// Fills the daemon's list as the benchmark's configuration does.
void setEntries(std::size_t count) {
    auto& entries = ConfigFileParser::getInstance()->entries;
    entries.clear();
    for (std::size_t i = 0; i < count; ++i) {
        ConfigEntry entry;
        entry.name = itemName(i);
        entry.interface = "Bench";
        entry.type = "s";
        entry.content = BENCH_VALUE;
        entry.isRead = entry.isWrite = true;
        entries.push_back(entry);
    }
}

/// A file in a folder of its own below the current one, for as long as the benchmark runs.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& content) {
        if (mkdtemp(folder.data()) == nullptr)
            throw std::runtime_error("no temporary folder");
        std::ofstream(path()) << content;
    }
    ~TemporaryFile() {
        std::remove(path().c_str());
        std::remove(folder.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    TemporaryFile(TemporaryFile&&) = delete;
    TemporaryFile& operator=(TemporaryFile&&) = delete;
    [[nodiscard]] std::string path() const { return folder + "/file"; }

private:
    std::string folder = "micro-XXXXXX";
};

/// Lookup and conversion of the last of N entries.
void getLast(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    setEntries(count);
    const Glib::ustring path = BENCH_PATH;
    const Glib::ustring interface = BENCH_INTERFACE;
    const Glib::ustring name = itemName(count - 1);
    while (state.KeepRunning()) {
        Glib::VariantBase value;
        dbus::DBusServices::onGetProperty(value, {}, "", path, interface, name);
        benchmark::DoNotOptimize(value.gobj());
    }
}
BENCHMARK(getLast)->Arg(1)->Arg(20)->Arg(200)->Arg(1000);

void contentToVariant(benchmark::State& state, const char* type, const char* content) {
    const Glib::ustring typeText = type;
    const Glib::ustring contentText = content;
    while (state.KeepRunning())
        benchmark::DoNotOptimize(dbus::DBusServices::contentToVariant(typeText, contentText).gobj());
}
BENCHMARK_CAPTURE(contentToVariant, string, "s", BENCH_VALUE);
BENCHMARK_CAPTURE(contentToVariant, bool, "b", "true");
BENCHMARK_CAPTURE(contentToVariant, int, "i", "-123456");
BENCHMARK_CAPTURE(contentToVariant, unsigned, "u", "123456");
BENCHMARK_CAPTURE(contentToVariant, double, "d", "1234.5");

void convert(benchmark::State& state, const std::string& text) {
    while (state.KeepRunning())
        benchmark::DoNotOptimize(ConfigFileParser::convert(text));
}
BENCHMARK_CAPTURE(convert, decimal, std::string("4096"));
BENCHMARK_CAPTURE(convert, hexadecimal, std::string("0x1000"));
BENCHMARK_CAPTURE(convert, rejected, std::string("none"));

void generateXMLFile(benchmark::State& state) {
    setEntries(static_cast<std::size_t>(state.range(0)));
    while (state.KeepRunning()) {
        std::string xml;
        dbus::DBusServices::generateXMLFile(xml);
        benchmark::DoNotOptimize(xml.data());
    }
}
BENCHMARK(generateXMLFile)->Arg(1)->Arg(20)->Arg(200)->Arg(1000);

void readValue(benchmark::State& state, const char* location, unsigned length) {
    const TemporaryFile file("0123456789abcdef0123456789abcdef\n");
    Json::Value element;
    element["path"] = file.path();
    element["location"] = location;
    element["offset"] = "0x6";
    element["length"] = length;
    while (state.KeepRunning())
        benchmark::DoNotOptimize(ConfigFileParser::readValueFromPathFile(element).data());
}
BENCHMARK_CAPTURE(readValue, par, "par", 0);
BENCHMARK_CAPTURE(readValue, fusesNumber, "fuses", 4);
BENCHMARK_CAPTURE(readValue, fusesHexDigits, "fuses", 16);

/// The whole configuration: JSON, value files, dumps for the journal; the listing is made, but not printed.
void parseData(benchmark::State& state) {
    const TemporaryFile value(BENCH_VALUE "\n");
    Json::Value root(Json::arrayValue);
    for (std::size_t i = 0; i < static_cast<std::size_t>(state.range(0)); ++i) {
        Json::Value element;
        element["name"] = itemName(i);
        element["interface"] = "Bench";
        element["path"] = value.path();
        element["location"] = "par";
        element["type"] = "s";
        element["read"] = element["write"] = true;
        root.append(element);
    }
    const TemporaryFile configuration(root.toStyledString());
    ConfigFileParser& parser = *ConfigFileParser::getInstance();
    std::streambuf* const terminal = std::cout.rdbuf(nullptr);
    while (state.KeepRunning()) {
        parser.entries.clear();
        if (!parser.parseData(configuration.path()))
            state.SkipWithError("not parsed");
    }
    std::cout.rdbuf(terminal);
}
BENCHMARK(parseData)->Arg(1)->Arg(20)->Arg(200)->Arg(1000);

void writeValue(benchmark::State& state) {
    const TemporaryFile file("");
    setEntries(1);
    ConfigFileParser& parser = *ConfigFileParser::getInstance();
    parser.entries.front().path = file.path();
    while (state.KeepRunning())
        parser.updateValueInPathFile(0, BENCH_VALUE);
}
BENCHMARK(writeValue);

} // namespace

BENCHMARK_MAIN();
