"""Faults while the daemon serves: what it answers, and what is left behind. docs/reliability.md has the table.

FAULT_MOMENTS sets at how many moments of a Set the daemon is killed.
"""

import json
import os
import random
import select
import signal
import socket
import subprocess
import time
from collections import Counter

import pytest
from gi.repository import Gio, GLib

from testbed import BUS_NAME, INTERFACE, PROPERTIES, ROOT, SOURCE_ROOT, TIMEOUT, Signals, wait_until

BOARD = INTERFACE + ".Board"
HUNG = 500  # milliseconds after which a daemon that is to hang counts as hanging
MOMENTS = int(os.environ.get("FAULT_MOMENTS", "40"))
CANNOT_OPEN = (3, "src/ConfigFileParser.cpp", 191, "updateValueInPathFile", "setProperty: Unable to access file")
CONNECTION_LOST = (7, "src/dbus/DBusServices.cpp", 460, "onNameLost", "connection lost")


def entry(name, path):
    return {"name": name, "interface": "Board", "path": path, "location": "par", "type": "s", "read": True,
            "write": True}


def read(path):
    with open(path, "rb") as file:
        return file.read()


def look(path):
    """Returns what is at a path: a file's content, a link's target, a folder's content or nothing."""
    if os.path.islink(path):
        return "link", os.readlink(path)
    if os.path.isdir(path):
        return "folder", os.listdir(path)
    return ("file", read(path)) if os.path.exists(path) else None


def get(bed, name="Item"):
    return bed.get(ROOT, BOARD, name).unpack()


def set_text(bed, text, name="Item"):
    bed.set(ROOT, BOARD, name, GLib.Variant("s", text))


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


@pytest.fixture
def small_disk(bed):
    """A file system of two pages and three files, which a test can fill."""
    return bed.tmpfs("disk", f"size={2 * os.sysconf('SC_PAGE_SIZE')},nr_inodes=3")


def fill(folder, pages):
    with open(os.path.join(folder, "filler"), "wb") as file:
        file.write(b"x" * pages * os.sysconf("SC_PAGE_SIZE"))


def restart(bed):
    """Ends the last daemon and starts one with the same configuration."""
    bed.daemons[-1].kill()
    wait_until(lambda: bed.bus.owner(BUS_NAME) is None, "the end of the old daemon's name")
    daemon = bed.run("-c", os.path.join(bed.directory, "board.json"))
    assert daemon.wait_for_name(bed.bus)
    return daemon


# --- the value file

def test_full_disk_leaves_an_empty_file_while_the_new_value_is_served(bed, small_disk):
    path = os.path.join(small_disk, "value")
    with open(path, "wb"):
        pass
    fill(small_disk, pages=2)
    daemon = bed.start([entry("Item", path)])
    before = len(daemon.journal())
    set_text(bed, "new")
    assert get(bed) == "new"
    assert read(path) == b""
    assert daemon.journal()[before:] == []
    restart(bed)
    assert get(bed) == ""


def test_disk_that_fills_up_on_the_way_leaves_the_beginning_of_the_value(bed, small_disk):
    page = os.sysconf("SC_PAGE_SIZE")
    path = os.path.join(small_disk, "value")
    with open(path, "wb") as file:
        file.write(b"old\n")
    fill(small_disk, pages=1)
    daemon = bed.start([entry("Item", path)])
    before = len(daemon.journal())
    set_text(bed, "n" * 2 * page)
    assert get(bed) == "n" * 2 * page
    assert read(path) == b"n" * page
    assert daemon.journal()[before:] == []
    restart(bed)
    assert get(bed) == "n" * page


def test_set_succeeds_again_once_the_disk_has_room(bed, small_disk):
    path = os.path.join(small_disk, "value")
    with open(path, "wb"):
        pass
    fill(small_disk, pages=2)
    bed.start([entry("Item", path)])
    set_text(bed, "lost")
    os.remove(os.path.join(small_disk, "filler"))
    set_text(bed, "kept")
    assert read(path) == b"kept\n"


