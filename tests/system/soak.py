"""Soak: mixed requests from 16 concurrent clients, some of which vanish in mid-call or send rubbish.

Each item has one writer, which sets it to ascending numbers. Its own Get must answer exactly what it set last, since
the calls of one connection are kept in order. Another client's Get must answer at least the last number that had been
answered for when the Get was sent, and at most the last one sent when its reply comes.
"""

import argparse
import os
import random
import statistics
import sys
import tempfile
import time
from collections import Counter

from gi.repository import Gio, GLib

from testbed import BUS_NAME, INTERFACE, PROPERTIES, ROOT, TIMEOUT, TestBed, wait_until

CLIENTS = 16
IN_FLIGHT = 8  # calls of each client
ITEMS = 2 * CLIENTS  # one text and one number for each writer
BOARD = INTERFACE + ".Board"
INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
UNKNOWN_PROPERTY = "org.freedesktop.DBus.Error.UnknownProperty"
LENGTHS = [0, 10, 10, 10, 500, 2000]  # of the rest of a text
# A leak of 33 bytes in each of 20000 requests would show; what the C library keeps for later comes and goes by less.
ALLOWED_GROWTH = 384 * 1024
# And it keeps little: memory goes back at once, for otherwise the process has what it once needed when it was busiest.
THRIFTY_MALLOC = {"GLIBC_TUNABLES": "glibc.malloc.arena_max=1:glibc.malloc.tcache_count=0:"
                                    "glibc.malloc.mmap_threshold=32768:glibc.malloc.trim_threshold=4096"}


class Item:
    """What may be answered for one item."""

    def __init__(self, number):
        self.name = f"Item{number}"
        self.path = f"{ROOT}/Group{number % 4}"
        self.type = "si"[number % 2]
        self.sent = 0
        self.answered = 0  # the last one the writer has a reply for
        self.in_order = 0  # the last one that is ahead of whatever the writer sends now

    def value(self, number):
        """Returns the number, or the text that goes with it, which is sometimes a long one."""
        return number if self.type == "i" else f"{number} " + "x" * LENGTHS[number % len(LENGTHS)]

    def next_value(self):
        """Returns a variant for the next number."""
        self.sent += 1
        return GLib.Variant(self.type, self.value(self.sent))

    def check(self, value, lowest, highest=None):
        """Checks a value that was answered against the lowest and the highest number that it may hold."""
        number = int(str(value).split(" ", maxsplit=1)[0])
        highest = self.sent if highest is None else highest
        assert lowest <= number <= highest, f"{self.name}: {number} is not in {lowest} to {highest}"
        assert value == self.value(number), f"{self.name}: {value!r} was never set"


