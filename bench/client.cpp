// Measures services that publish the same items, each on a bus of its own. The calls go round the services in turn, so
// that whatever the machine does meanwhile meets all of them.
//
// bench-client starts ROUNDS SERVICE...
// bench-client compare ENTRIES ROUNDS CALLS SERVICE...
//     print a line "MEASURE SERVICE ROUND VALUE" for each figure; times in nanoseconds, memory in bytes
// bench-client request MEASURE ENTRIES TIMES SERVICE
//     only makes the calls, for a service under a profiler
//
// Each SERVICE is "--", a name, a bus address and a command. The bus address "-" stands for a program that serves
// nothing and is only timed until it ends.
#include "items.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <system_error>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::int64_t;

constexpr unsigned inFlight = 64;
constexpr std::uint64_t checkInterval = 1'000'000; ///< microseconds between looks for a process that waits in vain
constexpr const char* properties = "org.freedesktop.DBus.Properties";

int check(int result, const std::string& what) {
    if (result < 0)
        throw std::system_error(-result, std::generic_category(), what);
    return result;
}

struct Unref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, Unref>;
using Message = std::unique_ptr<sd_bus_message, Unref>;

Bus connect(const std::string& address) {
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus), "bus");
    Bus owned(bus);
    check(sd_bus_set_address(bus, address.c_str()), address);
    check(sd_bus_set_bus_client(bus, 1), address);
    check(sd_bus_start(bus), address);
    return owned;
}

