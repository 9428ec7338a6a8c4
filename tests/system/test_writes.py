"""Writes of properties: the text that is stored, the signal, and what a failed write leaves behind."""

import os
import resource
import signal
import stat

import pytest
from gi.repository import Gio, GLib

import messages
from testbed import BUS_NAME, INTERFACE, PROPERTIES, ROOT, TIMEOUT, Signals, error_of, full_path, wait_until

BOARD = f"{INTERFACE}.Board"
ERROR = "org.freedesktop.DBus.Error."
CHANGED = (ROOT, PROPERTIES, "PropertiesChanged", "()")


def string(text):
    return GLib.Variant("s", text)


def content_of(path):
    with open(path, "rb") as file:
        return file.read()


def writable(bed, content="old\n", **keys):
    """Returns a writable element named A."""
    return bed.par("A", content, **{"write": True, **keys})


def check_write(bed, element, value, stored):
    """Writes the property of the only element; checks reply, file, signal, journal and standard error."""
    daemon = bed.start([element])
    journal = daemon.journal()
    signals = Signals(bed.bus)
    assert bed.set(ROOT, BOARD, "A", value) == ()
    assert content_of(element["path"]) == stored.encode() + b"\n"
    assert signals.so_far() == [CHANGED]
    assert daemon.journal() == journal
    assert daemon.stderr() == ""
    return daemon


@pytest.mark.parametrize("value_type, value, stored, answer", [
    # The text format of the type; a read then answers by the type.
    ("y", "byte 0x2a", "0x2a", "'0x2a'"),
    ("y", "byte 0x00", "0x00", "'0x00'"),
    ("b", "true", "true", "true"),
    ("b", "false", "false", "false"),
    ("n", "int16 -32768", "-32768", "'-32768'"),
    ("q", "uint16 65535", "65535", "'65535'"),
    ("i", "-2147483648", "-2147483648", "-2147483648"),
    ("i", "2147483647", "2147483647", "2147483647"),
    ("i", "0", "0", "0"),
    ("u", "uint32 0", "0", "uint32 0"),
    ("u", "uint32 2147483647", "2147483647", "uint32 2147483647"),
    ("x", "int64 -9223372036854775808", "-9223372036854775808", "'-9223372036854775808'"),
    ("t", "uint64 18446744073709551615", "18446744073709551615", "'18446744073709551615'"),
    ("d", "1.0", "1.0", "1.0"),
    ("d", "-2.5", "-2.5", "-2.5"),
    ("d", "0.1", "0.10000000000000001", "0.10000000000000001"),
    ("d", "1e300", "1.0000000000000001e+300", "1.0000000000000001e+300"),
    ("d", "inf", "inf", "inf"),
    ("o", "objectpath '/a/b'", "/a/b", "'/a/b'"),
    ("g", "signature 'a{sv}'", "a{sv}", "'a{sv}'"),
    ("v", "<'x'>", "<'x'>", '"<\'x\'>"'),
    ("v", "<uint16 5>", "<uint16 5>", "'<uint16 5>'"),
    ("as", "['a', 'b']", "['a', 'b']", '"[\'a\', \'b\']"'),
    ("as", "@as []", "[]", "'[]'"),
    ("ai", "[1, -2]", "[1, -2]", "'[1, -2]'"),
    ("ay", "[byte 0x01, 0xff]", "[0x01, 0xff]", "'[0x01, 0xff]'"),
    ("ay", "b'hi'", "b'hi", '"b\'hi"'),
    ("(is)", "(1, 'a')", "(1, 'a')", '"(1, \'a\')"'),
    ("a{sv}", "{'a': <true>}", "{'a': <true>}", '"{\'a\': <true>}"'),
])
def test_a_value_is_stored_in_the_text_format_of_its_type(bed, value_type, value, stored, answer):
    check_write(bed, writable(bed, type=value_type), GLib.Variant.parse(GLib.VariantType(value_type), value), stored)
    assert bed.get(ROOT, BOARD, "A").print_(True) == answer


def test_not_a_number_is_stored(bed):
    check_write(bed, writable(bed, type="d"), GLib.Variant("d", float("nan")), "nan")
    answer = bed.get(ROOT, BOARD, "A").get_double()
    assert answer != answer


