"""From the bus name to the end: registration of the objects, and what ends the daemon."""

import signal

import pytest
from gi.repository import GLib

import messages
from testbed import BUS_NAME, INTERFACE, ROOT, Bus, error_of, full_path

SERVED = ("", "Board", [("A", "s", "read")])
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"

# Values of the bus's own interface
ALLOW_REPLACEMENT, REPLACE_EXISTING = 1, 2
PRIMARY_OWNER, IN_QUEUE = 1, 2


@pytest.fixture
def element(bed):
    return bed.par("A", "1\n")


def start_journal(element):
    """Returns the journal of a daemon that serves this one element."""
    return [*messages.par_entry(element, "1"), *messages.serving(SERVED)]


def request_name(bed, flags):
    """Requests the daemon's name for the client."""
    return bed.bus.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                        GLib.Variant("(su)", (BUS_NAME, flags)))[0]


@pytest.mark.parametrize("flags", [0, ALLOW_REPLACEMENT])
def test_a_name_that_another_has_taken_ends_the_daemon(bed, element, flags):
    assert request_name(bed, flags) == PRIMARY_OWNER
    daemon, status = bed.run_to_end([element])
    assert status == 0
    assert daemon.journal() == [*start_journal(element)[:-1], messages.NAME_LOST]
    assert daemon.stderr() == ""
    assert bed.bus.owner(BUS_NAME) == bed.bus.connection.get_unique_name()


@pytest.mark.parametrize("flags", [0, REPLACE_EXISTING])
def test_the_name_cannot_be_taken_from_the_daemon(bed, element, flags):
    daemon = bed.start([element])
    assert request_name(bed, flags) == IN_QUEUE
    assert bed.get(ROOT, f"{INTERFACE}.Board", "A").get_string() == "1"
    assert daemon.owns_name(bed.bus)
    assert daemon.journal() == start_journal(element)


def test_a_second_daemon_ends_and_the_first_goes_on(bed, element):
    first = bed.start([element])
    second, status = bed.run_to_end([element])
    assert status == 0
    assert second.journal() == [*start_journal(element)[:-1], messages.NAME_LOST]
    assert first.owns_name(bed.bus)
    assert bed.get(ROOT, f"{INTERFACE}.Board", "A").get_string() == "1"
    assert first.journal() == start_journal(element)


def test_a_daemon_can_follow_one_that_was_ended(bed, element):
    bed.start([element]).kill()
    daemon = bed.start([element])
    assert daemon.journal() == start_journal(element)


def test_a_bus_that_refuses_the_name_ends_the_daemon(bed, element):
    config = bed.file("refusing-bus.conf", '''<busconfig><type>system</type><listen>unix:tmpdir=/tmp</listen>
        <policy context="default"><allow user="*"/><allow send_destination="*"/><allow receive_sender="*"/>
        <deny own="*"/></policy></busconfig>''')
    bus = Bus(bed.folder("refusing"), config)
    try:
        daemon, status = bed.run_to_end([element], bus_address=bus.address)
    finally:
        bus.close()
    assert status == 0
    assert daemon.journal() == [*start_journal(element)[:-1], messages.NAME_LOST]
    assert daemon.stderr() == ""


@pytest.mark.parametrize("signal_number", [signal.SIGKILL, signal.SIGTERM])
def test_the_end_of_the_bus_ends_the_daemon(bed, element, signal_number):
    daemon = bed.start([element])
    bed.bus.process.send_signal(signal_number)
    assert daemon.wait() == 0
    assert daemon.journal() == [*start_journal(element), messages.CONNECTION_LOST]
    assert daemon.stderr() == ""


def test_the_end_of_the_bus_ends_a_daemon_without_objects(bed):
    daemon = bed.start([])
    bed.bus.stop()
    assert daemon.wait() == 0
    assert daemon.journal() == [*messages.serving(), messages.CONNECTION_LOST]


