"""A test bed for one daemon: a real bus of its own, a client connection, the real journal of the private host."""

import contextlib
import json
import os
import select
import shutil
import signal
import subprocess
import time

from gi.repository import Gio, GLib

BUS_NAME = "com.brenvok.korvaneinfod"
ROOT = "/com/brenvok/Korvaneinfo1"
INTERFACE = "com.brenvok.Info1"
PROPERTIES = "org.freedesktop.DBus.Properties"
TIMEOUT = 30  # seconds; only a fault takes so long
JOURNALCTL = ["journalctl", "--directory=/run/log/journal", "--quiet", "--output=json", "--all"]
SOURCE_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUS_CONFIG = os.path.join(SOURCE_ROOT, "scripts", "private-bus.conf")


def wait_until(reached, what):
    """Runs the main context until `reached()` is true; events wake it, and only the timeout gives up."""
    context = GLib.MainContext.default()
    expired = []
    timeout = GLib.timeout_add_seconds(TIMEOUT, lambda: expired.append(True))
    try:
        while not reached():
            assert not expired, f"timed out waiting for {what}"
            context.iteration(True)
    finally:
        if not expired:
            GLib.source_remove(timeout)


def dispatch_pending():
    """Runs the callbacks of all that has arrived."""
    context = GLib.MainContext.default()
    while context.pending():
        context.iteration(False)