@pytest.mark.parametrize("text, stored", [
    pytest.param("abc", "abc", id="plain"),
    pytest.param("", "", id="empty"),
    pytest.param("  a b  ", "  a b  ", id="blanks"),
    pytest.param("it's", '"it\'s"', id="a single quote brings double quotes"),
    pytest.param("'abc'", '"\'abc\'"', id="single quotes around"),
    pytest.param("'", '"\'"', id="a single quote alone"),
    pytest.param("''", '"\'\'"', id="two single quotes"),
    pytest.param('say "hi"', 'say "hi"', id="double quotes"),
    pytest.param('"', '"', id="a double quote alone"),
    pytest.param('it\'s "x"', '"it\'s \\"x\\""', id="both kinds of quotes"),
    pytest.param("a\\b", "a\\\\b", id="backslash"),
    pytest.param("\\", "\\\\", id="a backslash alone"),
    pytest.param("a\nb", "a\\nb", id="line feed"),
    pytest.param("\n", "\\n", id="a line feed alone"),
    pytest.param("a\tb\rc", "a\\tb\\rc", id="tabulator and carriage return"),
    pytest.param("\a\b\f\v", "\\a\\b\\f\\v", id="control characters with a letter"),
    pytest.param("\x01\x1b\x7f", "\\u0001\\u001b\\u007f", id="control characters without a letter"),
    pytest.param("Gr\u00f6\u00dfe \u6f22 \U0001f600", "Gr\u00f6\u00dfe \u6f22 \U0001f600", id="non-ASCII"),
    pytest.param("a\u200bb\u0085", "a\\u200bb\\u0085", id="non-ASCII that does not print"),
    pytest.param("%s%n%%", "%s%n%%", id="percent signs"),
    pytest.param("$HOME `id` #<&>", "$HOME `id` #<&>", id="characters with a meaning elsewhere"),
    pytest.param("x" * 100000, "x" * 100000, id="long"),
])
def test_a_string_is_stored_without_the_single_quotes_around_it(bed, text, stored):
    check_write(bed, writable(bed), string(text), stored)
    assert bed.get(ROOT, BOARD, "A").get_string() == stored


@pytest.mark.parametrize("text", ["abc", "", "it's", "a\nb", "Gr\u00f6\u00dfe"], ids=repr)
def test_a_written_value_is_read_at_the_next_start(bed, text):
    element = writable(bed)
    daemon = check_write(bed, element, string(text), stored := {"it's": '"it\'s"', "a\nb": "a\\nb"}.get(text, text))
    daemon.kill()
    bed.start([element])
    assert bed.get(ROOT, BOARD, "A").get_string() == stored


def test_a_large_unsigned_number_is_stored_and_its_next_read_ends_the_daemon(bed):
    daemon = check_write(bed, writable(bed, "1\n", type="u"), GLib.Variant("u", 2147483648), "2147483648")
    assert error_of(bed.get, ROOT, BOARD, "A")[0] == ERROR + "NoReply"
    assert daemon.wait() == -signal.SIGTRAP


@pytest.mark.parametrize("old", ["", "a much longer old text\nwith a second line\n", "no line feed"])
def test_the_whole_file_is_replaced(bed, old):
    check_write(bed, writable(bed, old), string("new"), "new")


def test_fuses_are_replaced_by_text(bed):
    element = bed.fuses("A", bytes(range(16)), 8, 2, write=True, translate={"abc": "x", "*": "y"})
    check_write(bed, element, string("abc"), "abc")
    assert bed.get(ROOT, BOARD, "A").get_string() == "abc"


def test_a_value_of_an_unknown_location_is_stored(bed):
    check_write(bed, writable(bed, location="elsewhere"), string("abc"), "abc")
    assert bed.get(ROOT, BOARD, "A").get_string() == "abc"


@pytest.mark.parametrize("umask, mode", [(0o022, 0o644), (0o027, 0o640), (0o077, 0o600), (0o000, 0o666)])
def test_a_missing_file_is_made_with_the_mode_that_the_umask_leaves(bed, umask, mode):
    path = os.path.join(bed.directory, "new")
    bed.start([writable(bed, path=path)], umask=umask)
    bed.set(ROOT, BOARD, "A", string("abc"))
    assert content_of(path) == b"abc\n"
    assert stat.S_IMODE(os.stat(path).st_mode) == mode


def test_a_file_keeps_its_mode_and_a_link_its_target(bed):
    element = writable(bed, path=os.path.join(bed.directory, "link"))
    target = bed.file("target", "old\n")
    os.chmod(target, 0o640)
    os.symlink(target, element["path"])
    check_write(bed, element, string("new"), "new")
    assert os.path.islink(element["path"])
    assert content_of(target) == b"new\n"
    assert stat.S_IMODE(os.stat(target).st_mode) == 0o640


