"""Reads of properties: the variant for each type, and the answers to a request that names nothing."""

import signal

import pytest
from gi.repository import GLib

import messages
from testbed import INTERFACE, PROPERTIES, ROOT, error_of, full_path

BOARD = f"{INTERFACE}.Board"
ERROR = "org.freedesktop.DBus.Error."
INVALID_ARGUMENTS = ERROR + "InvalidArgs"
UNHANDLED = "unhandled exception (type std::exception) in signal handler"


def started(bed, element):
    """Starts a daemon with one element and returns it with the journal of its start."""
    daemon = bed.start([element])
    return daemon, daemon.journal()


@pytest.mark.parametrize("value_type, content, variant", [
    ("b", "true", "<true>"),
    ("b", "false", "<false>"),
    ("b", "TRUE", "<false>"),
    ("b", "True", "<false>"),
    ("b", "1", "<false>"),
    ("b", " true", "<false>"),
    ("b", "true ", "<false>"),
    ("b", "", "<false>"),
    ("d", "2.5", "<2.5>"),
    ("d", "-2", "<-2.0>"),
    ("d", " \t7", "<7.0>"),
    ("d", "1e3", "<1000.0>"),
    ("d", "0x10", "<16.0>"),
    ("d", "1,5", "<1.0>"),
    ("d", "3.5 volt", "<3.5>"),
    ("d", "1e308", "<1e+308>"),
    ("d", "inf", "<inf>"),
    ("i", "12", "<12>"),
    ("i", "-12", "<-12>"),
    ("i", "+12", "<12>"),
    ("i", " \t12", "<12>"),
    ("i", "12abc", "<12>"),
    ("i", "12.9", "<12>"),
    ("i", "0x1F", "<0>"),
    ("i", "017", "<17>"),
    ("i", "2147483647", "<2147483647>"),
    ("i", "-2147483648", "<-2147483648>"),
    ("u", "12", "<uint32 12>"),
    ("u", "12abc", "<uint32 12>"),
    ("u", "0x1F", "<uint32 0>"),
    ("u", "2147483647", "<uint32 2147483647>"),
    ("u", "-1", "<uint32 4294967295>"),
    ("u", "-2147483648", "<uint32 2147483648>"),
    ("s", "some text", "<'some text'>"),
    ("s", "", "<''>"),
    ("s", "Gr\u00f6\u00dfe", "<'Gr\u00f6\u00dfe'>"),
    ("y", "12", "<'12'>"),
    ("n", "-12", "<'-12'>"),
    ("q", "12", "<'12'>"),
    ("x", "123", "<'123'>"),
    ("t", "18446744073709551615", "<'18446744073709551615'>"),
    ("o", "/a/b", "<'/a/b'>"),
    ("g", "as", "<'as'>"),
    ("v", "<1>", "<'<1>'>"),
    ("as", "['a']", '<"[\'a\']">'),
    ("ai", "[1]", "<'[1]'>"),
    ("ay", "x", "<'x'>"),
    ("a{sv}", "{}", "<'{}'>"),
    ("(is)", "(1, x)", "<'(1, x)'>"),
    ("", "12", "<'12'>"),
    ("S", "12", "<'12'>"),
    ("bs", "true", "<true>"),  # the first letter alone counts
    ("double", "2.5", "<2.5>"),
    ("ii", "12", "<12>"),
    ("uint32", "12", "<uint32 12>"),
])
def test_a_value_is_answered_by_its_type(bed, value_type, content, variant):
    daemon, journal = started(bed, bed.par("A", f"{content}\n", type=value_type))
    answer = bed.get(ROOT, BOARD, "A")
    assert GLib.Variant.new_variant(answer).print_(True) == variant
    every = bed.bus.connection.call_sync("com.brenvok.korvaneinfod", ROOT, PROPERTIES, "GetAll",
                                         GLib.Variant("(s)", (BOARD,)), None, 0, -1, None)
    assert every.print_(True) == f"({{'A': {variant}}},)"
    assert daemon.journal() == journal
    assert daemon.stderr() == ""


def test_not_a_number_is_a_double(bed):
    bed.start([bed.par("A", "nan\n", type="d")])
    answer = bed.get(ROOT, BOARD, "A")
    assert answer.get_type_string() == "d" and answer.get_double() != answer.get_double()


