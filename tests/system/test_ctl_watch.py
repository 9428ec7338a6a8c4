"""korvaneinfoctl watch: changes, restarts of the daemon, and its end."""

import datetime
import json
import os
import re
import select
import signal
import subprocess

import pytest
from gi.repository import GLib

from testbed import BUS_NAME, INTERFACE, ROOT, TIMEOUT


class Watcher:
    """The tool under `watch`; its output is read line by line."""

    def __init__(self, bed, *arguments):
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bed.bus.address}
        self.process = subprocess.Popen([os.environ["KORVANEINFOCTL"], "watch", *arguments], env=environment,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        assert self.complaint() == "Watching, Ctrl-C ends it."

    def _line(self, pipe):
        line = b""
        while not line.endswith(b"\n"):
            ready, _, _ = select.select([pipe], [], [], TIMEOUT)
            assert ready, f"nothing after {line!r}"
            byte = os.read(pipe.fileno(), 1)
            assert byte, f"ended with {self.process.wait(TIMEOUT)} after {line!r}"
            line += byte
        return line.decode().removesuffix("\n")

    def change(self):
        """Waits for a change; returns its line without the time, which has to be the present one."""
        time, text = self._line(self.process.stdout).split(" ", 1)
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d", time)
        age = datetime.datetime.now(datetime.timezone.utc) - datetime.datetime.fromisoformat(time)
        assert abs(age.total_seconds()) < TIMEOUT
        return text

    def json_change(self):
        """Waits for a change in JSON; returns it without the time."""
        change = json.loads(self._line(self.process.stdout))
        datetime.datetime.fromisoformat(change.pop("time"))
        return change

    def complaint(self):
        """Waits for a line on standard error."""
        return self._line(self.process.stderr).removeprefix("korvaneinfoctl: ")

    def end(self, number=signal.SIGINT):
        """Interrupts the tool; returns its status and what else it has printed."""
        self.process.send_signal(number)
        output, complaints = self.process.communicate(timeout=TIMEOUT)
        return self.process.returncode, output.decode(), complaints.decode()


@pytest.fixture
def watch(bed):
    """Starts watchers, and ends those that are left."""
    watchers = []

    def start(*arguments):
        watchers.append(Watcher(bed, *arguments))
        return watchers[-1]
    yield start
    for watcher in watchers:
        watcher.process.kill()
        watcher.process.communicate()


def board(bed):
    """Returns three writable elements on two objects."""
    def element(name, interface, objectpath, type_):
        return {"name": name, "interface": interface, "objectpath": objectpath, "location": "par", "type": type_,
                "path": bed.file(name, "1\n"), "read": True, "write": True}
    return [element("Count", "Board", "", "i"), element("Label", "Board", "", "s"), element("Speed", "Net", "Eth0", "d")]


def set_count(bed, number):
    bed.set(ROOT, f"{INTERFACE}.Board", "Count", GLib.Variant("i", number))


def set_fatal_count(bed):
    """Sets a number that ends the daemon as soon as somebody reads it, which may be before the answer is out."""
    try:
        bed.set(ROOT, f"{INTERFACE}.Board", "Count", GLib.Variant("u", 3000000000))
    except GLib.Error:
        pass


def set_label(bed, text):
    bed.set(ROOT, f"{INTERFACE}.Board", "Label", GLib.Variant("s", text))


def set_speed(bed, number):
    bed.set(f"{ROOT}/Eth0", f"{INTERFACE}.Net", "Speed", GLib.Variant("d", number))


def test_changes_are_printed_old_and_new(bed, watch):
    bed.start(board(bed))
    watcher = watch()
    set_count(bed, 2)
    assert watcher.change() == "/Board/Count: 1 -> 2"
    set_speed(bed, 2.5)
    assert watcher.change() == "Eth0/Net/Speed: 1 -> 2.5"
    set_label(bed, "")
    assert watcher.change() == "/Board/Label: 1 -> \"\""
    set_label(bed, "a b")
    assert watcher.change() == "/Board/Label: \"\" -> a b"


def test_set_of_the_same_value_is_no_change(bed, watch):
    bed.start(board(bed))
    watcher = watch()
    set_count(bed, 1)
    set_count(bed, 5)
    assert watcher.change() == "/Board/Count: 1 -> 5"


def test_only_named_items_are_watched(bed, watch):
    bed.start(board(bed))
    watcher = watch("Speed", "Label")
    set_count(bed, 2)
    set_label(bed, "x")
    set_speed(bed, 3)
    assert [watcher.change(), watcher.change()] == ["/Board/Label: 1 -> x", "Eth0/Net/Speed: 1 -> 3"]


def test_json_is_one_object_a_line(bed, watch):
    bed.start(board(bed))
    watcher = watch("--json")
    set_count(bed, 2)
    assert watcher.json_change() == {"object": ROOT, "interface": f"{INTERFACE}.Board", "property": "Count",
                                     "type": "i", "old": 1, "new": 2}
    set_speed(bed, -1.5)
    assert watcher.json_change()["new"] == -1.5


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_ends_cleanly_on_ctrl_c(bed, watch, number):
    bed.start(board(bed))
    watcher = watch()
    set_count(bed, 2)
    watcher.change()
    assert watcher.end(number) == (0, "", "")


def test_restart_of_the_daemon_is_survived(bed, watch):
    elements = board(bed)
    daemon = bed.start(elements)
    watcher = watch()
    daemon.kill()
    assert watcher.complaint() == "the daemon has stopped"
    bed.file("Count", "7\n")
    daemon = bed.start(elements)
    assert watcher.complaint() == "the daemon has started"
    assert watcher.change() == "/Board/Count: 1 -> 7"
    set_count(bed, 8)
    assert watcher.change() == "/Board/Count: 7 -> 8"
    assert watcher.end() == (0, "", "")


def test_restart_with_other_items(bed, watch):
    elements = board(bed)
    daemon = bed.start(elements[:2])
    watcher = watch()
    daemon.kill()
    assert watcher.complaint() == "the daemon has stopped"
    bed.start(elements[1:])
    assert watcher.complaint() == "the daemon has started"
    assert watcher.complaint() == "/Board/Count: is no longer there"
    assert watcher.change() == "Eth0/Net/Speed: - -> 1"
    set_speed(bed, 4)
    assert watcher.change() == "Eth0/Net/Speed: 1 -> 4"


def test_new_items_do_not_disturb_who_watches_one(bed, watch):
    elements = board(bed)
    daemon = bed.start(elements[:1])
    watcher = watch("Count")
    daemon.kill()
    assert watcher.complaint() == "the daemon has stopped"
    bed.start(elements)
    assert watcher.complaint() == "the daemon has started"
    set_speed(bed, 4)
    set_count(bed, 4)
    assert watcher.change() == "/Board/Count: 1 -> 4"


def test_daemon_that_ends_over_a_value_is_told(bed, watch):
    elements = board(bed)
    elements[0]["type"] = "u"
    daemon = bed.start(elements)
    watcher = watch("Count")
    set_fatal_count(bed)
    assert watcher.complaint().startswith("/Board/Count: the daemon has ended or does not answer, ")
    assert watcher.complaint() == "the daemon has stopped"
    assert daemon.wait() != 0
    assert watcher.end() == (0, "", "")


def test_daemon_is_not_started_again_by_who_watches(activatable, watch):
    bed = activatable(lambda bed: [{**board(bed)[0], "type": "u"}, board(bed)[1]])
    bed.bus.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "StartServiceByName",
                 GLib.Variant("(su)", (BUS_NAME, 0)))
    watcher = watch()
    set_fatal_count(bed)
    assert watcher.complaint().startswith("/Board/Count: the daemon has ended or does not answer, ")
    assert watcher.complaint().startswith("/Board/Label: the daemon is not running ")
    assert watcher.complaint() == "the daemon has stopped"
    assert watcher.end() == (0, "", "")


def test_end_of_the_bus_ends_it(bed, watch):
    bed.start(board(bed))
    watcher = watch()
    bed.bus.stop()
    assert watcher.complaint().startswith("no connection to the system bus: ")
    assert watcher.process.wait(TIMEOUT) == 1
