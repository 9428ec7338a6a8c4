#include "Bus.h"

#include "Introspection.h"
#include "Names.h"

#include <algorithm>
#include <cmath>
#include <system_error>

namespace ctl {

namespace {

/// Keeps a daemon gone wrong from having the walk go on for ever.
constexpr std::size_t longestPath = 4096;

/// Frees what a D-Bus error holds.
struct Error : sd_bus_error {
    Error() : sd_bus_error{nullptr, nullptr, 0} {}
    ~Error() { sd_bus_error_free(this); }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    Error(Error&&) = delete;
    Error& operator=(Error&&) = delete;
};

void check(int result, const std::string& what) {
    if (result < 0)
        throw Failure(what + ": " + std::generic_category().message(-result));
}

template <typename T> T read(sd_bus_message* message, char type) {
    T value{};
    check(sd_bus_message_read_basic(message, type, &value), "cannot read the answer");
    return value;
}

Value realValue(double number) {
    const std::string text = shortest(number);
    return {text, std::isfinite(number) ? Json::Value(number) : Json::Value(text)};
}

template <typename T> Value integerValue(T number) { return {std::to_string(number), Json::Value(number)}; }

/// Reads the content of a variant that has been entered.
Value readValue(sd_bus_message* message, const std::string& signature) {
    switch (signature.size() == 1 ? signature.front() : '\0') {
    case 'b': {
        const bool isTrue = read<int>(message, 'b') != 0;
        return {isTrue ? "true" : "false", Json::Value(isTrue)};
    }
    case 'd':
        return realValue(read<double>(message, 'd'));
    case 'i':
        return integerValue(read<std::int32_t>(message, 'i'));
    case 'u':
        return integerValue(read<std::uint32_t>(message, 'u'));
    case 's': {
        const char* const text = read<const char*>(message, 's');
        return {text, Json::Value(text)};
    }
    default: // not of this daemon
        check(sd_bus_message_skip(message, signature.c_str()), "cannot read the answer");
        return {"(type " + signature + ")", Json::Value()};
    }
}

Value readVariant(sd_bus_message* message) {
    const char* signature = nullptr;
    check(sd_bus_message_peek_type(message, nullptr, &signature), "cannot read the answer");
    const std::string kept = signature == nullptr ? "" : signature;
    check(sd_bus_message_enter_container(message, 'v', kept.c_str()), "cannot read the answer");
    Value value = readValue(message, kept);
    check(sd_bus_message_exit_container(message), "cannot read the answer");
    return value;
}

std::string describe(const Target& target) {
    return target.name.empty() ? "the system bus" : "the system bus of " + target.name;
}

sd_bus* open(const Target& target) {
    sd_bus* bus = nullptr;
    int result = 0;
    switch (target.place) {
    case Target::Place::local:
        result = sd_bus_open_system_with_description(&bus, "korvaneinfoctl");
        break;
    case Target::Place::remote:
        result = sd_bus_open_system_remote(&bus, target.name.c_str());
        break;
    case Target::Place::container:
        result = sd_bus_open_system_machine(&bus, target.name.c_str());
        break;
    }
    check(result, "no connection to " + describe(target));
    return bus;
}

std::string explanation(const sd_bus_error& error) {
    const std::string name = error.name;
    const std::string text = error.message == nullptr ? "" : error.message;
    if (name == SD_BUS_ERROR_SERVICE_UNKNOWN || name == SD_BUS_ERROR_NAME_HAS_NO_OWNER)
        return "the daemon is not running (" + text + ")";
    if (name == SD_BUS_ERROR_NO_REPLY || name == SD_BUS_ERROR_DISCONNECTED)
        return "the daemon has ended or does not answer, `korvaneinfoctl check` on its configuration may tell why (" +
               text + ")";
    return text.empty() ? name : text;
}

} // namespace

Bus::Bus(const Target& target) : bus(open(target), &sd_bus_flush_close_unref), place(describe(target)) {}

void Bus::fail(int error, const std::string& what) const {
    const int number = -error;
    if (number == ECONNRESET || number == ENOTCONN || number == EPIPE || number == ESHUTDOWN)
        throw Failure("no connection to " + place + ": " + std::generic_category().message(number));
    throw Failure(what + ": " + std::generic_category().message(number));
}

Bus::Message Bus::newCall(const std::string& path, const char* interface, const char* method) {
    sd_bus_message* message = nullptr;
    const int result = sd_bus_message_new_method_call(bus.get(), &message, busName, path.c_str(), interface, method);
    if (result < 0)
        fail(result, path);
    Message owned(message, &sd_bus_message_unref);
    check(sd_bus_message_set_auto_start(message, autostart ? 1 : 0), "cannot make a request");
    return owned;
}

Bus::Message Bus::call(sd_bus_message* request) {
    Error error;
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call(bus.get(), request, 0, &error, &reply);
    if (result >= 0)
        return {reply, &sd_bus_message_unref};
    if (sd_bus_error_is_set(&error) == 0 || sd_bus_is_open(bus.get()) <= 0)
        fail(result, "the request failed");
    throw Failure(explanation(error));
}

std::string Bus::introspect(const std::string& path) {
    const Message request = newCall(path, "org.freedesktop.DBus.Introspectable", "Introspect");
    return read<const char*>(call(request.get()).get(), 's');
}

std::map<std::string, Value> Bus::getAll(const std::string& path, const std::string& interface) {
    const Message request = newCall(path, propertiesInterface, "GetAll");
    check(sd_bus_message_append(request.get(), "s", interface.c_str()), "cannot make a request");
    const Message reply = call(request.get());
    std::map<std::string, Value> values;
    check(sd_bus_message_enter_container(reply.get(), 'a', "{sv}"), "cannot read the answer");
    while (sd_bus_message_enter_container(reply.get(), 'e', "sv") > 0) {
        const std::string name = read<const char*>(reply.get(), 's');
        values.emplace(name, readVariant(reply.get()));
        check(sd_bus_message_exit_container(reply.get()), "cannot read the answer");
    }
    return values;
}

void Bus::collect(const std::string& path, std::vector<Item>& items) {
    Introspection introspection;
    try {
        introspection = parseIntrospection(introspect(path));
    } catch (const Failure&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw Failure("the introspection data of " + path + " is broken: " + error.what());
    }
    std::map<std::string, std::map<std::string, Value>> values; // by interface
    for (const DeclaredProperty& property : introspection.properties) {
        if (property.interface.rfind(std::string(interfaceBaseName) + ".", 0) != 0)
            continue;
        if (values.find(property.interface) == values.end())
            values.emplace(property.interface, getAll(path, property.interface));
        Item item{path, property.interface, property.name, property.signature, property.access, {}, {}};
        const auto& known = values[property.interface];
        if (const auto found = known.find(property.name); found != known.end())
            item.value = found->second;
        else
            refresh(item); // tells why it is not there
        items.push_back(item);
    }
    std::vector<std::string> children = introspection.children;
    std::sort(children.begin(), children.end());
    for (const std::string& child : children) {
        std::string childPath = path;
        childPath.append("/").append(child);
        if (childPath.size() <= longestPath && sd_bus_object_path_is_valid(childPath.c_str()) > 0)
            collect(childPath, items);
    }
}

std::vector<Item> Bus::items() {
    std::vector<Item> items;
    collect(rootObjectPath, items);
    return items;
}

void Bus::refresh(Item& item) {
    item.value.reset();
    item.error.clear();
    if (!item.isReadable())
        return;
    try {
        const Message request = newCall(item.objectPath, propertiesInterface, "Get");
        check(sd_bus_message_append(request.get(), "ss", item.interface.c_str(), item.name.c_str()),
              "cannot make a request");
        item.value = readVariant(call(request.get()).get());
    } catch (const Failure& failure) {
        item.error = failure.what();
    }
}

void Bus::set(const Item& item, const BasicValue& value) {
    const Message request = newCall(item.objectPath, propertiesInterface, "Set");
    check(sd_bus_message_append(request.get(), "ss", item.interface.c_str(), item.name.c_str()),
          "cannot make a request");
    check(sd_bus_message_open_container(request.get(), 'v', item.signature.c_str()), "cannot make a request");
    const char type = item.signature.front();
    const auto append = [&](const auto& basic) {
        if constexpr (std::is_same_v<std::decay_t<decltype(basic)>, std::string>)
            return sd_bus_message_append_basic(request.get(), type, basic.c_str());
        else
            return sd_bus_message_append_basic(request.get(), type, &basic);
    };
    check(std::visit(append, value), "the value cannot be sent");
    check(sd_bus_message_close_container(request.get()), "cannot make a request");
    call(request.get());
}

void Bus::subscribe(const std::string& rule, sd_bus_message_handler_t handler, void* data) {
    const int result = sd_bus_add_match(bus.get(), nullptr, rule.c_str(), handler, data);
    if (result < 0)
        fail(result, "cannot subscribe to signals");
}

void Bus::waitAndDispatch() {
    const int handled = sd_bus_process(bus.get(), nullptr);
    if (handled < 0)
        fail(handled, "cannot read from the bus");
    if (handled > 0)
        return;
    const int woken = sd_bus_wait(bus.get(), UINT64_MAX);
    if (woken < 0 && woken != -EINTR)
        fail(woken, "cannot wait for the bus");
}

} // namespace ctl