@pytest.mark.parametrize("is_signal", [True, False])
@pytest.mark.parametrize("object_path", ["", "Child"])
@pytest.mark.parametrize("read", [True, False])
def test_a_write_sends_one_signal_whatever_the_flags(bed, object_path, is_signal, read):
    bed.start([writable(bed, objectpath=object_path, signal=is_signal, read=read)])
    signals = Signals(bed.bus)
    bed.set(full_path(object_path), BOARD, "A", string("new"))
    assert signals.so_far() == [(full_path(object_path), *CHANGED[1:])]


def test_a_write_of_the_same_value_sends_a_signal_too(bed):
    bed.start([writable(bed, "same\n")])
    signals = Signals(bed.bus)
    for _ in range(3):
        bed.set(ROOT, BOARD, "A", string("same"))
    assert signals.so_far() == [CHANGED] * 3


def test_signals_come_in_the_order_of_the_writes(bed):
    paths = ["C", "", "B", "C", "C", "A", ""]
    bed.start([writable(bed, objectpath=path) for path in sorted(set(paths))])
    signals = Signals(bed.bus)
    for path in paths:
        bed.set(full_path(path), BOARD, "A", string(path))
    assert signals.so_far() == [(full_path(path), *CHANGED[1:]) for path in paths]


def test_a_start_and_a_read_send_no_signal(bed):
    bed.start([writable(bed)])
    signals = Signals(bed.bus)
    bed.get(ROOT, BOARD, "A")
    bed.get_all(ROOT, BOARD)
    assert signals.so_far() == []


def test_the_signal_comes_before_the_reply(bed):
    bed.start([writable(bed)])
    events = []
    connection = bed.bus.connect()
    connection.signal_subscribe(BUS_NAME, PROPERTIES, None, None, None, Gio.DBusSignalFlags.NONE,
                                lambda *message: events.append(message[4]))
    for text in ("1", "2"):
        connection.call(BUS_NAME, ROOT, PROPERTIES, "Set", GLib.Variant("(ssv)", (BOARD, "A", string(text))), None,
                        Gio.DBusCallFlags.NONE, TIMEOUT * 1000, None,
                        lambda source, result: events.append(source.call_finish(result).print_(True)))
    wait_until(lambda: events.count("()") == 2, "the replies")
    assert events == ["PropertiesChanged", "()"] * 2


def test_the_signal_is_a_broadcast_of_the_daemon(bed):
    bed.start([writable(bed)])
    others = [Signals(bed.bus) for _ in range(3)]
    bed.set(ROOT, BOARD, "A", string("new"))
    assert [signals.so_far() for signals in others] == [[CHANGED]] * 3


def failing_write(bed, element, logged, answer):
    """Writes "new" where that fails; checks that nobody but the journal says so, and what a read then answers."""
    daemon = bed.start([element])
    journal = daemon.journal()
    signals = Signals(bed.bus)
    assert bed.set(ROOT, BOARD, "A", string("new")) == ()
    assert signals.so_far() == [CHANGED]
    assert daemon.journal() == [*journal, *logged]
    assert daemon.stderr() == ""
    assert bed.get(ROOT, BOARD, "A").get_string() == answer


@pytest.mark.parametrize("path", ["missing/file", "", ".", "/", "/dev/null/file"])
def test_a_file_that_cannot_be_opened_is_logged_alone(bed, path):
    path = os.path.join(bed.directory, path) if path == "missing/file" else path
    failing_write(bed, writable(bed, path=path), [messages.NOT_ACCESSIBLE], "")
    assert not os.path.exists(os.path.join(bed.directory, "missing"))


def test_a_read_only_file_keeps_its_text_and_the_property_its_value(bed):
    path = os.path.join(bed.tmpfs("read-only", "mode=755"), "value")
    with open(path, "w", encoding="utf-8") as file:
        file.write("old\n")
    bed.make_read_only(os.path.dirname(path))
    failing_write(bed, writable(bed, path=path), [messages.NOT_ACCESSIBLE], "old")
    assert content_of(path) == b"old\n"