def test_disk_without_room_for_another_file_leaves_the_old_value(bed, small_disk):
    path = os.path.join(small_disk, "value")
    with open(path, "wb") as file:
        file.write(b"old\n")
    daemon = bed.start([entry("Item", path)])
    os.remove(path)
    for name in "ab":
        with open(os.path.join(small_disk, name), "wb"):
            pass
    set_text(bed, "new")
    assert get(bed) == "old"
    assert not os.path.exists(path)
    assert daemon.journal()[-1] == CANNOT_OPEN
    os.remove(os.path.join(small_disk, "a"))
    set_text(bed, "newer")
    assert read(path) == b"newer\n"


def test_removed_file_is_served_from_memory_and_made_again_by_a_set(bed):
    path = bed.file("value", "old\n")
    daemon = bed.start([entry("Item", path)])
    before = len(daemon.journal())
    os.remove(path)
    assert get(bed) == "old"
    set_text(bed, "new")
    assert get(bed) == "new"
    assert read(path) == b"new\n"
    assert daemon.journal()[before:] == []


def make_read_only(path):
    mount("--bind", path, path)
    mount("-o", "remount,bind,ro", path)


def make_writable_again(path):
    subprocess.run(["umount", path], check=True)


def replace_by_folder(path):
    os.remove(path)
    os.mkdir(path)


def replace_by_link_to_nowhere(path):
    os.remove(path)
    os.symlink("/nonexistent/value", path)


def remove_folder(path):
    os.remove(path)
    os.rmdir(os.path.dirname(path))


def make_folder(path):
    os.mkdir(os.path.dirname(path))


@pytest.mark.parametrize("fault, mend", [
    (make_read_only, make_writable_again), (replace_by_folder, os.rmdir), (replace_by_link_to_nowhere, os.remove),
    (remove_folder, make_folder)])
def test_file_that_cannot_be_opened_keeps_the_old_value_and_still_signals(bed, fault, mend):
    os.mkdir(os.path.join(bed.directory, "folder"))
    path = bed.file("folder/value", "old\n")
    daemon = bed.start([entry("Item", path)])
    signals = Signals(bed.bus)
    signals.so_far()
    fault(path)
    before = look(path)
    set_text(bed, "new")
    assert get(bed) == "old"
    assert look(path) == before
    assert daemon.journal()[-1] == CANNOT_OPEN
    assert signals.so_far() == [(ROOT, PROPERTIES, "PropertiesChanged", "()")]
    mend(path)
    set_text(bed, "newer")
    assert get(bed) == "newer"
    assert read(path) == b"newer\n"


# --- the journal

