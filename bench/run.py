"""Takes every figure of the benchmark and writes them to BUILD/results.json; to be run by scripts/bench.

Usage: run.py BUILD [--quick]
"""

import collections
import datetime
import json
import os
import platform
import re
import shutil
import subprocess
import sys

SOURCE_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WORK = "/run/bench"  # on the tmpfs of the private host
ENTRIES = (1, 20, 200, 1000)
PROFILED_ENTRIES = (20, 1000)
REQUESTS = ("get", "getall", "set")
FULL = {"starts": 25, "rounds": 25, "calls": 400, "profiled": 20, "micro_seconds": 0.5}
QUICK = {"starts": 2, "rounds": 2, "calls": 20, "profiled": 2, "micro_seconds": 0.01}
TIMEOUT = 900  # seconds; only a fault takes so long
WARM_UP = 10  # profiled requests whose cost is subtracted, with that of the start


class Bench:
    """The programs of one build, a bus for each service, and the files they serve."""

    def __init__(self, build, amounts):
        self.programs = os.path.join(build, "bench")
        self.daemon = os.path.join(build, "src", "korvaneinfod")
        self.launcher = os.path.join(build, "config", "korvaneinfod-launch")
        self.amounts = amounts
        self.buses = {}

    def program(self, name):
        """Returns the path of one of the benchmark's own programs."""
        return os.path.join(self.programs, name)

    def service(self, name, entries):
        """Returns the client's arguments for a service."""
        command = {
            "korvaneinfod": [self.daemon, "-c", f"{WORK}/{entries}/board.json"],
            "launched": [shutil.which("env"), f"RUNTIME_DIRECTORY={WORK}/runtime", self.launcher, self.daemon,
                         f"{WORK}/{entries}/board.json"],
            "gdbus": [self.program("gdbus-constant"), str(entries)],
            "sdbus": [self.program("sdbus-constant"), str(entries)],
            "bare": [self.program("bare-start"), f"{WORK}/{entries}/record"],
            "giomm": [self.program("giomm-start"), str(entries), f"{WORK}/{entries}/record"],
        }[name]
        return [name, "-" if name == "bare" else self.bus(name), *command]

    def bus(self, name):
        """Returns the address of a service's own bus; the first call starts it."""
        if name not in self.buses:
            self.buses[name] = subprocess.Popen(
                ["dbus-daemon", f"--config-file={SOURCE_ROOT}/scripts/private-bus.conf",
                 f"--address=unix:path={WORK}/bus-{name}", "--nofork", "--nopidfile", "--print-address=1"],
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            if not self.buses[name].stdout.readline():
                sys.exit(f"bench: the bus for {name} did not start")
        return f"unix:path={WORK}/bus-{name}"

    def client(self, *arguments):
        """Runs the client and returns what it prints."""
        return subprocess.run([self.program("bench-client"), *map(str, arguments)], check=True, text=True,
                              stdout=subprocess.PIPE, timeout=TIMEOUT).stdout

    def request(self, measure, entries, times, service):
        """Starts a service, makes some requests, and ends it."""
        self.client("request", measure, entries, times, "--", *service)

    def close(self):
        """Ends the buses."""
        for bus in self.buses.values():
            bus.kill()
            bus.wait()


def write_configuration(entries):
    """Writes the configuration and the value files: text items, all on one object, each in a file of its own."""
    folder = f"{WORK}/{entries}"
    os.makedirs(folder)
    items = [f"Item{number:04}" for number in range(entries)]
    for item in items:
        with open(f"{folder}/{item}", "w", encoding="ascii") as file:
            file.write("0123456789abcdef\n")
    with open(f"{folder}/board.json", "w", encoding="ascii") as file:
        json.dump([{"name": item, "interface": "Bench", "objectpath": "", "path": f"{folder}/{item}",
                    "location": "par", "offset": "0", "length": 0, "type": "s", "read": True, "write": True,
                    "signal": True} for item in items], file, indent=4)


def record_start(bench, entries):
    """Starts the daemon once and writes down, for the bare loop, the files it read and the messages it sent."""
    folder = f"{WORK}/{entries}"
    # The answer to a Get comes after the last message of the start.
    bench.request("get", entries, 1, bench.service("korvaneinfod", entries))
    subprocess.run(["journalctl", "--sync"], check=True)
    journal = subprocess.run(["journalctl", "--directory=/run/log/journal", "--quiet", "--output=json", "--all",
                              "_TRANSPORT=journal"], check=True, stdout=subprocess.PIPE).stdout
    messages = [json.loads(line) for line in journal.splitlines()]
    # The last process that logged. Its name may be missing, since the journal looks it up when the process has ended.
    messages = [message for message in messages if message["_PID"] == messages[-1]["_PID"]]
    with open(f"{folder}/record", "wb") as record:
        for item in sorted(os.listdir(folder)):
            if item.startswith("Item"):
                record.write(f"file {folder}/{item}\n".encode())
        for message in messages:
            text = message["MESSAGE"].encode()
            record.write(f"message {message['PRIORITY']} {message['CODE_LINE']} {message['CODE_FUNC']} "
                         f"{len(text)}\n".encode() + text)
    return len(messages)


def compare(bench, entries):
    """Returns {measure: {service: [value of each round]}}."""
    def services(*names):
        return [argument for name in names for argument in ("--", *bench.service(name, entries))]

    amounts = bench.amounts
    output = bench.client("starts", amounts["starts"],
                          *services("korvaneinfod", "launched", "gdbus", "sdbus", "giomm", "bare"))
    output += bench.client("compare", entries, amounts["rounds"], amounts["calls"],
                           *services("korvaneinfod", "gdbus", "sdbus"))
    figures = collections.defaultdict(lambda: collections.defaultdict(list))
    for line in output.splitlines():
        measure, service, _, value = line.split()
        figures[measure][service].append(int(value))
    return figures


def instructions_by_library(path):
    """Returns how many instructions callgrind counted in each library, from its uncompressed output."""
    counts = collections.Counter()
    library = None
    is_call = False
    with open(path, encoding="utf-8", errors="replace") as file:
        for line in file:
            if line.startswith("ob="):
                library = re.sub(r"\.so.*|-linux.*", "", os.path.basename(line[3:].strip()))
            elif line.startswith("calls="):
                is_call = True  # the next line is what the callee cost, which is counted there
            elif re.match(r"[0-9+*-]", line):
                if not is_call:
                    counts[library] += int(line.split()[1])
                is_call = False
    return counts


def system_calls(path):
    """Returns how often each system call stands in strace's output."""
    with open(path, encoding="utf-8", errors="replace") as file:
        return collections.Counter(match[1] for match in re.finditer(r"^\d+ +(\w+)\(", file.read(), re.MULTILINE))


def counted(bench, measure, entries, name, times):
    """Returns (instructions by library, system calls) of a service's start with some requests."""
    name, address, *command = bench.service(name, entries)
    tools = (
        ([shutil.which("valgrind"), "--quiet", "--tool=callgrind", "--compress-strings=no", "--compress-pos=no",
          f"--callgrind-out-file={WORK}/profile"], instructions_by_library),
        ([shutil.which("strace"), "-f", "-qq", "--interruptible=waiting", f"--output={WORK}/profile"], system_calls),
    )
    counts = []
    for tool, read in tools:
        bench.request(measure, entries, times, [name, address, *tool, *command])
        counts.append(read(f"{WORK}/profile"))
        os.remove(f"{WORK}/profile")
    return counts


def profile(bench, entries, name):
    """Returns {request: {"instructions": {library: n}, "calls": {system call: n}}} for one request each."""
    times = bench.amounts["profiled"]
    result = {"start": dict(zip(("instructions", "calls"), counted(bench, "get", entries, name, 0)))}
    for measure in REQUESTS:
        before = counted(bench, measure, entries, name, WARM_UP)
        after = counted(bench, measure, entries, name, WARM_UP + times)
        result[measure] = {kind: {key: (last[key] - first[key]) / times for key in last}
                           for kind, first, last in zip(("instructions", "calls"), before, after)}
    return result


def sizes(bench):
    """Returns the size of each service's program without debugging symbols, in bytes."""
    result = {}
    for name in ("korvaneinfod", "gdbus", "sdbus"):
        program = bench.service(name, 1)[2]
        subprocess.run(["strip", "-o", f"{WORK}/stripped", program], check=True)
        result[name] = os.path.getsize(f"{WORK}/stripped")
    return result


def micro(bench):
    """Returns {benchmark: nanoseconds of processor time}; its files are on the tmpfs."""
    output = subprocess.run([bench.program("micro"), "--benchmark_format=json",
                             f"--benchmark_min_time={bench.amounts['micro_seconds']}"],
                            check=True, cwd=WORK, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    results = json.loads(output)["benchmarks"]
    failed = [result["name"] for result in results if result.get("error_occurred")]
    if failed:
        sys.exit(f"bench: micro: {failed[0]} failed")
    return {result["name"]: result["cpu_time"] for result in results}


def machine():
    """Returns what the figures were taken on."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    packages = subprocess.run(["dpkg-query", "-W", "-f", "${source:Package} ${Version}\n", "libglib2.0-0",
                               "libglibmm-2.4-1v5", "libsystemd0", "dbus-daemon", "g++-12"],
                              check=True, stdout=subprocess.PIPE, text=True).stdout.splitlines()
    return {"date": datetime.date.today().isoformat(), "processor": model[1] if model else platform.machine(),
            "processors": os.cpu_count(), "load": os.getloadavg()[0], "kernel": platform.release().split("-")[0],
            "packages": packages}


def main():
    """Takes all figures."""
    quick = "--quick" in sys.argv[2:]
    bench = Bench(os.path.abspath(sys.argv[1]), QUICK if quick else FULL)
    os.mkdir(WORK)
    os.mkdir(f"{WORK}/runtime")  # for the launcher
    results = {"machine": machine(), "amounts": bench.amounts, "messages": {}, "figures": {}, "profiles": {}}
    try:
        for entries in ENTRIES:
            write_configuration(entries)
            results["messages"][entries] = record_start(bench, entries)
        for entries in ENTRIES:
            print(f"bench: comparing, {entries} entries", flush=True)
            results["figures"][entries] = compare(bench, entries)
        print("bench: micro-benchmarks", flush=True)
        results["micro"] = micro(bench)
        results["sizes"] = sizes(bench)
        for entries in PROFILED_ENTRIES[:1] if quick else PROFILED_ENTRIES:
            print(f"bench: counting instructions and system calls, {entries} entries", flush=True)
            results["profiles"][entries] = {name: profile(bench, entries, name)
                                            for name in ("korvaneinfod", "gdbus", "sdbus")}
    finally:
        bench.close()
    with open(os.path.join(sys.argv[1], "results.json"), "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)


main()
