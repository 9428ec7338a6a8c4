"""The configuration file: what parses, what does not, what raises, and what an entry becomes."""

import json
import signal

import pytest

import messages
from testbed import INTERFACE, ROOT

BEGIN = "#### Begin board information ####\n"
END = "#### End board information ####\n"
JSON_ERROR = "terminate called after throwing an instance of 'Json::LogicError'\n"


def listing(*values):
    """Returns the listing of entries (name, value)."""
    return (BEGIN + "".join(f"{name:24}: {value}\n" for name, value in values) + END).encode()


@pytest.mark.parametrize("document", [
    "", " \n", "[", "{", "]", "[}", '[{"name": "A"}', '[{"name": "A"', '[{"name" "A"}]', '[{"name": }]',
    '[{name: "A"}]', "[{'name': 'A'}]", '[{"name": "A}]', '[{"name": "A"} {"name": "B"}]', "nul", "NaN", "/* open",
    "// only a comment", "# comment\n[]", '[{"name": "\\q"}]', '[{"length": 0x10}]', b"\x00", b"\xff\xfe[\x00]\x00",
], ids=repr)
def test_a_document_that_does_not_parse_ends_the_daemon(bed, document):
    daemon, status = bed.run_to_end(document)
    assert status == 0
    assert daemon.journal() == [messages.NOT_PARSED, messages.NO_CONFIGURATION]
    assert daemon.stdout() == b""
    assert daemon.stderr() == ""


@pytest.mark.parametrize("document", [
    "[]", "[ ]", "null", "{}", "5", "-1.5", "true", '"x"', '""', "// comment\n[]\n/* comment */", "[] more", "[]]",
    "\ufeff[]",
], ids=repr)
def test_a_document_without_entries_is_served(bed, document):
    daemon = bed.start(document)
    assert daemon.stdout() == listing()
    assert daemon.journal() == messages.serving()
    assert daemon.stderr() == ""


def test_the_journal_of_a_start_in_order(bed):
    serial = bed.par("Serial", "4711\r\nsecond line\n", interface="Board", length=300, signal=True)
    boot = bed.fuses("Boot", b"\x00" * 5 + b"\x02\x03", "0x5", 1, interface="Fuses", objectpath="Soc", write=True,
                     translate={"2": "eMMC", "*": "unknown"})
    daemon = bed.start([serial, boot])
    assert daemon.journal() == [
        (6, "src/ConfigFileParser.cpp", 63, "parseData", "-------------------------------------"),
        (6, "src/ConfigFileParser.cpp", 64, "parseData", "Current Entry: Serial"),
        (7, "src/ConfigFileParser.cpp", 68, "parseData",
         'Current Entry JSON:\n{\n\t"interface" : "Board",\n\t"length" : 300,\n\t"location" : "par",\n'
         f'\t"name" : "Serial",\n\t"objectpath" : "",\n\t"path" : "{serial["path"]}",\n\t"read" : true,\n'
         '\t"signal" : true,\n\t"type" : "s",\n\t"write" : false\n}'),
        (7, "src/ConfigFileParser.cpp", 87, "parseData",
         "Config Entry:\nname:       Serial\ninterface:  Board\nobjectPath: \nlocation:   par\n"
         "offset:     0x00000000\nlength:     12c\ntype:       s\ncontent:    4711\r\n"
         "isRead:     1\nisWrite:    0\nisSignal:   1"),
        (6, "src/ConfigFileParser.cpp", 63, "parseData", "-------------------------------------"),
        (6, "src/ConfigFileParser.cpp", 64, "parseData", "Current Entry: Boot"),
        (7, "src/ConfigFileParser.cpp", 68, "parseData",
         'Current Entry JSON:\n{\n\t"interface" : "Fuses",\n\t"length" : 1,\n\t"location" : "fuses",\n'
         f'\t"name" : "Boot",\n\t"objectpath" : "Soc",\n\t"offset" : "0x5",\n\t"path" : "{boot["path"]}",\n'
         '\t"read" : true,\n\t"signal" : false,\n'
         '\t"translate" : \n\t{\n\t\t"*" : "unknown",\n\t\t"2" : "eMMC"\n\t},\n\t"type" : "s",\n\t"write" : true\n}'),
        (7, "src/ConfigFileParser.cpp", 87, "parseData",
         "Config Entry:\nname:       Boot\ninterface:  Fuses\nobjectPath: Soc\nlocation:   fuses\n"
         "offset:     0x00000005\nlength:     1\ntype:       s\ncontent:    eMMC\n"
         "isRead:     1\nisWrite:    1\nisSignal:   0"),
        (6, "src/korvaneinfod.cpp", 38, "main", "Initializing D-Bus Service"),
        (7, "src/dbus/DBusServices.cpp", 229, "generateXMLFile",
         "XML file: <node name='/com/brenvok/Korvaneinfo1'> <interface name='com.brenvok.Info1.Board'>"
         "  <property name='Serial' type='s' access='read'/> </interface>"
         "<node name='/com/brenvok/Korvaneinfo1/Soc'> <interface name='com.brenvok.Info1.Fuses'>"
         "  <property name='Boot' type='s' access='readwrite'/> </interface></node></node>"),
        (7, "src/dbus/DBusServices.cpp", 52, "DBusServices",
         "Introspection Data:\n<node name='/com/brenvok/Korvaneinfo1'> <interface name='com.brenvok.Info1.Board'>"
         "  <property name='Serial' type='s' access='read'/> </interface>"
         "<node name='/com/brenvok/Korvaneinfo1/Soc'> <interface name='com.brenvok.Info1.Fuses'>"
         "  <property name='Boot' type='s' access='readwrite'/> </interface></node></node>"),
        (6, "src/dbus/DBusServices.cpp", 425, "onBusAcquired",
         "Bus acquired com.brenvok.korvaneinfod, registering objects"),
        (7, "src/dbus/DBusServices.cpp", 494, "registerObjects", "Registering interfaces"),
        (7, "src/dbus/DBusServices.cpp", 519, "registerInterfaces", "Registering interfaces"),
        (7, "src/dbus/DBusServices.cpp", 494, "registerObjects", "Registering interfaces"),
        (7, "src/dbus/DBusServices.cpp", 519, "registerInterfaces", "Registering interfaces"),
        (6, "src/dbus/DBusServices.cpp", 446, "onNameAcquired", "Name acquired: com.brenvok.korvaneinfod"),
    ]
    assert daemon.stdout() == (b"#### Begin board information ####\n"
                               b"Serial                  : 4711\r\n"
                               b"Boot                    : eMMC\n"
                               b"#### End board information ####\n")
    assert daemon.stderr() == ""