class OwnHost:
    """A daemon with a journal service of its own, which a test can stop."""

    def __init__(self, bed, entries):
        self.bed = bed
        host = os.path.join(SOURCE_ROOT, "scripts", "private-host")
        configuration = bed.configuration(entries)
        with open(os.path.join(bed.directory, "host-output"), "wb") as output:
            self.process = subprocess.Popen(
                [host, os.environ["KORVANEINFOD"], "-c", configuration], stdin=subprocess.DEVNULL, stdout=output,
                stderr=output, env=dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bed.bus.address))
        woken = []
        subscription = bed.bus.connection.signal_subscribe(
            "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", "/org/freedesktop/DBus", BUS_NAME,
            Gio.DBusSignalFlags.NONE, lambda *_: woken.append(True))
        wait_until(lambda: bed.bus.owner(BUS_NAME), "the daemon's bus name")
        bed.bus.connection.signal_unsubscribe(subscription)
        self.daemon = bed.bus.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "GetConnectionUnixProcessID", GLib.Variant("(s)", (BUS_NAME,)))[0]
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children", encoding="ascii") as file:
            children = [int(pid) for pid in file.read().split()]
        self.journald, = (pid for pid in children if pid != self.daemon)
        self.new_journald = None

    def inside(self, *command, **options):
        return subprocess.run(["nsenter", f"--target={self.daemon}", "--mount", *command], check=True, **options)

    def stop_journald(self):
        pidfd = os.pidfd_open(self.journald)
        os.kill(self.journald, signal.SIGTERM)
        assert select.select([pidfd], [], [], TIMEOUT)[0]
        os.close(pidfd)

    def start_journald(self):
        """Starts a journal service in place of the old one, and waits until it says that it is ready."""
        path = os.path.join(self.bed.directory, "ready")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            ready.settimeout(TIMEOUT)
            ready.bind(path)
            self.new_journald = subprocess.Popen(
                ["nsenter", f"--target={self.daemon}", "--mount", "/lib/systemd/systemd-journald"],
                env=dict(os.environ, NOTIFY_SOCKET=path), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL)
            while b"READY=1" not in ready.recv(4096):
                pass

    def messages(self):
        """Returns the texts of the daemon's messages about a missing property."""
        self.inside("journalctl", "--sync")
        output = self.inside("journalctl", "--directory=/run/log/journal", "--quiet", "--output=json",
                             f"_PID={self.daemon}", "CODE_LINE=333", stdout=subprocess.PIPE).stdout
        return [json.loads(line)["MESSAGE"] for line in output.splitlines()]

    def close(self):
        os.kill(self.journald, signal.SIGCONT) if self.new_journald is None else self.new_journald.terminate()
        self.process.terminate()
        self.process.wait(TIMEOUT)
        if self.new_journald is not None:
            self.new_journald.wait(TIMEOUT)


@pytest.fixture
def host(bed):
    """A daemon for which each Get of a property "Missing..." makes it log one message."""
    others = [dict(entry(f"Missing{number}", ""), interface="Other") for number in range(4)]
    own_host = OwnHost(bed, [entry("Item", bed.file("value", "old\n")), *others])
    get(bed)  # it has logged all of its start by its first answer
    own_host.messages()  # and the journal has taken it in, so that its queue is empty
    yield own_host
    own_host.close()


def log_a_message(bed, number):
    """Makes the daemon log that it cannot find a property."""
    with pytest.raises(GLib.Error, match="unknown"):
        get(bed, f"Missing{number}")


def test_stopped_journal_loses_messages_but_no_request(bed, host):
    log_a_message(bed, 0)
    assert host.messages() == ["Property Missing0 not found"]
    host.stop_journald()
    log_a_message(bed, 1)
    set_text(bed, "new")
    assert get(bed) == "new"
    host.start_journald()
    log_a_message(bed, 2)
    assert host.messages() == ["Property Missing0 not found", "Property Missing2 not found"]


def test_journal_that_hangs_gets_the_messages_when_it_goes_on(bed, host):
    os.kill(host.journald, signal.SIGSTOP)
    for number in range(4):
        log_a_message(bed, number)
    set_text(bed, "new")
    assert get(bed) == "new"
    os.kill(host.journald, signal.SIGCONT)
    assert host.messages() == [f"Property Missing{number} not found" for number in range(4)]


def test_more_messages_than_a_hanging_journal_queues_delay_requests_and_lose_nothing(bed, host):
    with open("/proc/sys/net/unix/max_dgram_qlen", encoding="ascii") as file:
        queued = int(file.read())
    count = queued + 10
    os.kill(host.journald, signal.SIGSTOP)
    errors = []

    def answered(connection, result):
        with pytest.raises(GLib.Error, match="unknown"):
            connection.call_finish(result)
        errors.append(True)

    for _ in range(count):
        bed.bus.connection.call(BUS_NAME, ROOT, PROPERTIES, "Get", GLib.Variant("(ss)", (BOARD, "Missing0")), None,
                                Gio.DBusCallFlags.NO_AUTO_START, TIMEOUT * 1000, None, answered)
    wait_until(lambda: len(errors) >= queued, "the replies whose messages the queue holds")
    with pytest.raises(GLib.Error, match="[Tt]imeout"):
        bed.bus.connection.call_sync(BUS_NAME, ROOT, PROPERTIES, "Get", GLib.Variant("(ss)", (BOARD, "Item")), None,
                                     Gio.DBusCallFlags.NO_AUTO_START, HUNG, None)
    assert len(errors) < count
    os.kill(host.journald, signal.SIGCONT)
    wait_until(lambda: len(errors) == count, "all replies")
    assert host.messages() == ["Property Missing0 not found"] * count