@pytest.mark.parametrize("address", ["unix:path=/nonexistent/bus", "nonsense", "unix:path=/dev/null"])
def test_an_absent_bus_ends_the_daemon(bed, element, address):
    daemon, status = bed.run_to_end([element], bus_address=address)
    assert status == 0
    assert daemon.journal() == [*messages.par_entry(element, "1"),
                                *messages.initialized(messages.document(SERVED)), messages.CONNECTION_LOST]
    assert daemon.stderr() == ""
    assert b"A                       : 1\n" in daemon.stdout()


def test_a_signal_ends_the_daemon_as_usual(bed, element):
    daemon = bed.start([element])
    daemon.process.send_signal(signal.SIGTERM)
    assert daemon.wait() == -signal.SIGTERM
    assert daemon.journal() == start_journal(element)


def test_objects_are_registered_root_first_then_in_byte_order(bed):
    paths = ["eth0", "Eth1", "", "Eth0/Phy", "Eth0", "_", "Eth10", "0"]
    elements = [bed.par(f"P{i}", f"{i}\n", objectpath=path, interface=f"I{i}") for i, path in enumerate(paths)]
    daemon = bed.start(elements)
    objects = [(path, f"I{paths.index(path)}", [(f"P{paths.index(path)}", "s", "read")])
               for path in ["", "0", "Eth0", "Eth0/Phy", "Eth1", "Eth10", "_", "eth0"]]
    assert daemon.journal() == [
        *[message for i, element in enumerate(elements) for message in messages.par_entry(element, str(i))],
        *messages.serving(*objects)]
    for i, path in enumerate(paths):
        assert bed.get_all(full_path(path), f"{INTERFACE}.I{i}") == {f"P{i}": str(i)}
    assert daemon.stderr() == ""


def test_only_child_objects_leave_the_root_without_an_interface(bed):
    element = bed.par("A", "1\n", objectpath="Child")
    daemon = bed.start([element])
    assert daemon.journal() == [*messages.par_entry(element, "1"),
                                *messages.serving(("Child", "Board", [("A", "s", "read")]))]
    assert [message[2] for message in daemon.journal()[-5:]] == [425, 494, 494, 519, 446]
    assert bed.get_all(full_path("Child"), f"{INTERFACE}.Board") == {"A": "1"}
    assert "interface name" not in bed.introspect(ROOT)


def test_only_the_root_object(bed, element):
    daemon = bed.start([element])
    assert [message[2] for message in daemon.journal()[-4:]] == [425, 494, 519, 446]
    assert "<node name" not in bed.introspect(ROOT)


@pytest.mark.parametrize("path", ["/Eth0", "Eth0/", "Eth0//Phy", "Eth-0", "Eth 0", "Eth.0", "Eth<0", "\u00c9th0", "/"])
def test_an_invalid_object_path_ends_the_daemon(bed, path):
    elements = [bed.par("B", "2\n", objectpath="Before"), bed.par("R", "1\n"), bed.par("A", "3\n", objectpath=path)]
    daemon, status = bed.run_to_end(elements)
    assert status == 0
    before = ("Before", "Board", [("B", "s", "read")])
    invalid = (path, "Board", [("A", "s", "read")])
    root = ("", "Board", [("R", "s", "read")])
    # "/" stands before, and the others behind, the valid child in byte order.
    if path.startswith("/"):
        xml, objects = messages.document(root, invalid, before), [root]
    else:
        xml, objects = messages.document(root, before, invalid), [root, before]
    assert daemon.journal() == [
        *messages.par_entry(elements[0], "2"), *messages.par_entry(elements[1], "1"),
        *messages.par_entry(elements[2], "3"), *messages.initialized(xml), *messages.registered(*objects),
        messages.OBJECT, messages.NOT_REGISTERED, messages.REGISTRATION_FAILED]


@pytest.mark.parametrize("interface", ["", "1st", "Board.", "Board..Info", ".Board", "Board-Info", "Board Info",
                                       "Board<Info", "B\u00f6ard", "B" * 255])