class Service {
public:
    Service(std::string serviceName, const std::string& address, std::vector<char*> serviceCommand)
        : name(std::move(serviceName)), command(std::move(serviceCommand)) {
        command.push_back(nullptr);
        if (address == "-")
            return;
        bus = connect(address);
        environment = "DBUS_SYSTEM_BUS_ADDRESS=" + address;
        check(sd_bus_match_signal(bus.get(), nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "NameOwnerChanged", &onNameOwnerChanged, this),
              "match");
    }
    ~Service() { endProcess(); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    Service(Service&&) = delete;
    Service& operator=(Service&&) = delete;

    /// Starts the process; returns when it owns its name or, without a bus, when it has ended.
    void start() {
        std::array<char*, 2> variables{environment.data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        check(-posix_spawn(&pid, command[0], &actions, nullptr, command.data(), variables.data()), command[0]);
        posix_spawn_file_actions_destroy(&actions);
        if (bus)
            waitUntilOwned(true);
        else if (waitForEnd() != 0)
            throw std::runtime_error(name + " failed");
    }

    /// Ends the process; returns when its name is free again.
    void stop() {
        endProcess();
        if (bus)
            waitUntilOwned(false);
    }

    /// Bytes of one field of the process's memory summary.
    [[nodiscard]] std::int64_t memory(std::string_view field) const {
        std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
        std::int64_t bytes = 0;
        for (std::string line; std::getline(rollup, line);)
            if (line.compare(0, field.size(), field) == 0)
                bytes += std::stoll(line.substr(line.find(':') + 1)) * 1024;
        return bytes;
    }

    const std::string name;
    Bus bus;

private:
    static int onNameOwnerChanged(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        const char* changed = nullptr;
        const char* from = nullptr;
        const char* to = nullptr;
        check(sd_bus_message_read(message, "sss", &changed, &from, &to), "NameOwnerChanged");
        if (std::string_view(changed) == BENCH_NAME)
            static_cast<Service*>(data)->isOwned = *to != '\0';
        return 0;
    }

    void waitUntilOwned(bool wanted) const {
        while (isOwned != wanted) {
            if (check(sd_bus_process(bus.get(), nullptr), "process") == 0)
                check(sd_bus_wait(bus.get(), checkInterval), "wait");
            if (wanted && hasEnded())
                throw std::runtime_error(name + " ended before it had its name");
        }
    }

    [[nodiscard]] bool hasEnded() const {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
    }

    void endProcess() {
        if (pid == 0)
            return;
        kill(pid, SIGTERM);
        waitForEnd();
    }

    /// Returns the status of the process as wait(2) gives it.
    int waitForEnd() {
        int status = 0;
        waitpid(pid, &status, 0);
        pid = 0;
        return status;
    }

    std::vector<char*> command;
    std::string environment;
    pid_t pid = 0;
    bool isOwned = false;
};
using Services = std::vector<Service*>; ///< in the order of the arguments

/// Makes the calls of one kind of request.
class Request {
public:
    Request(std::string_view measure, unsigned entries) : item(itemName(entries - 1)) {
        if (measure == "get")
            make = &Request::get;
        else if (measure == "getall")
            make = &Request::getAll;
        else if (measure == "set")
            make = &Request::set;
        else if (measure == "inflight")
            make = &Request::getInFlight;
        else
            throw std::invalid_argument("unknown measure: " + std::string(measure));
    }

    void operator()(sd_bus* bus) const { (this->*make)(bus); }

private:
    static Message newCall(sd_bus* bus, const char* method) {
        sd_bus_message* call = nullptr;
        check(sd_bus_message_new_method_call(bus, &call, BENCH_NAME, BENCH_PATH, properties, method), method);
        return Message(call);
    }

    static void send(sd_bus* bus, const Message& call) {
        sd_bus_message* reply = nullptr;
        check(sd_bus_call(bus, call.get(), 0, nullptr, &reply), "call");
        sd_bus_message_unref(reply);
    }

    [[nodiscard]] Message newGet(sd_bus* bus) const {
        Message call = newCall(bus, "Get");
        check(sd_bus_message_append(call.get(), "ss", BENCH_INTERFACE, item.c_str()), "Get");
        return call;
    }

    void get(sd_bus* bus) const { send(bus, newGet(bus)); }

    void getAll(sd_bus* bus) const {
        const Message call = newCall(bus, "GetAll");
        check(sd_bus_message_append(call.get(), "s", BENCH_INTERFACE), "GetAll");
        send(bus, call);
    }

    void set(sd_bus* bus) const {
        const Message call = newCall(bus, "Set");
        check(sd_bus_message_append(call.get(), "ssv", BENCH_INTERFACE, item.c_str(), "s", BENCH_VALUE), "Set");
        send(bus, call);
    }

    void getInFlight(sd_bus* bus) const {
        unsigned answered = 0;
        const auto onReply = [](sd_bus_message* reply, void* data, sd_bus_error* /*error*/) {
            check(-sd_bus_message_get_errno(reply), "Get");
            ++*static_cast<unsigned*>(data);
            return 0;
        };
        for (unsigned i = 0; i < inFlight; ++i)
            check(sd_bus_call_async(bus, nullptr, newGet(bus).get(), onReply, &answered, 0), "Get");
        while (answered < inFlight)
            if (check(sd_bus_process(bus, nullptr), "process") == 0)
                check(sd_bus_wait(bus, UINT64_MAX), "wait");
    }

    std::string item;
    void (Request::*make)(sd_bus*) const = nullptr;
};

template <typename Function> Nanoseconds timeOf(const Function& function) {
    const auto begin = Clock::now();
    function();
    return std::chrono::nanoseconds(Clock::now() - begin).count();
}

void print(const std::string& measure, const Service& service, unsigned round, std::int64_t value) {
    std::cout << measure << ' ' << service.name << ' ' << round << ' ' << value << '\n';
}

/// Calls the function with the number of each service, in another order each time, since each call leaves the caches to
/// the next. The orders are the same in every run.
template <typename Function> void takeTurns(const Services& services, const Function& function) {
    static std::minstd_rand random;
    std::vector<std::size_t> order(services.size());
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), random);
    std::for_each(order.begin(), order.end(), function);
}

