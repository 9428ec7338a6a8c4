#pragma once

#include "Convert.h"
#include "Item.h"

#include <map>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

namespace ctl {

/// Which system bus to ask.
struct Target {
    enum class Place { local, remote, container };
    Place place = Place::local;
    std::string name; ///< [USER@]HOST or the container
};

/// A connection to a system bus, and the requests to the daemon on it. Every request throws Failure.
class Bus {
public:
    explicit Bus(const Target& target);

    /// From now on, a request no longer starts a daemon that does not run.
    void disableAutostart() { autostart = false; }

    /// Returns all items of the daemon, by object path, with their values. An item that cannot be read has its error
    /// instead.
    std::vector<Item> items();

    /// Reads the item's value again; a failure becomes the item's error.
    void refresh(Item& item);

    /// Sets the item's property. Success means only that the daemon has answered.
    void set(const Item& item, const BasicValue& value);

    /// Calls the handler for each signal that fits the match rule, in `waitAndDispatch`.
    void subscribe(const std::string& rule, sd_bus_message_handler_t handler, void* data);

    /// Handles what has arrived; waits when nothing has.
    void waitAndDispatch();

private:
    using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

    Message newCall(const std::string& path, const char* interface, const char* method);
    Message call(sd_bus_message* request);
    void collect(const std::string& path, std::vector<Item>& items);
    std::string introspect(const std::string& path);
    std::map<std::string, Value> getAll(const std::string& path, const std::string& interface);
    [[noreturn]] void fail(int error, const std::string& what) const;

    std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)> bus;
    std::string place; ///< in words, for messages
    bool autostart = true;
};

} // namespace ctl