@pytest.mark.parametrize("document", [
    '{"name": "A"}', "[5]", '["name"]', "[true]", "[[]]", '[["name"]]', '[{"name": []}]', '[{"name": {"a": 1}}]',
], ids=repr)
def test_an_element_without_a_name_to_read_ends_the_daemon(bed, document):
    daemon, status = bed.run_to_end(document)
    assert status == -signal.SIGABRT
    assert daemon.journal() == ([] if document.startswith("{") else [messages.SEPARATOR])
    assert daemon.stdout() == BEGIN.encode()
    assert daemon.stderr().startswith(JSON_ERROR)


@pytest.mark.parametrize("key, value", [
    (key, value) for key in ("interface", "objectpath", "path", "location", "offset", "type")
    for value in ([], {"a": 1})
] + [
    (key, value) for key in ("read", "write", "signal") for value in ([], {"a": 1}, "true", "")
] + [
    ("length", value) for value in ([], {"a": 1}, "4", "", -1, 4294967296, -0.5, 4294967296.5)
], ids=repr)
@pytest.mark.parametrize("location", ["par", "fuses"])
def test_a_value_of_a_wrong_type_ends_the_daemon(bed, location, key, value):
    first = bed.par("First", "1\n")
    daemon, status = bed.run_to_end([first, {**bed.par("A", "x"), "location": location, key: value}])
    assert status == -signal.SIGABRT
    journal = daemon.journal()
    assert journal[:6] == [*messages.par_entry(first, "1"), messages.SEPARATOR, messages.current_entry("A")]
    assert journal[6][:4] == messages.current_json("")[:4]
    assert len(journal) == 7
    assert daemon.stdout() == (BEGIN + f"{'First':24}: 1\n").encode()
    assert daemon.stderr().startswith(JSON_ERROR)


@pytest.mark.parametrize("value", ["text", 5, 1.5, True, [], ["0"]], ids=repr)
def test_a_translation_that_is_no_object_ends_the_daemon(bed, value):
    daemon, status = bed.run_to_end([bed.fuses("A", b"\x01", 0, 1, translate=value)])
    assert status == -signal.SIGABRT
    assert len(daemon.journal()) == 3
    assert daemon.stdout() == BEGIN.encode()
    assert daemon.stderr().startswith(JSON_ERROR)