class Bus:
    """A system-type dbus-daemon, and one client connection to it."""

    def __init__(self, directory, config=BUS_CONFIG):
        self.address = f"unix:path={directory}/bus"
        self.process = subprocess.Popen(
            ["dbus-daemon", f"--config-file={config}", f"--address={self.address}", "--nofork", "--nopidfile",
             "--print-address=1"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        assert self.process.stdout.readline(), "the bus did not start"
        self.connections = []
        self.connection = self.connect()

    def connect(self, observer=None):
        """Returns a further client connection; the observer has a say in the authentication."""
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.connections.append(Gio.DBusConnection.new_for_address_sync(self.address, flags, observer, None))
        return self.connections[-1]

    def call(self, destination, path, interface, method, parameters=None, connection=None):
        """Calls a method and returns its result, unpacked; raises GLib.Error for an error reply."""
        reply = (connection or self.connection).call_sync(destination, path, interface, method, parameters, None,
                                                          Gio.DBusCallFlags.NO_AUTO_START, TIMEOUT * 1000, None)
        return reply.unpack()

    def owner(self, name):
        """Returns the unique name of the owner of a well-known name, or None."""
        try:
            return self.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner",
                             GLib.Variant("(s)", (name,)))[0]
        except GLib.Error:
            return None

    def dispatch(self):
        """Handles every signal that the bus has sent to the client before now."""
        self.owner(BUS_NAME)  # the answer arrives behind the signals
        dispatch_pending()

    def stop(self):
        """Ends the bus, and waits for its end."""
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        self.process.stdout.close()

    def close(self):
        """Closes all connections, which otherwise stay open as long as something listens on them, and ends the bus."""
        for connection in self.connections:
            # One that has heard of the end of the bus counts as closed, and keeps its socket all the same.
            for close in connection.close_sync, connection.get_stream().close:
                with contextlib.suppress(GLib.Error):
                    close(None)
        self.stop()


class Daemon:
    """One daemon process; its standard output and error go to files, its journal is told apart by its process id."""

    def __init__(self, bus_address, directory, arguments, env=None, **options):
        self.stdout_path = os.path.join(directory, "stdout")
        self.stderr_path = os.path.join(directory, "stderr")
        environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus_address, **(env or {}))
        self.begin = time.monotonic()
        with open(self.stdout_path, "wb") as stdout, open(self.stderr_path, "wb") as stderr:
            self.process = subprocess.Popen([os.environ["KORVANEINFOD"], *arguments], stdin=subprocess.DEVNULL,
                                            stdout=stdout, stderr=stderr, env=environment, **options)

    def wait_for_name(self, bus):
        """Waits until the daemon owns its name or has ended; returns whether it owns its name."""
        wake = []
        subscription = bus.connection.signal_subscribe(
            "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", "/org/freedesktop/DBus", BUS_NAME,
            Gio.DBusSignalFlags.NONE, lambda *_: wake.append(True))
        pidfd = os.pidfd_open(self.process.pid)
        watch = GLib.unix_fd_add_full(GLib.PRIORITY_DEFAULT, pidfd, GLib.IOCondition.IN, lambda *_: True)
        try:
            wait_until(lambda: self.process.poll() is not None or self.owns_name(bus), "the daemon's bus name")
        finally:
            GLib.source_remove(watch)
            os.close(pidfd)
            bus.connection.signal_unsubscribe(subscription)
        return self.process.poll() is None

    def owns_name(self, bus):
        """Returns whether the owner of the daemon's name is this process."""
        owner = bus.owner(BUS_NAME)
        if owner is None:
            return False
        try:
            pid = bus.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", GLib.Variant("(s)", (owner,)))[0]
        except GLib.Error:
            return False  # it has left since
        return pid == self.process.pid

    def wait_for_message(self, function):
        """Waits until the daemon has logged a message of this function."""
        follower = subprocess.Popen(
            [*JOURNALCTL, "--follow", "--lines=all", f"_PID={self.process.pid}", f"CODE_FUNC={function}"],
            stdout=subprocess.PIPE)
        try:
            ready = select.select([follower.stdout], [], [], TIMEOUT)[0]
            assert ready, f"timed out waiting for a message of {function}"
        finally:
            follower.kill()
            follower.communicate()

    def wait(self):
        """Waits for the end of the process and returns its status: negative for a signal."""
        return self.process.wait(TIMEOUT)

    def kill(self):
        """Ends the process, if it has not ended by itself."""
        self.process.terminate()  # not killed: at SIGTERM a coverage build writes its counts
        self.wait()

    def stdout(self):
        """Returns what the daemon has printed so far, as bytes."""
        with open(self.stdout_path, "rb") as file:
            return file.read()

    def stderr(self):
        """Returns what the daemon has complained of so far, as text."""
        with open(self.stderr_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def journal(self):
        """Returns all journal messages of the daemon so far, in order, as (priority, file, line, function, text)."""
        return [(int(m["PRIORITY"]), m["CODE_FILE"], int(m["CODE_LINE"]), m["CODE_FUNC"], m["MESSAGE"])
                for m in self.journal_records()]

    def journal_records(self):
        """Returns all journal records of the daemon's own messages, in order, as dictionaries of texts.

        An earlier daemon may have had the same process id: tests that start thousands of them meet each id again."""
        subprocess.run(["journalctl", "--sync"], check=True)
        output = subprocess.run(
            [*JOURNALCTL, f"_PID={self.process.pid}", "_TRANSPORT=journal"], check=True, stdout=subprocess.PIPE).stdout
        records = [json.loads(line) for line in output.splitlines()]
        return [{key: text_of(value) for key, value in record.items()} for record in records
                if int(record["__MONOTONIC_TIMESTAMP"]) >= self.begin * 1e6]


def text_of(field):
    """Returns a journal field as text: journalctl gives fields with unprintable bytes as a list of numbers."""
    return bytes(field).decode(errors="surrogateescape") if isinstance(field, list) else field


class Signals:
    """Records every signal of the daemon, in order, as (path, interface, member, arguments)."""

    def __init__(self, bus, connection=None):
        self.bus = bus
        self.connection = connection or bus.connect()
        self.seen = []
        self.connection.signal_subscribe(BUS_NAME, None, None, None, None, Gio.DBusSignalFlags.NONE, self._record)
        # The bus takes the messages of several clients in any order; its answer says that it knows of the subscription.
        bus.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
                 connection=self.connection)

    def _record(self, _connection, _sender, path, interface, member, parameters):
        self.seen.append((path, interface, member, parameters.print_(True)))

    def so_far(self):
        """Returns the signals that the daemon sent before now. A reply of the daemon arrives behind them."""
        call_ping(self.bus, self.connection)
        dispatch_pending()
        return list(self.seen)


def call_ping(bus, connection):
    """Waits until the daemon has answered everything before, as seen on this connection."""
    bus.call(BUS_NAME, ROOT, "org.freedesktop.DBus.Peer", "Ping", connection=connection)