@pytest.mark.parametrize("object_path", ["", "Child"])
def test_an_invalid_interface_ends_the_daemon(bed, object_path, interface):
    element = bed.par("A", "1\n", interface=interface, objectpath=object_path)
    daemon, status = bed.run_to_end([element])
    assert status == 0
    assert daemon.journal() == [
        *messages.par_entry(element, "1"),
        *messages.initialized(messages.document((object_path, interface, [("A", "s", "read")]))),
        messages.BUS_ACQUIRED, messages.OBJECT, *[messages.OBJECT] * (object_path != ""), messages.NOT_REGISTERED,
        messages.REGISTRATION_FAILED]


@pytest.mark.parametrize("interface", ["Board.Network", "_1st", "board", "B" * 200])
def test_an_unusual_interface_is_served(bed, interface):
    bed.start([bed.par("A", "1\n", interface=interface)])
    assert bed.get_all(ROOT, f"{INTERFACE}.{interface}") == {"A": "1"}


@pytest.mark.parametrize("key", ["name", "interface", "objectpath", "type"])
@pytest.mark.parametrize("text", ["it's", "a&b", "a&b;", "'/><property name='B"], ids=repr)
def test_text_that_breaks_the_introspection_document_ends_the_daemon(bed, key, text):
    element = {**bed.par("A", "1\n"), key: text}
    daemon, status = bed.run_to_end([element])
    assert status == -signal.SIGABRT
    xml = messages.document((element["objectpath"], element["interface"],
                             [(element["name"], element["type"], "read")]))
    assert daemon.journal() == [*messages.par_entry(element, "1"), *messages.initialized(xml)]
    assert daemon.stderr().startswith("terminate called after throwing an instance of 'Glib::MarkupError'\n")
    assert daemon.stdout().endswith(b": 1\n#### End board information ####\n")
    assert bed.bus.owner(BUS_NAME) is None


@pytest.mark.parametrize("name", ["", "A B", 'A"B', "A<B", "A>B", "A-B", "A.B", "1", "\u00c4", "A/B",
                                  "x" * 300], ids=repr)
def test_a_property_may_have_any_other_name(bed, name):
    element = bed.par(name, None, path=bed.file("value", "1\n"))
    daemon = bed.start([element])
    assert daemon.journal() == [*messages.par_entry(element, "1"),
                                *messages.serving(("", "Board", [(name, "s", "read")]))]
    assert bed.get(ROOT, f"{INTERFACE}.Board", name).get_string() == "1"
    assert bed.get_all(ROOT, f"{INTERFACE}.Board") == {name: "1"}


@pytest.mark.parametrize("path, interface, method", [
    (ROOT, f"{INTERFACE}.Board", "Reset"),
    (ROOT, f"{INTERFACE}.Other", "Reset"),
    (ROOT, "org.freedesktop.DBus.Properties", "Reset"),
    (f"{ROOT}/Other", f"{INTERFACE}.Board", "Reset"),
    ("/", f"{INTERFACE}.Board", "Reset"),
])
def test_the_bus_library_answers_undeclared_methods(bed, element, path, interface, method):
    daemon = bed.start([element])
    assert error_of(bed.bus.call, BUS_NAME, path, interface, method)[0] == UNKNOWN_METHOD
    assert bed.get(ROOT, f"{INTERFACE}.Board", "A").get_string() == "1"
    assert daemon.journal() == start_journal(element)
    assert daemon.stderr() == ""


def test_an_empty_board_has_the_name_and_no_object(bed):
    daemon = bed.start([])
    assert daemon.owns_name(bed.bus)
    assert error_of(bed.get_all, ROOT, f"{INTERFACE}.Board")[0] == UNKNOWN_METHOD
    assert daemon.journal() == messages.serving()
    assert [message[2] for message in daemon.journal()] == [38, 229, 52, 425, 494, 446]