def test_a_document_nested_too_deeply_ends_the_daemon(bed):
    daemon, status = bed.run_to_end("[" * 2000)
    assert status == -signal.SIGABRT
    assert daemon.journal() == []
    assert daemon.stdout() == b""


@pytest.mark.parametrize("document", [
    pytest.param('[{"name": "A", "interface": "I", "type": "s", },]', id="trailing commas"),
    pytest.param('[{"name": "A", "interface": "I", "type": "s"}] [{"name": "B"}] more', id="text after the document"),
    pytest.param('// one\n[/* two */ {"name": /* three */ "A", // four\n "interface": "I", "type": "s"}]',
                 id="comments"),
    pytest.param('\ufeff[{"name": "A", "interface": "I", "type": "s"}]', id="byte order mark"),
    pytest.param('[{"name": "X", "name": "A", "interface": "I", "type": "s"}]', id="the last of two equal keys counts"),
    pytest.param('[{"name": "\\u0041", "interface": "I", "type": "s"}]', id="escaped character"),
    pytest.param('[{"name": "A", "interface": "I", "type": "s", "comment": {"read": [1]}}]', id="unknown key"),
    pytest.param('[{"name": "A", "interface": "I", "type": "s", "objectPath": "O", "Location": "par", "READ": []}]',
                 id="keys are case-sensitive"),
    pytest.param('[{"name": "A", "interface": "I", "type": "s", "objectpath": null, "path": null, "location": null, '
                 '"offset": null, "length": null, "read": null, "write": null, "signal": null, "translate": null}]',
                 id="null is the default"),
    pytest.param('[{"name": "A", "interface": "I", "type": "s", "read": false, "write": 0, "signal": 0.0, '
                 '"length": 0}]', id="defaults given"),
    pytest.param('[{"name": "A", "interface": "I", "type": "s", "length": 0.9, "length": false}]',
                 id="false is the length 0"),
])
def test_an_entry_with_defaults(bed, document):
    daemon = bed.start(document)
    assert daemon.stdout() == listing(("A", ""))
    assert [message for message in daemon.journal() if message[2] != 68] == [
        messages.SEPARATOR, messages.current_entry("A"), messages.dump("A", "I", value_type="s"),
        *messages.serving(("", "I", [("A", "s", "read")]))]


def test_a_comment_stays_with_its_element_in_the_journal(bed):
    daemon = bed.start('[{"name": "A", // of the board\n "interface": "I"}]')
    json_message = daemon.journal()[2]
    assert json_message[:4] == messages.current_json("")[:4]
    assert "// of the board" in json_message[4]


def test_an_element_that_is_null_or_empty_is_an_entry_of_defaults(bed):
    daemon, status = bed.run_to_end("[null, {}]")
    assert status == 0
    assert daemon.stdout() == listing(("", ""), ("", ""))
    xml = ("<node name='/com/brenvok/Korvaneinfo1'> <interface name='com.brenvok.Info1.'>"
           "  <property name='' type='' access='read'/> <property name='' type='' access='read'/> </interface></node>")
    assert daemon.journal() == [
        messages.SEPARATOR, messages.current_entry(""), messages.current_json("null"), messages.dump(),
        messages.SEPARATOR, messages.current_entry(""), messages.current_json("{}"), messages.dump(),
        *messages.initialized(xml),
        messages.BUS_ACQUIRED, messages.OBJECT, messages.NOT_REGISTERED, messages.REGISTRATION_FAILED]