void printMemory(const Service& service, const std::string& when, unsigned round) {
    print("resident-" + when, service, round, service.memory("Rss:"));
    // Not the clean pages: those of a library count as private for as long as nobody else happens to use it.
    print("private-" + when, service, round, service.memory("Private_Dirty:"));
}

void compareStarts(const Services& services, unsigned rounds) {
    for (unsigned round = 0; round < rounds; ++round) {
        takeTurns(services, [&](std::size_t i) {
            Service& service = *services[i];
            print("start", service, round, timeOf([&] { service.start(); }));
            if (service.bus)
                printMemory(service, "idle", round);
            service.stop();
        });
    }
}

void compareRequests(const Services& services, const std::string& measure, unsigned entries, unsigned round,
                     unsigned calls) {
    const Request request(measure, entries);
    std::vector<std::vector<Nanoseconds>> times(services.size());
    for (unsigned call = 0; call < calls; ++call) {
        takeTurns(services,
                  [&](std::size_t i) { times[i].push_back(timeOf([&] { request(services[i]->bus.get()); })); });
    }
    for (std::size_t i = 0; i < services.size(); ++i) {
        std::sort(times[i].begin(), times[i].end());
        print(measure + "-p50", *services[i], round, times[i][calls / 2]);
        print(measure + "-p99", *services[i], round, times[i][calls * 99 / 100]);
    }
}

void compare(const Services& services, unsigned entries, unsigned rounds, unsigned calls) {
    for (Service* service : services)
        service->start();
    for (unsigned round = 0; round < rounds; ++round) {
        compareRequests(services, "get", entries, round, calls);
        compareRequests(services, "getall", entries, round, std::max(1U, calls / 10));
        compareRequests(services, "set", entries, round, calls);
        compareRequests(services, "inflight", entries, round, std::max(1U, calls / 20));
        for (const Service* service : services)
            printMemory(*service, "served", round);
    }
}

void makeRequests(const std::string& measure, unsigned entries, unsigned times, Service& service) {
    const Request request(measure, entries);
    service.start();
    for (unsigned i = 0; i < times; ++i)
        request(service.bus.get());
}

/// Takes the services from the arguments behind the first "--".
std::vector<std::unique_ptr<Service>> servicesFrom(const std::vector<char*>& arguments) {
    const auto isSeparator = [](std::string_view argument) { return argument == "--"; };
    std::vector<std::unique_ptr<Service>> services;
    for (auto begin = std::find_if(arguments.begin(), arguments.end(), isSeparator); begin != arguments.end();) {
        const auto end = std::find_if(++begin, arguments.end(), isSeparator);
        if (end - begin < 3)
            throw std::invalid_argument("a service is: -- NAME ADDRESS COMMAND...");
        services.push_back(std::make_unique<Service>(begin[0], begin[1], std::vector<char*>(begin + 2, end)));
        begin = end;
    }
    return services;
}

unsigned number(const char* text) {
    const int value = std::stoi(text);
    if (value < 0)
        throw std::invalid_argument(std::string("negative: ") + text);
    return static_cast<unsigned>(value);
}

void run(const std::vector<char*>& arguments) {
    const auto owned = servicesFrom(arguments);
    Services services;
    for (const auto& service : owned)
        services.push_back(service.get());
    const std::string_view mode = arguments.size() > 5 ? arguments[1] : "";
    if (mode == "starts")
        compareStarts(services, number(arguments[2]));
    else if (mode == "compare")
        compare(services, number(arguments[2]), number(arguments[3]), number(arguments[4]));
    else if (mode == "request" && services.size() == 1)
        makeRequests(arguments[2], number(arguments[3]), number(arguments[4]), *services.front());
    else
        throw std::invalid_argument("usage: see the head of client.cpp");
}

} // namespace

int main(int argc, char* argv[]) {
    try {
        run(std::vector<char*>(argv, argv + argc));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "bench-client: " << error.what() << '\n';
        return 1;
    }
}