@pytest.mark.parametrize("read", ["Get", "GetAll"])
@pytest.mark.parametrize("value_type, content", [
    ("i", ""), ("i", "abc"), ("i", "-"), ("i", "2147483648"), ("i", "-2147483649"), ("i", "9" * 30),
    ("u", ""), ("u", "abc"), ("u", "2147483648"), ("u", "4294967295"), ("u", "-2147483649"),
    ("d", ""), ("d", "abc"), ("d", "."), ("d", "1e999"), ("d", "1e-999"),
], ids=repr)
def test_a_value_that_does_not_convert_ends_the_daemon(bed, value_type, content, read):
    daemon, journal = started(bed, bed.par("A", f"{content}\n", type=value_type))
    arguments = (ROOT, BOARD) if read == "GetAll" else (ROOT, BOARD, "A")
    assert error_of(bed.get_all if read == "GetAll" else bed.get, *arguments)[0] == ERROR + "NoReply"
    assert daemon.wait() == -signal.SIGTRAP
    assert daemon.journal() == journal
    assert UNHANDLED in daemon.stderr()
    assert ("stod" if value_type == "d" else "stoi") in daemon.stderr()


def test_a_value_that_does_not_convert_is_harmless_until_it_is_read(bed):
    daemon = bed.start([bed.par("A", "abc\n", type="i"), bed.par("B", "1\n")])
    assert bed.get(ROOT, BOARD, "B").get_string() == "1"
    assert 'property type="i" name="A"' in bed.introspect(ROOT)
    assert daemon.process.poll() is None


def test_text_that_is_not_utf_8_ends_the_daemon_on_get(bed):
    daemon, journal = started(bed, bed.par("A", b"\xff\xfe\n"))
    assert error_of(bed.get, ROOT, BOARD, "A")[0] == ERROR + "NoReply"
    assert daemon.wait() == -signal.SIGABRT
    assert daemon.journal() == journal


def test_text_that_is_not_utf_8_is_missing_in_get_all(bed):
    daemon = bed.start([bed.par("A", b"\xff\xfe\n"), bed.par("B", "1\n")])
    assert bed.get_all(ROOT, BOARD) == {"B": "1"}
    assert daemon.process.poll() is None


def test_a_read_never_looks_into_the_file(bed):
    bed.start([bed.par("A", "1\n")])
    bed.file("A.txt", "2\n")
    assert bed.get(ROOT, BOARD, "A").get_string() == "1"


@pytest.mark.parametrize("path, interface, name, error, text", [
    (f"{ROOT}/Other", BOARD, "A", "UnknownMethod", f"Object does not exist at path \u201c{ROOT}/Other\u201d"),
    (f"{ROOT}x", BOARD, "A", "UnknownMethod", f"Object does not exist at path \u201c{ROOT}x\u201d"),
    ("/", BOARD, "A", "UnknownMethod", "Object does not exist at path \u201c/\u201d"),
    (ROOT, f"{INTERFACE}.Other", "A", "InvalidArgs", f"No such interface \u201c{INTERFACE}.Other\u201d"),
    (ROOT, f"{INTERFACE}.board", "A", "InvalidArgs", f"No such interface \u201c{INTERFACE}.board\u201d"),
    (ROOT, BOARD, "B", "InvalidArgs", "No such property \u201cB\u201d"),
    (ROOT, BOARD, "a", "InvalidArgs", "No such property \u201ca\u201d"),
    (ROOT, BOARD, "", "InvalidArgs", "No such property \u201c\u201d"),
    (f"{ROOT}/Child", BOARD, "A", "InvalidArgs", f"No such interface \u201c{BOARD}\u201d"),
])
def test_what_is_not_declared_is_refused_by_the_bus_library(bed, path, interface, name, error, text):
    daemon = bed.start([bed.par("A", "1\n"), bed.par("C", "2\n", interface="Network", objectpath="Child")])
    journal = daemon.journal()
    assert error_of(bed.get, path, interface, name) == (ERROR + error, text)
    assert daemon.journal() == journal
    assert daemon.stderr() == ""


def test_a_property_with_write_alone_cannot_be_read(bed):
    daemon = bed.start([bed.par("A", "abc\n", type="i", read=False, write=True), bed.par("B", "1\n")])
    journal = daemon.journal()
    assert error_of(bed.get, ROOT, BOARD, "A") == (INVALID_ARGUMENTS, "Property \u201cA\u201d is not readable")
    assert bed.get_all(ROOT, BOARD) == {"B": "1"}
    assert daemon.journal() == journal


def test_a_property_with_neither_flag_can_be_read(bed):
    bed.start([bed.par("A", "1\n", read=False, write=False)])
    assert bed.get(ROOT, BOARD, "A").get_string() == "1"
    assert bed.get_all(ROOT, BOARD) == {"A": "1"}


@pytest.mark.parametrize("read, write, access", [
    (True, True, "readwrite"), (False, True, "write"), (True, False, "read"), (False, False, "read"),
])
@pytest.mark.parametrize("object_path", ["", "Child"])
def test_introspection_shows_what_is_declared(bed, object_path, read, write, access):
    bed.start([bed.par("A", "1\n", objectpath=object_path, type="u", read=read, write=write)])
    xml = bed.introspect(full_path(object_path))
    assert f'<interface name="{BOARD}">' in xml
    assert f'<property type="u" name="A" access="{access}"' in xml
    assert xml.count("<property ") == 1


