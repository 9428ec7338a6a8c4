"""The installed bus policy: who may own the daemon's name, and who may send it what."""

import contextlib
import grp
import os
import pwd
import subprocess
import tempfile

from gi.repository import Gio, GLib
import pytest

from testbed import BUS_NAME, INTERFACE, PROPERTIES, ROOT, SOURCE_ROOT, Bus, Signals, error_of

DENIED = "org.freedesktop.DBus.Error.AccessDenied"
DO_NOT_QUEUE = 4  # a flag of RequestName
EXISTS = 3  # an answer of it: the name has an owner
GROUP = "korvaneinfo"
USER = "korvaneinfod"
NOBODY = pwd.getpwnam("nobody")


def can_be_others():
    """Returns whether this process may take the ids of other users: root may, but for that of a user namespace."""
    with open("/proc/self/uid_map", encoding="ascii") as file:
        return os.geteuid() == 0 and int(file.read().split()[2]) > 1


# Without the right to be someone else, a client that does not authenticate takes the part of the other users; there
# is nobody then to be a member of the group.
OTHERS = ["anonymous", "nobody", "daemon"] if can_be_others() else ["anonymous"]
OWNERS = ["root", "daemon"] if can_be_others() else ["root"]
WRITERS = ["root", "member"] if can_be_others() else ["root"]


class StrictBus(Bus):
    """A bus with a real system bus's rules and the installed policy."""

    def __init__(self, directory):
        super().__init__(directory, os.path.join(SOURCE_ROOT, "tests", "system", "policy-bus.conf"))

    def connect_as(self, who):
        """Returns a connection of root, of the daemon's user, of nobody, of nobody as a member of the group, or of no
        one in particular."""
        if who == "root":
            return self.connect()
        if who == "anonymous":
            return self.connect_anonymously()
        if who == "daemon":
            user = pwd.getpwnam(USER)
            with effective_ids(user.pw_uid, [user.pw_gid]):
                return self.connect()
        groups = [NOBODY.pw_gid, grp.getgrnam(GROUP).gr_gid] if who == "member" else [NOBODY.pw_gid]
        with effective_ids(NOBODY.pw_uid, groups):
            return self.connect()

    def connect_anonymously(self):
        """Returns a connection that refuses to say whose it is."""
        observer = Gio.DBusAuthObserver()
        observer.connect("allow-mechanism", lambda _, mechanism: mechanism == "ANONYMOUS")
        return self.connect(observer)


@contextlib.contextmanager
def effective_ids(uid, groups):
    """Makes this process another user for a while: the bus asks the kernel who it is at the time of connecting."""
    own_groups = os.getgroups()
    os.setgroups(groups)
    os.setegid(groups[0])
    os.seteuid(uid)
    try:
        yield
    finally:
        os.seteuid(0)
        os.setegid(0)
        os.setgroups(own_groups)


@contextlib.contextmanager
def appended(path, line):
    """Adds a line to a list of the system, as this test's own mount namespace sees it."""
    with tempfile.NamedTemporaryFile("w", encoding="utf-8") as copy:
        with open(path, encoding="utf-8") as file:
            copy.write(file.read() + line + "\n")
        copy.flush()
        os.fchmod(copy.fileno(), 0o644)
        subprocess.run(["mount", "--bind", copy.name, path], check=True)
        yield
        subprocess.run(["umount", path], check=True)


@pytest.fixture(scope="module", autouse=True)
def accounts():
    """Adds the daemon's user and group."""
    with appended("/etc/group", f"{GROUP}:x:64123:"), appended("/etc/passwd", f"{USER}:x:64124:64124::/:/bin/false"):
        yield


@pytest.fixture
def bed(bed):
    """A test bed whose bus has the installed policy, with a daemon on it that serves one writable value."""
    bed.bus.close()
    bed.bus = StrictBus(bed.directory)
    os.chmod(bed.directory, 0o711)  # other users find the socket of the bus
    bed.start([{"name": "Label", "interface": "Board", "path": bed.file("label", "old\n"), "location": "par",
                "type": "s", "read": True, "write": True}])
    return bed


def call(bed, who, method, parameters=None, interface=PROPERTIES, connection=None):
    """Calls a method of the daemon's root object; returns the result."""
    return bed.bus.call(BUS_NAME, ROOT, interface, method, parameters,
                        connection=connection or bed.bus.connect_as(who))