def test_a_folder_that_was_removed_keeps_the_property_s_value(bed):
    folder = bed.folder("removed")
    element = writable(bed, path=bed.file("removed/value", "old\n"))
    bed.start([element])
    os.remove(element["path"])
    os.rmdir(folder)
    bed.set(ROOT, BOARD, "A", string("new"))
    assert bed.get(ROOT, BOARD, "A").get_string() == "old"
    assert not os.path.exists(folder)


def fill(folder):
    """Fills the file system of a folder."""
    with open(os.path.join(folder, "filler"), "wb", buffering=0) as file:
        try:
            while True:
                file.write(b"x" * 4096)
        except OSError:
            pass


def test_a_full_disk_loses_the_file_and_the_property_has_the_new_value(bed):
    folder = bed.tmpfs("full", "size=64k")
    fill(folder)
    element = writable(bed, path=os.path.join(folder, "value"))
    failing_write(bed, element, [], "new")
    assert content_of(element["path"]) == b""


def test_a_disk_that_runs_full_keeps_what_fitted(bed):
    folder = bed.tmpfs("full", "size=64k")
    element = writable(bed, path=bed.file("full/value", "old\n"))
    fill(folder)
    bed.start([element])
    text = "x" * 100000
    assert bed.set(ROOT, BOARD, "A", string(text)) == ()
    assert bed.get(ROOT, BOARD, "A").get_string() == text
    stored = content_of(element["path"])
    assert 0 < len(stored) < len(text)
    assert text.startswith(stored.decode())


def limit_files(daemon, number):
    """Leaves a daemon this number of files that it may still open."""
    used = {int(name) for name in os.listdir(f"/proc/{daemon.process.pid}/fd")}
    limit = 0
    while number or limit in used:
        number -= limit not in used
        limit += 1
    resource.prlimit(daemon.process.pid, resource.RLIMIT_NOFILE, (limit, limit))


@pytest.mark.parametrize("number, logged, stored, answer", [
    (0, [messages.NOT_ACCESSIBLE], b"old\n", "old"),
    (1, [messages.NOT_OPENED], b"", "old"),
    (2, [], b"new\n", "new"),
])
def test_the_file_is_opened_twice_and_emptied_by_the_first(bed, number, logged, stored, answer):
    element = writable(bed)
    daemon = bed.start([element])
    journal = daemon.journal()
    signals = Signals(bed.bus)
    limit_files(daemon, number)
    assert bed.set(ROOT, BOARD, "A", string("new")) == ()
    assert signals.so_far() == [CHANGED]
    assert daemon.journal() == [*journal, *logged]
    assert content_of(element["path"]) == stored
    assert bed.get(ROOT, BOARD, "A").get_string() == answer


def test_a_write_that_failed_can_succeed_later(bed):
    element = writable(bed, path=os.path.join(bed.directory, "later", "value"))
    failing_write(bed, element, [messages.NOT_ACCESSIBLE], "")
    bed.folder("later")
    bed.set(ROOT, BOARD, "A", string("new"))
    assert content_of(element["path"]) == b"new\n"
    assert bed.get(ROOT, BOARD, "A").get_string() == "new"


NOT_EXPECTED = "Error setting property \u201cA\u201d: Expected type \u201c{}\u201d but got \u201c{}\u201d"