def test_entries_of_one_path_share_the_interface_of_the_first(bed):
    first = bed.par("A", "1\n", interface="Board")
    second = bed.par("B", "2\n", interface="Network")
    daemon = bed.start([first, second])
    xml = bed.introspect(ROOT)
    assert f'<interface name="{BOARD}">' in xml and f"{INTERFACE}.Network" not in xml
    assert '<property type="s" name="A" access="read"' in xml and '<property type="s" name="B" access="read"' in xml
    assert daemon.journal() == [*messages.par_entry(first, "1"), *messages.par_entry(second, "2"),
                                *messages.serving(("", "Board", [("A", "s", "read"), ("B", "s", "read")]))]


def foreign_interface(bed):
    """B is declared on the interface of A, where no entry has it."""
    return [bed.par("A", "1\n"), bed.par("B", "2\n", interface="Network")]


def escaped(**keys):
    """A key that reads otherwise once the introspection document is parsed: no entry has what is published."""
    return lambda bed: [{**bed.par("A", "1\n"), **keys}]


@pytest.mark.parametrize("elements, request_path, name, what, text, error", [
    pytest.param(foreign_interface, ROOT, "B", "Property", "property B unknown", "UnknownProperty", id="property"),
    pytest.param(escaped(name="&#65;"), ROOT, "A", "Property", "property A unknown", "UnknownProperty",
                 id="escaped property"),
    pytest.param(escaped(interface="&#66;oard"), ROOT, "A", "Interface", f"interface {BOARD} unknown",
                 "UnknownInterface", id="interface"),
    pytest.param(escaped(objectpath="&#67;hild"), f"{ROOT}/Child", "A", "Object path", f"object {ROOT}/Child unknown",
                 "UnknownObject", id="object path"),
])
def test_what_is_declared_but_no_entry_has_is_refused_and_logged(bed, elements, request_path, name, what, text, error):
    daemon = bed.start(elements(bed))
    journal = daemon.journal()
    missing = {"Property": name, "Interface": BOARD, "Object path": request_path}[what]
    message = messages.lookup_failed("onGetProperty", what, missing)
    assert error_of(bed.get, request_path, BOARD, name) == (ERROR + error, text)
    assert daemon.journal() == [*journal, message]
    # Asked for all properties, the bus library leaves out what it cannot get.
    assert bed.get_all(request_path, BOARD) == ({"A": "1"} if elements is foreign_interface else {})
    assert daemon.journal() == [*journal, message, message]
    assert daemon.stderr() == ""


def test_a_request_with_the_entry_s_own_interface_is_refused_where_the_first_entry_names_it(bed):
    daemon = bed.start(foreign_interface(bed))
    journal = daemon.journal()
    assert error_of(bed.get, ROOT, f"{INTERFACE}.Network", "B")[0] == INVALID_ARGUMENTS
    assert daemon.journal() == journal


def test_entries_on_different_paths_may_share_an_interface(bed):
    bed.start([bed.par(name, f"{name}\n", objectpath=name) for name in ("Eth0", "Eth1")])
    assert bed.get_all(full_path("Eth0"), BOARD) == {"Eth0": "Eth0"}
    assert bed.get_all(full_path("Eth1"), BOARD) == {"Eth1": "Eth1"}


def test_of_entries_with_one_identity_the_first_answers(bed):
    first, second = bed.par("A", "1\n"), {**bed.par("A", None, path=bed.file("second", "2\n")), "type": "i"}
    daemon = bed.start([first, bed.par("B", "3\n"), second])
    assert daemon.stdout().splitlines()[1:4] == [b"A                       : 1", b"B                       : 3",
                                                 b"A                       : 2"]
    assert bed.get(ROOT, BOARD, "A").print_(True) == "'1'"
    assert bed.get_all(ROOT, BOARD) == {"A": "1", "B": "3"}


def test_of_entries_with_one_name_on_one_path_the_published_interface_chooses(bed):
    bed.start([bed.par("X", "0\n"), bed.par("A", None, path=bed.file("network", "1\n"), interface="Network"),
               bed.par("A", None, path=bed.file("board", "2\n"))])
    assert bed.get(ROOT, BOARD, "A").get_string() == "2"


def test_many_reads_in_a_row_are_answered_in_order(bed):
    bed.start([bed.par(f"P{i}", f"{i}\n", objectpath=f"O{i % 5}", type="u") for i in range(50)])
    for _ in range(4):
        for i in range(50):
            assert bed.get(full_path(f"O{i % 5}"), BOARD, f"P{i}").get_uint32() == i