# --- the bus, and the daemon itself

def send_set(bed, text, name="Item"):
    """Sends a Set and does not wait for its reply."""
    message = Gio.DBusMessage.new_method_call(BUS_NAME, ROOT, PROPERTIES, "Set")
    message.set_body(GLib.Variant("(ssv)", (BOARD, name, GLib.Variant("s", text))))
    bed.bus.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)
    bed.bus.connection.flush_sync(None)


@pytest.mark.parametrize("answered", range(0, 20, 2))
def test_bus_killed_in_mid_set_ends_the_daemon_in_order_and_leaves_whole_values(bed, answered):
    path = bed.file("value", "old\n")
    daemon = bed.start([entry("Item", path)])
    for number in range(answered):
        set_text(bed, f"value {number}")
    last = answered + 50
    for number in range(answered, last):
        send_set(bed, f"value {number}")
    bed.bus.stop()
    assert daemon.wait() == 0
    left = read(path)
    assert left in [b"old\n"] * (answered == 0) + [b"value %d\n" % n for n in range(max(answered - 1, 0), last)], left
    assert daemon.journal()[-1] == CONNECTION_LOST
    assert daemon.stderr() == ""


def spin(seconds):
    """Lets time pass, more exactly than sleeping can. What is hit is chance on purpose; nothing is waited for."""
    end = time.perf_counter() + seconds
    while time.perf_counter() < end:
        pass


def spin_until_change(path, size):
    """Waits without a pause until the file is written to: a slower wait would wake up after the write."""
    end = time.perf_counter() + TIMEOUT
    while os.stat(path).st_size == size:
        assert time.perf_counter() < end, "the file was not written to"


def state_of(left, old, new):
    """Says in words what a Set that was cut off has left in its file."""
    if left in (old, new):
        return "old value" if left == old else "new value"
    assert new.startswith(left), left[:80]
    return "nothing" if not left else "new value without its line feed" if left == new[:-1] else "part of the new value"


def test_kill_at_any_moment_of_a_set_leaves_the_old_value_the_new_one_or_the_beginning_of_the_new_one(bed):
    old, new = "o" * 1000, "n" * 1000000
    folder = os.path.join(bed.directory, "folder")
    os.mkdir(folder)
    path = bed.file("folder/value", old + "\n")
    configuration = bed.configuration([entry("Item", path)])
    chance = random.Random(1)
    daemon = bed.run("-c", configuration)
    assert daemon.wait_for_name(bed.bus)
    begin = time.perf_counter()
    set_text(bed, new)
    whole = time.perf_counter() - begin
    daemon.kill()
    found = Counter()
    for moment in range(MOMENTS):
        bed.file("folder/value", old + "\n")
        daemon = bed.run("-c", configuration)
        assert daemon.wait_for_name(bed.bus)
        send_set(bed, new)
        if moment % 2:
            spin(chance.uniform(0, whole))
        else:
            spin_until_change(path, len(old) + 1)
            spin(chance.uniform(0, 0.0005))
        daemon.process.kill()
        assert daemon.wait() == -signal.SIGKILL
        left = read(path)
        assert os.listdir(folder) == ["value"]
        found[state_of(left, old.encode() + b"\n", new.encode() + b"\n")] += 1
        restarted = bed.run("-c", configuration)
        assert restarted.wait_for_name(bed.bus)
        assert get(bed) == left.decode().removesuffix("\n")
        restarted.kill()
    print(f"killed {MOMENTS} times within {whole * 1000:.1f} ms of a Set:", dict(found))