class TestBed:
    """Everything one test needs: files in a folder of its own, a bus, daemons."""

    __test__ = False

    def __init__(self, directory):
        self.directory = str(directory)
        self.bus = Bus(self.directory)
        self.daemons = []
        self.mounts = []

    def file(self, name, content):
        """Writes a value file and returns its path."""
        path = os.path.join(self.directory, name)
        with open(path, "wb") as file:
            file.write(content.encode() if isinstance(content, str) else content)
        return path

    def configuration(self, entries):
        """Writes the configuration file, from Python objects or as the text given, and returns its path."""
        text = entries if isinstance(entries, (str, bytes)) else json.dumps(entries)
        return self.file("board.json", text)

    def par(self, name, content, **keys):
        """Returns a configuration element of a "par" entry, and writes its value file unless `path` is given."""
        if "path" not in keys:
            keys["path"] = self.file(f"{name}.txt", content)
        return {"name": name, "interface": "Board", "objectpath": "", "location": "par", "type": "s", "read": True,
                "write": False, "signal": False, **keys}

    def fuses(self, name, content, offset, length, **keys):
        """Returns a configuration element of a "fuses" entry, and writes its value file."""
        return {**self.par(name, content), "location": "fuses", "offset": offset, "length": length, **keys}

    def folder(self, name):
        """Makes a folder and returns its path."""
        path = os.path.join(self.directory, name)
        os.mkdir(path)
        return path

    def tmpfs(self, name, options):
        """Mounts a file system of its own in a new folder, away with the test, and returns its path."""
        path = self.folder(name)
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "test", path], check=True)
        self.mounts.append(path)
        return path

    @staticmethod
    def make_read_only(path):
        """Makes a file system that tmpfs() has mounted read-only, for any user."""
        # The mount, not the file system: a normal user may change that alone.
        subprocess.run(["mount", "-o", "remount,bind,ro", path], check=True)

    def run(self, *arguments, bus_address=None, **options):
        """Starts a daemon with these arguments and does not wait for it; `options` are those of subprocess.Popen, of
        which `env` adds to the environment."""
        directory = self.folder(f"daemon-{len(self.daemons)}")
        daemon = Daemon(bus_address or self.bus.address, directory, arguments, **options)
        self.daemons.append(daemon)
        return daemon

    def run_to_end(self, entries, **options):
        """Runs a daemon that ends by itself with this configuration; returns the daemon and its status."""
        daemon = self.run("-c", self.configuration(entries), **options)
        return daemon, daemon.wait()

    def start(self, entries, **options):
        """Starts a daemon with this configuration and waits until it serves."""
        daemon = self.run("-c", self.configuration(entries), **options)
        self.wait_until_serving(daemon)
        return daemon

    def wait_until_serving(self, daemon):
        """Waits until a daemon owns its name and has heard so."""
        assert daemon.wait_for_name(self.bus), f"the daemon ended with {daemon.wait()}: {daemon.stderr()}"
        daemon.wait_for_message("onNameAcquired")  # the bus tells everyone at once

    def get(self, path, interface, name):
        """Gets a property; returns its variant."""
        reply = self.bus.connection.call_sync(
            BUS_NAME, path, PROPERTIES, "Get", GLib.Variant("(ss)", (interface, name)), None,
            Gio.DBusCallFlags.NO_AUTO_START, TIMEOUT * 1000, None)
        return reply.get_child_value(0).get_variant()

    def get_all(self, path, interface):
        """Gets all properties of an interface; returns a dictionary."""
        return self.bus.call(BUS_NAME, path, PROPERTIES, "GetAll", GLib.Variant("(s)", (interface,)))[0]

    def set(self, path, interface, name, value):
        """Sets a property to a GLib.Variant; returns the reply, which is empty."""
        return self.bus.call(BUS_NAME, path, PROPERTIES, "Set", GLib.Variant("(ssv)", (interface, name, value)))

    def introspect(self, path):
        """Returns the introspection data that the bus library serves for an object."""
        return self.bus.call(BUS_NAME, path, "org.freedesktop.DBus.Introspectable", "Introspect")[0]

    def report(self):
        """Returns what helps to understand a failure: standard error and the last of the journal of every daemon."""
        lines = []
        for number, daemon in enumerate(self.daemons):
            lines.append(f"daemon {number}, status {daemon.process.poll()}, standard error:\n{daemon.stderr()}")
            lines += [f"  {message}" for message in daemon.journal()[-20:]]
        return "\n".join(lines)

    def close(self):
        """Ends all processes and removes all files."""
        for daemon in self.daemons:
            daemon.kill()
        self.bus.close()
        for path in self.mounts:
            subprocess.run(["umount", path], check=True)
        shutil.rmtree(self.directory, ignore_errors=True)


def full_path(object_path):
    """Returns the full object path of an entry's `objectpath`."""
    return f"{ROOT}/{object_path}" if object_path else ROOT


def error_of(call, *arguments):
    """Returns the D-Bus error name and text with which a call fails."""
    try:
        result = call(*arguments)
    except GLib.Error as error:
        name = Gio.DBusError.get_remote_error(error)
        return name, error.message.removeprefix(f"GDBus.Error:{name}: ")
    raise AssertionError(f"no error, but {result}")