def set_label(bed, who, text):
    """Sets the one property."""
    value = GLib.Variant("(ssv)", (f"{INTERFACE}.Board", "Label", GLib.Variant("s", text)))
    return call(bed, who, "Set", value)


@pytest.mark.parametrize("who", OTHERS + WRITERS)
def test_everyone_may_read(bed, who):
    assert call(bed, who, "Get", GLib.Variant("(ss)", (f"{INTERFACE}.Board", "Label"))) == ("old",)
    assert call(bed, who, "GetAll", GLib.Variant("(s)", (f"{INTERFACE}.Board",))) == ({"Label": "old"},)


@pytest.mark.parametrize("who", OTHERS + WRITERS)
def test_everyone_may_introspect_and_ping(bed, who):
    assert "Label" in call(bed, who, "Introspect", interface="org.freedesktop.DBus.Introspectable")[0]
    assert call(bed, who, "Ping", interface="org.freedesktop.DBus.Peer") == ()


@pytest.mark.parametrize("who", OTHERS)
def test_others_may_not_write(bed, who):
    assert error_of(set_label, bed, who, "new")[0] == DENIED
    with open(os.path.join(bed.directory, "label"), encoding="ascii") as file:
        assert file.read() == "old\n"


@pytest.mark.parametrize("who", WRITERS)
def test_root_and_members_of_the_group_may_write(bed, who):
    set_label(bed, who, "new")
    with open(os.path.join(bed.directory, "label"), encoding="ascii") as file:
        assert file.read() == "new\n"


@pytest.mark.parametrize("who", OTHERS + WRITERS)
@pytest.mark.parametrize("interface, method", [
    ("org.freedesktop.DBus.Peer", "GetMachineId"),
    ("org.freedesktop.DBus.ObjectManager", "GetManagedObjects"),
    (PROPERTIES, "Reset"),
    (f"{INTERFACE}.Board", "Get"),
])
def test_nobody_may_call_anything_else(bed, who, interface, method):
    assert error_of(call, bed, who, method, None, interface)[0] == DENIED


@pytest.mark.parametrize("who", OTHERS)
def test_a_write_without_an_interface_is_refused(bed, who):
    """The interface of a method call may be left out; the rules must not be evaded so."""
    connection = bed.bus.connect_as(who)
    message = Gio.DBusMessage.new_method_call(BUS_NAME, ROOT, None, "Set")
    message.set_body(GLib.Variant("(ssv)", (f"{INTERFACE}.Board", "Label", GLib.Variant("s", "new"))))
    reply, _ = connection.send_message_with_reply_sync(message, Gio.DBusSendMessageFlags.NONE, 30000, None)
    assert reply.get_error_name() == DENIED


@pytest.mark.parametrize("who", OTHERS)
def test_a_write_to_the_unique_name_is_refused(bed, who):
    """The rules hold for the connection that owns the name, by whatever name it is addressed."""
    connection = bed.bus.connect_as(who)
    value = GLib.Variant("(ssv)", (f"{INTERFACE}.Board", "Label", GLib.Variant("s", "new")))
    assert error_of(bed.bus.call, bed.bus.owner(BUS_NAME), ROOT, PROPERTIES, "Set", value, connection)[0] == DENIED


def request_name(bed, who):
    """Asks for the daemon's name, without waiting for the daemon to give it up; returns the answer of the bus."""
    request = GLib.Variant("(su)", (BUS_NAME, DO_NOT_QUEUE))
    return bed.bus.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName", request,
                        bed.bus.connect_as(who))


@pytest.mark.parametrize("who", [who for who in OTHERS + WRITERS if who not in OWNERS])
def test_others_may_not_own_the_name(bed, who):
    assert error_of(request_name, bed, who)[0] == DENIED


@pytest.mark.parametrize("who", OWNERS)
def test_root_and_the_daemons_user_may_own_the_name(bed, who):
    assert request_name(bed, who) == (EXISTS,)  # which it does, but the request is a permitted one


@pytest.mark.parametrize("who", OTHERS)
def test_everyone_receives_the_signals(bed, who):
    signals = Signals(bed.bus, bed.bus.connect_as(who))
    set_label(bed, "root", "new")
    assert signals.so_far() == [(ROOT, PROPERTIES, "PropertiesChanged", "()")]
