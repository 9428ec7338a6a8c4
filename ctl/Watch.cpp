#include "Commands.h"
#include "Names.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <iostream>
#include <set>
#include <utility>

namespace ctl {

namespace {

/// What the signals have told since the last look.
struct News {
    std::set<std::string> changedObjects;
    bool hasStarted = false;
    bool hasStopped = false;
};

int onPropertiesChanged(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
    static_cast<News*>(data)->changedObjects.insert(sd_bus_message_get_path(message));
    return 0;
}

int onNameOwnerChanged(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &after) < 0)
        return 0;
    News& news = *static_cast<News*>(data);
    news.hasStarted = *after != '\0';
    news.hasStopped = *after == '\0';
    return 0;
}

/// Returns the local time with milliseconds and the offset from UTC, as of RFC 3339.
std::string timestamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto whole = std::chrono::system_clock::from_time_t(seconds);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now - whole).count();
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 32> time{};
    std::array<char, 8> zone{};
    std::strftime(time.data(), time.size(), "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(zone.data(), zone.size(), "%z", &local);
    const std::string fraction = std::to_string(1000 + milliseconds).substr(1);
    const std::string offset = zone.data();
    return time.data() + ("." + fraction) + offset.substr(0, 3) + ":" + offset.substr(3);
}

Json::Value jsonOf(const std::optional<Value>& value) { return value ? value->json : Json::Value(); }

void printChange(const Output& output, const Item& item, const std::optional<Value>& before) {
    if (!output.isJson) {
        std::cout << timestamp() << ' ' << printable(item.shortName()) << ": " << shown(before) << " -> "
                  << shown(item.value) << std::endl;
        return;
    }
    Json::Value line = toJson(item);
    line.removeMember("value");
    line.removeMember("access");
    line["time"] = timestamp();
    line["old"] = jsonOf(before);
    line["new"] = jsonOf(item.value);
    printJson(line, "");
}

/// The items under watch, as last seen.
class Watch {
public:
    Watch(Bus& watchedBus, const Output& changes, const std::vector<std::string>& names)
        : bus(watchedBus), output(changes), watchesAll(names.empty()), items(bus.items()) {
        if (watchesAll)
            return;
        std::vector<Item> named;
        named.reserve(names.size());
        for (const std::string& name : names)
            named.push_back(findItem(items, name));
        items = named;
    }

    /// Reads one object's items again.
    void refreshObject(const std::string& path) {
        for (Item& item : items) {
            if (item.objectPath != path)
                continue;
            Item now = item;
            bus.refresh(now);
            update(item, now);
        }
    }

    /// Reads everything again, after the daemon has started with whatever configuration it has now.
    void refreshAll() {
        std::vector<Item> present;
        try {
            present = bus.items();
        } catch (const Failure& failure) {
            std::cerr << "korvaneinfoctl: " << failure.what() << std::endl;
            return;
        }
        for (Item& item : items) {
            const auto found =
                std::find_if(present.begin(), present.end(), [&](const Item& i) { return i.isSame(item); });
            Item now = item;
            now.value.reset();
            now.error = "is no longer there";
            update(item, found == present.end() ? now : *found);
        }
        for (Item& item : present) {
            if (!watchesAll || std::any_of(items.begin(), items.end(), [&](const Item& i) { return i.isSame(item); }))
                continue;
            items.push_back(item);
            printChange(output, item, std::nullopt);
        }
    }

private:
    /// An item that cannot be read keeps its last value, so that the next change is told against that.
    void update(Item& item, const Item& now) {
        if (!now.error.empty()) {
            std::cerr << "korvaneinfoctl: " << printable(item.shortName() + ": " + now.error) << std::endl;
            return;
        }
        const std::optional<Value> before = item.value;
        item = now;
        if (before != item.value)
            printChange(output, item, before);
    }

    Bus& bus;
    const Output& output;
    bool watchesAll;
    std::vector<Item> items;
};

} // namespace

void watch(Bus& bus, const Output& output, const std::vector<std::string>& names) {
    News news;
    bus.subscribe("type='signal',sender='" + std::string(busName) + "',interface='" + propertiesInterface +
                      "',member='PropertiesChanged'",
                  onPropertiesChanged, &news);
    bus.subscribe("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                  "member='NameOwnerChanged',arg0='" +
                      std::string(busName) + "'",
                  onNameOwnerChanged, &news);
    Watch watched(bus, output, names);
    bus.disableAutostart(); // a daemon that is stopped under watch stays stopped
    if (output.hasLegend)
        std::cerr << "Watching, Ctrl-C ends it.\n";

    while (true) {
        bus.waitAndDispatch();
        const News current = std::exchange(news, {});
        if (current.hasStopped)
            std::cerr << "korvaneinfoctl: the daemon has stopped" << std::endl;
        if (current.hasStarted) {
            std::cerr << "korvaneinfoctl: the daemon has started" << std::endl;
            watched.refreshAll();
        }
        for (const std::string& path : current.changedObjects)
            if (!current.hasStarted)
                watched.refreshObject(path);
    }
}

} // namespace ctl