@pytest.mark.parametrize("keys, dump", [
    ({"length": 10}, {"length": "a"}),
    ({"length": 16}, {"length": "10"}),
    ({"length": 4294967295}, {"length": "ffffffff"}),
    ({"length": 7.9}, {"length": "7"}),
    ({"length": True}, {"length": "1"}),
    ({"offset": 32}, {"offset": "00000020"}),
    ({"offset": "32"}, {"offset": "00000020"}),
    ({"offset": "0x20"}, {"offset": "00000020"}),
    ({"offset": "040"}, {"offset": "00000020"}),
    ({"offset": "  32 bytes"}, {"offset": "00000020"}),
    ({"offset": -1}, {"offset": "ffffffff"}),
    ({"offset": "0x1ffffffff"}, {"offset": "ffffffff"}),
    ({"offset": 4294967296}, {"offset": "00000000"}),
    ({"offset": 1.5}, {"offset": "00000001"}),
    ({"offset": ""}, {"offset": "00000000"}),
    ({"offset": "08"}, {"offset": "00000000"}),
    ({"read": 1, "write": 0.5, "signal": -1}, {"flags": "111"}),
    ({"read": True, "write": True, "signal": True}, {"flags": "111"}),
    ({"write": 7}, {"flags": "010"}),
    ({"type": 5}, {"value_type": "5"}),
    ({"location": True}, {"location": "true"}),
    ({"objectpath": 12}, {"object_path": "12"}),
    ({"objectpath": 1.5, "write": 0}, {"object_path": "1.5"}),
], ids=repr)
def test_the_forms_of_a_value(bed, keys, dump):
    daemon = bed.run("-c", bed.configuration([{"name": "A", "interface": "I", "type": "s", **keys}]))
    served = "." not in dump.get("object_path", "")
    if served:
        bed.wait_until_serving(daemon)
    else:
        assert daemon.wait() == 0
    assert daemon.journal()[3] == messages.dump(**{"name": "A", "interface": "I", "value_type": "s", **dump})


@pytest.mark.parametrize("offset, message", [
    ("abc", messages.not_a_number("abc")),
    (" ", messages.not_a_number(" ")),
    ("-", messages.not_a_number("-")),
    (True, messages.not_a_number("true")),
    ("9" * 20, messages.out_of_range("9" * 20)),
    ("-9223372036854775809", messages.out_of_range("-9223372036854775809")),
], ids=repr)
def test_an_offset_that_is_no_number_is_logged_for_each_use_and_counts_as_zero(bed, offset, message):
    par = bed.par("A", "x\n", offset=offset)
    fuses = bed.fuses("B", b"\x07\x08", offset, 1)
    daemon = bed.start([par, fuses])
    assert daemon.journal() == [
        *messages.beginning(par),
        message,
        messages.dump("A", "Board", "", "par", value_type="s", content="x", flags="100"),
        *messages.beginning(fuses),
        message,  # of the reader
        message,  # of the entry
        messages.dump("B", "Board", "", "fuses", length="1", value_type="s", content="7", flags="100"),
        *messages.serving(("", "Board", [("A", "s", "read"), ("B", "s", "read")]))]
    assert daemon.stdout() == listing(("A", "x"), ("B", "7"))


@pytest.mark.parametrize("name, line", [
    ("Serial", "Serial                  : x\n"),
    ("N" * 23, "N" * 23 + " : x\n"),
    ("N" * 24, "N" * 24 + ": x\n"),
    ("N" * 30, "N" * 30 + ": x\n"),
    ("Gr\u00f6\u00dfe", "Gr\u00f6\u00dfe                 : x\n"),  # the field is counted in bytes
    ("a b\\c", "a b\\c                   : x\n"),
])
def test_a_line_of_the_listing(bed, name, line):
    daemon = bed.start([bed.par(name, "", path=bed.file("value", "x\n"))])
    assert daemon.stdout().decode() == BEGIN + line + END


def test_a_text_in_the_journal_is_no_format(bed):
    element = bed.par("100%s%n", "%d%n\n")
    daemon = bed.start([element])
    assert daemon.journal() == [*messages.par_entry(element, "%d%n"),
                                *messages.serving(("", "Board", [("100%s%n", "s", "read")]))]
    assert daemon.stdout() == listing(("100%s%n", "%d%n"))


def test_a_long_board_is_logged_whole(bed):
    elements = [bed.par(f"Property{i:03}", f"{i}\n") for i in range(200)]
    daemon = bed.start(elements)
    properties = [(element["name"], "s", "read") for element in elements]
    assert daemon.journal() == [
        *[message for i, element in enumerate(elements) for message in messages.par_entry(element, str(i))],
        *messages.serving(("", "Board", properties))]
    assert len(bed.get_all(ROOT, f"{INTERFACE}.Board")) == 200


def test_the_configuration_is_read_once(bed):
    bed.start([bed.par("A", "1\n")])
    bed.configuration(json.dumps([bed.par("B", "2\n")]))
    bed.file("A.txt", "3\n")
    assert bed.get_all(ROOT, f"{INTERFACE}.Board") == {"A": "1"}