@pytest.mark.parametrize("keys, request_path, interface, name, value, error, text", [
    pytest.param({}, ROOT, BOARD, "A", GLib.Variant("i", 5), "InvalidArgs", NOT_EXPECTED.format("s", "i"),
                 id="number for a string"),
    pytest.param({"type": "i"}, ROOT, BOARD, "A", string("5"), "InvalidArgs", NOT_EXPECTED.format("i", "s"),
                 id="string for a number"),
    pytest.param({"type": "u"}, ROOT, BOARD, "A", GLib.Variant("i", 5), "InvalidArgs", NOT_EXPECTED.format("u", "i"),
                 id="signed for unsigned"),
    pytest.param({"type": "y"}, ROOT, BOARD, "A", string("5"), "InvalidArgs", NOT_EXPECTED.format("y", "s"),
                 id="string for a type that is read as a string"),
    pytest.param({"write": False}, ROOT, BOARD, "A", string("5"), "InvalidArgs",
                 "Property \u201cA\u201d is not writable", id="read-only property"),
    pytest.param({"write": False, "read": False}, ROOT, BOARD, "A", string("5"), "InvalidArgs",
                 "Property \u201cA\u201d is not writable", id="property with neither flag"),
    pytest.param({}, ROOT, BOARD, "B", string("5"), "InvalidArgs", "No such property \u201cB\u201d",
                 id="undeclared property"),
    pytest.param({}, ROOT, f"{INTERFACE}.Other", "A", string("5"), "InvalidArgs",
                 f"No such interface \u201c{INTERFACE}.Other\u201d", id="undeclared interface"),
    pytest.param({}, f"{ROOT}/Other", BOARD, "A", string("5"), "UnknownMethod",
                 f"Object does not exist at path \u201c{ROOT}/Other\u201d", id="unknown object"),
    pytest.param({"name": "&#65;"}, ROOT, BOARD, "A", string("5"), "UnknownProperty", "property A unknown",
                 id="declared, but no entry has the property"),
    pytest.param({"interface": "&#66;oard"}, ROOT, BOARD, "A", string("5"), "UnknownInterface",
                 f"interface {BOARD} unknown", id="declared, but no entry has the interface"),
    pytest.param({"objectpath": "&#67;"}, f"{ROOT}/C", BOARD, "A", string("5"), "UnknownObject",
                 f"object {ROOT}/C unknown", id="declared, but no entry has the object path"),
])
def test_a_refused_write_changes_nothing(bed, keys, request_path, interface, name, value, error, text):
    element = {**writable(bed, "1\n"), **keys}
    daemon = bed.start([element])
    journal = daemon.journal()
    signals = Signals(bed.bus)
    assert error_of(bed.set, request_path, interface, name, value) == (ERROR + error, text)
    refused_by_handler = {
        "UnknownProperty": [messages.lookup_failed("setProperty", "Property", name)],
        "UnknownInterface": [messages.lookup_failed("setProperty", "Interface", interface)],
        "UnknownObject": [messages.lookup_failed("setProperty", "Object path", request_path)]}
    assert daemon.journal() == [*journal, *refused_by_handler.get(error, [])]
    assert content_of(element["path"]) == b"1\n"
    assert signals.so_far() == []
    assert daemon.stderr() == ""


def test_an_entry_declared_on_a_foreign_interface_cannot_be_written(bed):
    second = bed.par("B", "2\n", interface="Network", write=True)
    daemon = bed.start([writable(bed), second])
    journal = daemon.journal()
    assert error_of(bed.set, ROOT, BOARD, "B", string("x")) == (ERROR + "UnknownProperty", "property B unknown")
    assert daemon.journal() == [*journal, (5, "src/dbus/DBusServices.cpp", 410, "setProperty", "Property B not found")]
    assert content_of(second["path"]) == b"2\n"


def test_of_entries_with_one_identity_the_first_is_written(bed):
    first, second = writable(bed), writable(bed, path=bed.file("second", "second\n"))
    other = bed.par("Other", "other\n", write=True)
    bed.start([first, other, second])
    bed.set(ROOT, BOARD, "A", string("new"))
    assert content_of(first["path"]) == b"new\n"
    assert content_of(second["path"]) == b"second\n"
    assert content_of(other["path"]) == b"other\n"
    assert bed.get_all(ROOT, BOARD) == {"A": "new", "Other": "other"}


def test_entries_that_share_a_file_keep_their_own_values(bed):
    first = writable(bed)
    bed.start([first, {**first, "name": "B"}])
    bed.set(ROOT, BOARD, "A", string("new"))
    assert content_of(first["path"]) == b"new\n"
    assert bed.get_all(ROOT, BOARD) == {"A": "new", "B": "old"}


def test_each_entry_is_written_at_its_own_place(bed):
    elements = [bed.par(f"P{i}", "old\n", objectpath=f"O{i % 3}", write=True) for i in range(9)]
    bed.start(elements)
    for i in reversed(range(9)):
        bed.set(full_path(f"O{i % 3}"), BOARD, f"P{i}", string(f"new {i}"))
    assert [content_of(element["path"]) for element in elements] == [f"new {i}\n".encode() for i in range(9)]
    for i in range(9):
        assert bed.get(full_path(f"O{i % 3}"), BOARD, f"P{i}").get_string() == f"new {i}"


def test_many_writes_are_all_announced(bed):
    element = writable(bed)
    bed.start([element])
    signals = Signals(bed.bus)
    for i in range(200):
        bed.set(ROOT, BOARD, "A", string(str(i)))
        assert bed.get(ROOT, BOARD, "A").get_string() == str(i)
    assert signals.so_far() == [CHANGED] * 200
    assert content_of(element["path"]) == b"199\n"