class Client:
    """One client, with its connection and its calls in flight."""

    def __init__(self, soak, number):
        self.soak = soak
        self.random = random.Random(f"{soak.seed} {number}")
        self.own = soak.items[2 * number: 2 * number + 2]
        self.in_flight = 0
        self.pending = set()  # the calls that still have to be answered
        self.connection = soak.bed.bus.connect()

    def fill(self):
        """Sends calls until enough are in flight or the soak has sent all."""
        while self.connection is not None and len(self.pending) < IN_FLIGHT and self.soak.take_one():
            if self.random.random() < 0.0005:
                self.vanish()
            else:
                self.random.choices(*KINDS)[0](self)

    def call(self, path, interface, method, parameters, check):
        """Sends a call; `check` gets the result, or the name of the error, when it is answered."""
        token = object()
        self.pending.add(token)
        connection = self.connection

        def answered(_connection, result):
            if connection is not self.connection:
                return  # it vanished before
            try:
                reply, error = connection.call_finish(result).unpack(), None
            except GLib.Error as failure:
                reply, error = None, Gio.DBusError.get_remote_error(failure) or failure.message
            self.pending.remove(token)
            self.soak.answered += 1
            self.soak.guard(check, reply, error)
            self.soak.guard(self.fill)

        connection.call(BUS_NAME, path, interface, method, parameters, None, Gio.DBusCallFlags.NO_AUTO_START,
                        TIMEOUT * 1000, None, answered)

    def come_back(self):
        self.connection = self.soak.bed.bus.connect()
        self.fill()

    def expect_error(self, name, path, interface, method, parameters=None):
        def check(reply, error):
            assert error == name, f"{method} on {path} {interface}: {error or reply} instead of {name}"
            self.soak.counts[name.rsplit(".", maxsplit=1)[-1]] += 1
        self.call(path, interface, method, parameters, check)

    def get(self):
        """Gets an item of any writer."""
        item = self.random.choice(self.soak.items)
        lowest = item.answered

        def check(reply, error):
            assert error is None, error
            item.check(reply[0], lowest)
            self.soak.counts["Get"] += 1
        self.call(item.path, PROPERTIES, "Get", GLib.Variant("(ss)", (BOARD, item.name)), check)

    def get_own(self):
        """Gets an item that only this client sets."""
        item = self.random.choice(self.own)
        lowest, highest = item.in_order, item.sent

        def check(reply, error):
            assert error is None, error
            item.check(reply[0], lowest, highest)
            self.soak.counts["Get of the client's own item"] += 1
        self.call(item.path, PROPERTIES, "Get", GLib.Variant("(ss)", (BOARD, item.name)), check)

    def get_all(self):
        path = self.random.choice(self.soak.items).path
        lowest = {item: item.answered for item in self.soak.items if item.path == path}

        def check(reply, error):
            assert error is None, error
            for item, number in lowest.items():
                item.check(reply[0][item.name], number)
            self.soak.counts["GetAll"] += 1
        self.call(path, PROPERTIES, "GetAll", GLib.Variant("(s)", (BOARD,)), check)

    def set(self):
        item = self.random.choice(self.own)
        value = item.next_value()
        number = item.in_order = item.sent

        def check(_reply, error):
            assert error is None, error
            item.answered = max(item.answered, number)
            self.soak.counts["Set"] += 1
        self.call(item.path, PROPERTIES, "Set", GLib.Variant("(ssv)", (BOARD, item.name, value)), check)

    def set_wrong_type(self):
        item = self.random.choice(self.soak.items)
        value = self.random.choice([GLib.Variant("d", 1.5), GLib.Variant("as", ["x"] * 100), GLib.Variant("b", True)])
        self.expect_error(INVALID_ARGS, item.path, PROPERTIES, "Set", GLib.Variant("(ssv)", (BOARD, item.name, value)))

    def get_unknown(self):
        name = self.random.choice(["Nope", "", "x" * 255, "x" * 100000, "Item1\n", "ä"])
        interface = self.random.choice([BOARD, BOARD, BOARD + "x" * 300, ""])
        self.expect_error(INVALID_ARGS, ROOT + "/Group0", PROPERTIES, "Get", GLib.Variant("(ss)", (interface, name)))

    def get_unknown_path(self):
        path = ROOT + self.random.choice(["/Nope", "/Group0/Deep", "/" + "x" * 2000])
        self.expect_error(UNKNOWN_METHOD, path, PROPERTIES, "Get", GLib.Variant("(ss)", (BOARD, "Item0")))

    def get_of_another_interface(self):
        """The entry is declared under the interface of the first entry on its path, and is not found there."""
        self.expect_error(UNKNOWN_PROPERTY, ROOT, PROPERTIES, "Get", GLib.Variant("(ss)", (BOARD, "Stray")))

    def call_rubbish(self):
        method = self.random.choice(["Frobnicate", "Get", "x" * 255, "Item0"])
        parameters = self.random.choice([None, GLib.Variant("(s)", ("x",)), GLib.Variant("(aay)", ([b"x"] * 50,))])
        interface = self.random.choice([BOARD, "com.example.Unknown", INTERFACE])
        self.expect_error(UNKNOWN_METHOD, ROOT + "/Group1", interface, method, parameters)

    def vanish(self):
        """Closes the connection with calls in flight. A new one is made once the bus has forgotten the old one, so
        that nothing of the old one can arrive behind what the new one sends."""
        self.soak.counts["vanished with calls in flight"] += bool(self.pending)
        item = self.own[0]
        old = self.connection
        name = old.get_unique_name()
        value = GLib.Variant("(ssv)", (BOARD, item.name, item.next_value()))
        old.call(BUS_NAME, item.path, PROPERTIES, "Set", value, None, Gio.DBusCallFlags.NO_AUTO_START, -1, None, None)
        old.flush(None, lambda connection, result: connection.flush_finish(result) and connection.close(None, None))
        self.connection = None
        for own in self.own:
            own.in_order = own.answered  # what was in flight may have been lost
        self.soak.answered += len(self.pending) + 1
        self.pending.clear()
        bus = self.soak.bed.bus.connection

        def gone(*_):
            bus.signal_unsubscribe(subscription)
            self.soak.guard(self.come_back)

        subscription = bus.signal_subscribe("org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                                            "/org/freedesktop/DBus", name, Gio.DBusSignalFlags.NONE, gone)


KINDS = ([Client.get, Client.get_own, Client.set, Client.get_all, Client.set_wrong_type, Client.get_unknown,
          Client.get_unknown_path, Client.get_of_another_interface, Client.call_rubbish],
         [24, 24, 35, 3, 3, 4, 2, 1, 4])


class Soak:
    """One run against one daemon."""

    def __init__(self, bed, requests, seed, progress=None):
        self.bed = bed
        self.seed = seed
        self.requests = requests
        self.progress = progress
        self.sent = self.answered = 0
        self.counts = Counter()
        self.failures = []  # what callbacks found
        self.samples = []  # of (answered, private memory)
        self.new_descriptors = None
        self.items = [Item(number) for number in range(ITEMS)]
        self.daemon = bed.start([*map(self.entry, self.items), *self.strays()], env=THRIFTY_MALLOC)

    def entry(self, item):
        return {"name": item.name, "interface": "Board", "objectpath": item.path.removeprefix(ROOT + "/"),
                "path": self.bed.file(item.name, f"{item.value(0)}\n"), "location": "par", "type": item.type, "read": True,
                "write": True, "signal": True}

    def strays(self):
        entry = {"path": "", "location": "par", "type": "s", "read": True}
        return [dict(entry, name="Root", interface="Board"), dict(entry, name="Stray", interface="Other")]

    def take_one(self):
        """Counts one more call as sent, unless all have been."""
        if self.sent == self.requests:
            return False
        self.sent += 1
        return True

    def guard(self, function, *arguments):
        """Calls a function from a callback, which would lose its exception."""
        try:
            function(*arguments)
        except Exception as failure:
            self.failures.append(failure)

    def run(self):
        """Sends everything, waits for every answer, and returns the seconds it took."""
        begin = time.monotonic()
        descriptors = open_descriptors(self.daemon)
        clients = [Client(self, number) for number in range(CLIENTS)]
        steps = 20
        for client in clients:
            client.fill()
        for step in range(1, steps + 1):
            goal = self.requests * step // steps
            while self.answered < goal:
                before = self.answered
                wait_until(lambda: self.failures or self.answered >= min(goal, before + 1000), "replies")
                if self.failures:
                    raise self.failures[0]
                assert self.daemon.process.poll() is None, "the daemon has ended"
            self.samples.append((self.answered, private_memory(self.daemon)))
            if self.progress is not None:
                print(*self.samples[-1], file=self.progress, flush=True)
        assert self.answered == self.requests and not any(client.pending for client in clients)
        self.new_descriptors = open_descriptors(self.daemon) - descriptors
        return time.monotonic() - begin

    def growth(self):
        """Returns by how many bytes of private memory the last fifth of the run is above the second fifth, median to
        median. The first fifth is for warming up."""
        memory = [memory for _, memory in self.samples]
        return statistics.median(memory[16:]) - statistics.median(memory[4:8])

    def check_leftovers(self):
        """Checks that neither descriptors nor memory have been left behind."""
        assert self.new_descriptors == 0, f"{self.new_descriptors} descriptors are left open"
        assert is_sanitized(self.daemon) or self.growth() < ALLOWED_GROWTH, f"memory has grown: {self.samples}"

    def check_last_values(self):
        """Checks that what is in the files and what is answered now is one of what was set last."""
        for item in self.items:
            value = self.bed.get(item.path, BOARD, item.name).unpack()
            item.check(value, item.answered)
            with open(os.path.join(self.bed.directory, item.name), encoding="utf-8") as file:
                assert file.read() == f"{value}\n", item.name


def private_memory(daemon):
    """Returns the bytes of memory that this process has written. Pages of libraries that it only reads count or not,
    as other processes come and go that use them, too."""
    with open(f"/proc/{daemon.process.pid}/smaps_rollup", encoding="ascii") as file:
        fields = dict(line.split(":", 1) for line in file.read().splitlines()[1:])
    return int(fields["Private_Dirty"].split()[0]) * 1024


def is_sanitized(daemon):
    """Returns whether the address sanitizer is in the process. It keeps freed memory on purpose, so that growth says
    nothing; it tells of leaks itself at the end."""
    with open(f"/proc/{daemon.process.pid}/maps", encoding="utf-8") as file:
        return "libasan" in file.read()


def open_descriptors(daemon):
    return len(os.listdir(f"/proc/{daemon.process.pid}/fd"))


def main():
    parser = argparse.ArgumentParser(description="Soaks the daemon in mixed requests and reports what it did.")
    parser.add_argument("requests", nargs="?", type=int, default=1000000)
    parser.add_argument("--seed", type=int, default=1)
    arguments = parser.parse_args()
    if arguments.requests < 1000:
        parser.error("at least 1000 requests, or memory says nothing")
    bed = TestBed(tempfile.mkdtemp(prefix="korvaneinfod-soak-"))
    try:
        print("answered, bytes of private memory:")
        soak = Soak(bed, arguments.requests, arguments.seed, sys.stdout)
        seconds = soak.run()
        for name, count in sorted(soak.counts.items()):
            print(f"{name}: {count}")
        print(f"{arguments.requests} requests in {seconds:.0f} s")
        print(f"growth: {soak.growth()} bytes, {soak.new_descriptors} descriptors")
        soak.check_last_values()
        soak.check_leftovers()
        assert not soak.daemon.stderr(), soak.daemon.stderr()
    finally:
        bed.close()


if __name__ == "__main__":
    main()
