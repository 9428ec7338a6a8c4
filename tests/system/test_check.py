"""Every kind of finding, with its exact text, and what the checker does with its options and its files."""

import json
import os
import re
import socket
import subprocess

import pytest

from checking import findings_of, run_check
from testbed import SOURCE_ROOT

GOOD = {"name": "Serial", "interface": "Board", "objectpath": "", "path": "/VALUES/text", "location": "par",
        "type": "s", "read": True}
FUSE = {**GOOD, "path": "/VALUES/fuse", "location": "fuses", "offset": 0, "length": 2}
LONG_FUSE = {**FUSE, "length": 8}
WITHOUT = object()  # takes a key away

VALUES = {"text": b"abc\n", "number": b"42\n", "negative": b"-1\n", "hex": b"0x1F\n", "big": b"4294967295\n",
          "small": b"1e-310\n", "huge": b"1e309\n", "latin": b"\xe4\n", "nul": b"ab\0cd\n", "one": b"1\n",
          "fuse": bytes(range(0x80, 0x90)), "blanks": b"\x80 \t\x81\x82\x83\x84\x85\x86\x87\x88"}

DATA_END = ("use \"s\", or \"b\", \"d\", \"i\" or \"u\", clients get a string for every other type [answered-as-text]")
BASE_END = "write only what comes after the daemon's own name [repeated-base]"
NAMES = "use letters, digits and underscores"
SIGNATURE_END = "write one complete D-Bus type such as \"s\", \"u\" or \"b\" [signature]"
NUMBER_END = "correct the value or use type \"s\", the daemon ends when a client reads the item [value-number]"
OFFSET_END = "write a decimal number from 0 to 4294967295, or a hexadecimal one with 0x [offset-text]"
TYPE_END = "write the type that is meant [odd-type]"
WRONG_END = "correct the type, the daemon ends at start [wrong-type]"
FILE_END = "correct the path, or who may read it, the value is read as empty [value-file]"
ZEROS_END = "correct the path, or who may read it, the daemon reads zeros [fuse-file]"
TARGET_END = ("correct the path or the owner of the file, or name it in ReadWritePaths=, a client's Set changes nothing "
              "[write-target]")
LONG_END = "shorten it, the daemon runs out of memory [value-too-long]"
DIFFERS_END = ("give all items of an object path the same interface, clients cannot reach this one "
               "[interface-differs]")
UNPUBLISHED = ["0Board", "com.brenvok.Info1.Net", "A'B"]
END_END = "correct \"offset\" or \"length\", missing bytes are zero or repeat the last one [fuse-end]"


def item(base=GOOD, **changes):
    """Returns an element with some keys changed, added or taken away."""
    return {key: value for key, value in {**base, **changes}.items() if value is not WITHOUT}


# Each case: a text or the elements, one a line from line 2 on, and the lines expected, without the name of the file.
CASES = [
    # Nothing wrong.
    ([], []),
    ([item()], []),
    ([item(), item(name="Other"), item(objectpath="Eth0", interface="Net")], []),
    ([item(type="u", path="/VALUES/number"), item(name="D", type="d", path="/VALUES/number")], []),
    ([item(FUSE, type="u", translate={"0": "1", "65535": "2", "*": "3"}), item(LONG_FUSE, name="Long")], []),
    ([item(LONG_FUSE, offset="0x8", translate={"88898a8b8c8d8e8f": "x"})], []),
    ([item(read=WITHOUT, write=True, type="u", path="/VALUES/new")],
     ["2: warning: element 0 \"Serial\": \"path\": cannot read \"/VALUES/new\": No such file or directory; " + FILE_END]),
    # The document.
    ("", ["1:1: error: Syntax error: value, object or array expected; "
          "correct the JSON, without it the daemon does not start [syntax]"]),
    ("[\n {\"name\": \"x\"\n  \"type\": 5}\n]", [
        "3:3: error: Missing ',' or '}' in object declaration; "
        "correct the JSON, without it the daemon does not start [syntax]"]),
    ("[" * 2000, [" error: Exceeded stackLimit in readValue(); "
                  "correct the JSON, without it the daemon does not start [syntax]"]),
    ("\n{\"name\": \"x\"}", ["2: error: the document is an object, not an array; "
                           "write an array of objects, the daemon ends at start [top-level]"]),
    ("{}", ["1: warning: the document is an object, not an array; "
            "write an array of objects, nothing is published [top-level-ignored]"]),
    ("5", ["1: warning: the document is a number, not an array; "
           "write an array of objects, nothing is published [top-level-ignored]"]),
    ("[]\nx", ["2:1: warning: Extra non-whitespace after JSON value; remove it, the daemon ignores it [trailing-text]"]),
    ("// a comment\n[\n{\"name\":\"A\",\"interface\":\"B\",\"type\":\"s\",\"location\":\"par\",\"path\":\"/VALUES/text\","
     "\"read\":true,\n\"read\":true},]",
     ["4:1: warning: Duplicate key: 'read'; remove one of them, only the last one counts [duplicate-key]"]),
    # Elements, keys and types.
    (["x", 5, [1]], [
        "2: error: element 0: is a string, not an object; write an object, the daemon ends at start [element-type]",
        "3: error: element 1: is a number, not an object; write an object, the daemon ends at start [element-type]",
        "4: error: element 2: is an array, not an object; write an object, the daemon ends at start [element-type]"]),
    ([item(length="8")], ["2: error: element 0 \"Serial\": \"length\": is a string, not an integer from 0 to 4294967295; "
                          + WRONG_END]),
    ([item(length=-1)], ["2: error: element 0 \"Serial\": \"length\": is the number -1, not an integer from 0 to "
                         "4294967295; " + WRONG_END]),
    ([item(read="yes")], ["2: error: element 0 \"Serial\": \"read\": is a string, not true or false; " + WRONG_END]),
    ([item(name=["A"])], ["2: error: element 0: \"name\": is an array, not a string; " + WRONG_END]),
    ([item(FUSE, translate="x")],
     ["2: error: element 0 \"Serial\": \"translate\": is a string, not an object; " + WRONG_END]),
    ([item(FUSE, offset={})], ["2: error: element 0 \"Serial\": \"offset\": is an object, not a string or an integer "
                               "from 0 to 4294967295; " + WRONG_END]),
    ([item(objectpath=5, read=1, signal=None)], [
        "2: warning: element 0 \"Serial\": \"objectpath\": is the number 5, not a string, and taken as the text \"5\"; "
        + TYPE_END,
        "2: warning: element 0 \"Serial\": \"read\": is the number 1, not true or false, and taken as true; " + TYPE_END,
        "2: warning: element 0 \"Serial\": \"signal\": is null, not true or false, and taken as missing; " + TYPE_END]),
    ([item(length=4.5, translate=[])], [
        "2: warning: element 0 \"Serial\": \"length\": is the number 4.5, not an integer from 0 to 4294967295, and "
        "taken as 4; " + TYPE_END,
        "2: warning: element 0 \"Serial\": \"translate\": is an array, not an object, and not looked at; " + TYPE_END]),
    ([item(objectPath="Eth0", Write=True, lenght=4, comment="")], [
        f"2: warning: element 0 \"Serial\": \"{key}\": unknown key{meant}; "
        "correct or remove it, the daemon ignores it [unknown-key]"
        for key, meant in [("Write", ", did you mean \"write\"?"), ("comment", ""),
                           ("lenght", ", did you mean \"length\"?"),
                           ("objectPath", ", did you mean \"objectpath\"?")]]),
    # Names.
    ([item(name="A'B")], ["2: error: element 0 \"A'B\": breaks the introspection document: TEXT; "
                          f"{NAMES}, the daemon ends at start [introspection]"]),
    ([item(objectpath="a-b")], [
        "2: error: element 0 \"Serial\": \"objectpath\": \"/com/brenvok/Korvaneinfo1/a-b\" is no valid object path; "
        f"{NAMES} with single slashes between, the daemon ends at start [object-path]"]),
    ([item(interface="0Board")], [
        "2: error: element 0 \"Serial\": \"interface\": \"com.brenvok.Info1.0Board\" is no valid interface name; "
        f"{NAMES}, not a digit first, the daemon ends at start [interface-name]"]),
    ([item(name="a-b"), item(name=WITHOUT)], [
        f"2: error: element 0 \"a-b\": \"name\": \"a-b\" is no valid property name; {NAMES}, not a digit first, "
        "many clients refuse other names [property-name]",
        f"3: error: element 1: \"name\": is missing; {NAMES}, not a digit first, "
        "many clients refuse other names [property-name]"]),
    ([item(type="ss"), item(name="B", type="{sv}"), item(name="C", type=WITHOUT)], [
        f"2: error: element 0 \"Serial\": \"type\": \"ss\" is no valid type; {SIGNATURE_END}",
        f"3: error: element 1 \"B\": \"type\": \"{{sv}}\" is no valid type; {SIGNATURE_END}",
        f"4: error: element 2 \"C\": \"type\": is missing; {SIGNATURE_END}"]),
    ([item(), item(name="Other", interface="Net")], [
        "3: error: element 1 \"Other\": \"interface\": \"Net\" differs from \"Board\" of element 0, the first one on "
        f"this object path; {DIFFERS_END}"]),
    # An interface that is not published has no other fault.
    ([item(), *(item(name=f"Other{n}", interface=text) for n, text in enumerate(UNPUBLISHED))], [
        f"{n + 3}: error: element {n + 1} \"Other{n}\": \"interface\": \"{text}\" differs from \"Board\" of "
        f"element 0, the first one on this object path; {DIFFERS_END}" for n, text in enumerate(UNPUBLISHED)]),
    ([item(), item()], [
        f"{line}: error: element {one} \"Serial\": \"name\": element {other} has the same object path and name; "
        "rename or remove one of them, clients cannot tell them apart [duplicate-item]"
        for line, one, other in [(2, 0, 1), (3, 1, 0)]]),
    ([item(interface="com.brenvok.Info1.Board"), item(objectpath="com/brenvok/Korvaneinfo1/Eth0", interface="Net")], [
        "2: warning: element 0 \"Serial\": \"interface\": \"com.brenvok.Info1.Board\" is published as "
        f"\"com.brenvok.Info1.com.brenvok.Info1.Board\"; {BASE_END}",
        "3: warning: element 1 \"Serial\": \"objectpath\": \"com/brenvok/Korvaneinfo1/Eth0\" is published as "
        f"\"/com/brenvok/Korvaneinfo1/com/brenvok/Korvaneinfo1/Eth0\"; {BASE_END}"]),
    # Values.
    ([item(type="i"), item(name="U", type="u", path="/VALUES/big"), item(name="D", type="d", path="/VALUES/small"),
      item(name="E", type="d", path="/VALUES/huge")], [
        f"2: error: element 0 \"Serial\": \"type\": the value \"abc\" does not begin with a number; {NUMBER_END}",
        f"3: error: element 1 \"U\": \"type\": the value \"4294967295\" is out of range for type \"u\"; {NUMBER_END}",
        f"4: error: element 2 \"D\": \"type\": the value \"1e-310\" is out of range for type \"d\"; {NUMBER_END}",
        f"5: error: element 3 \"E\": \"type\": the value \"1e309\" is out of range for type \"d\"; {NUMBER_END}"]),
    ([item(path="/VALUES/latin")], [
        "2: error: element 0 \"Serial\": \"type\": the value \"\\xe4\" is not UTF-8; "
        "correct the value, the daemon ends when a client reads the item [value-encoding]"]),
    ([item(path="/VALUES/nul")], [
        "2: warning: element 0 \"Serial\": \"type\": the value \"ab\\x00cd\" holds a NUL; "
        "remove the NUL, clients see only the text before it [value-nul]"]),
    ([item(type="i", path="/VALUES/hex"), item(name="U", type="u", path="/VALUES/negative"),
      item(name="D", type="d", path="/VALUES/hex")], [
        "2: warning: element 0 \"Serial\": \"type\": the value \"0x1F\" is published as 0; "
        "correct the value or use type \"s\" [value-part]",
        "3: warning: element 1 \"U\": \"type\": the value \"-1\" is published as 4294967295; "
        "correct the value or use type \"s\" [value-part]"]),
    ([item(type="b", path="/VALUES/one")], [
        "2: warning: element 0 \"Serial\": \"type\": the value \"1\" is published as false; "
        "only the text \"true\" is published as true [value-boolean]"]),
    ([item(type="x", path="/VALUES/number"), item(name="B", type="as")], [
        f"2: warning: element 0 \"Serial\": \"type\": type \"x\"; {DATA_END}",
        f"3: warning: element 1 \"B\": \"type\": type \"as\"; {DATA_END}"]),
    ([item(LONG_FUSE, length=20000000)], [
        "2: warning: element 0 \"Serial\": \"length\": 20000000 bytes; "
        "correct it, the daemon holds the value in memory many times [huge-length]",
        "2: error: element 0 \"Serial\": \"length\": 20000000 bytes have more than 4194304 digits; "
        + LONG_END]),
    # Access.
    ([item(read=False)], ["2: warning: element 0 \"Serial\": is neither readable nor writable; "
                          "set \"read\" or \"write\", it is published as readable [no-access]"]),
    ([item(FUSE, write=True)], ["2: warning: element 0 \"Serial\": \"write\": the item is in fuses; "
                                "remove \"write\", a client's Set replaces the whole file with text [writable-fuses]"]),
    ([item(type="u", path="/VALUES/number", write=True), item(name="D", type="d", path="/VALUES/number", write=True)], [
        f"{line}: warning: element {element} \"{name}\": \"type\": the item is writable, and numbers {which} cannot be "
        "read back; use type \"i\" or \"s\", or remove \"write\", some values that a client can set end the daemon "
        "[writable-number]"
        for line, element, name, which in [(2, 0, "Serial", "above 2147483647"), (3, 1, "D", "below 2.3e-308")]]),
    ([item(path="/VALUES/none/text", write=True), item(name="B", path="/VALUES/folder", write=True)], [
        "2: warning: element 0 \"Serial\": \"path\": cannot create \"/VALUES/none/text\": No such file or directory; "
        + TARGET_END,
        "2: warning: element 0 \"Serial\": \"path\": cannot read \"/VALUES/none/text\": No such file or directory; "
        + FILE_END,
        f"3: warning: element 1 \"B\": \"path\": cannot create \"/VALUES/folder\": Is a directory; {TARGET_END}",
        f"3: warning: element 1 \"B\": \"path\": cannot read \"/VALUES/folder\": Is a directory; {FILE_END}"]),
    # Storage.
    ([item(location="Par"), item(name="B", location=WITHOUT)], [
        "2: warning: element 0 \"Serial\": \"location\": unknown location \"Par\"; "
        "write \"par\" or \"fuses\", the value stays empty [unknown-location]",
        "3: warning: element 1 \"B\": \"location\": is missing; "
        "write \"par\" or \"fuses\", the value stays empty [unknown-location]"]),
    ([item(path="text")], ["2: warning: element 0 \"Serial\": \"path\": the path \"text\" is relative; "
                           "write an absolute path, the daemon looks from its own working directory [relative-path]"]),
    ([item(path=WITHOUT)], ["2: warning: element 0 \"Serial\": \"path\": is missing; " + FILE_END]),
    ([item(path="/VALUES/socket")], ["2: warning: element 0 \"Serial\": \"path\": cannot read \"/VALUES/socket\": "
                                     "No such device or address; " + FILE_END]),
    ([item(FUSE, path="/VALUES/missing"), item(FUSE, name="B", path=WITHOUT)], [
        "2: warning: element 0 \"Serial\": \"path\": cannot read \"/VALUES/missing\": No such file or directory; "
        + ZEROS_END, "3: warning: element 1 \"B\": \"path\": is missing; " + ZEROS_END]),
    ([item(path="/VALUES/fifo", type="u"), item(FUSE, name="B", path="/dev/zero", length=8)], [
        f"{line}: warning: element {element} \"{name}\": \"path\": \"{path}\" is {what}; name a regular file, reading "
        "this one may block or never end; its value is not checked [value-file-kind]"
        for line, element, name, path, what in [(2, 0, "Serial", "/VALUES/fifo", "a FIFO"),
                                                (3, 1, "B", "/dev/zero", "a device")]]),
    ([item(FUSE, length=WITHOUT)], ["2: warning: element 0 \"Serial\": \"length\": is 0 or missing; "
                                    "give the number of bytes, the value is always 0 [fuse-length]"]),
    ([item(FUSE, offset=15), item(LONG_FUSE, name="B", offset=10), item(FUSE, name="C", offset=16, length=1)], [
        f"{line}: warning: element {element} \"{name}\": \"length\": {bytes_} bytes are past the end of "
        f"\"/VALUES/fuse\"; {END_END}"
        for line, element, name, bytes_ in [(2, 0, "Serial", "1 of 2"), (3, 1, "B", "2 of 8"), (4, 2, "C", "1 of 1")]]),
    ([item(LONG_FUSE, path="/VALUES/blanks")], [
        "2: warning: element 0 \"Serial\": \"length\": 2 of 8 bytes in \"/VALUES/blanks\" are whitespace; publish up to "
        "4 bytes an item, longer ones skip whitespace bytes and read on past their end [fuse-whitespace]"]),
    ([item(FUSE, length=4, type="i", path="/VALUES/zeros")], [
        "2: warning: element 0 \"Serial\": \"type\": 4 bytes can hold a value above 2147483647; use type \"s\" or fewer "
        "bytes, on a board with a larger value the daemon ends when a client reads it [fuse-range]"]),
    ([item(FUSE, name=f"N{number}", offset=offset) for number, offset in
      enumerate(["4 ", "010", "-4294967295", "4294967297", "x", "99999999999999999999", "+2", "0"])], [
        f"{line}: warning: element {line - 2} \"N{line - 2}\": \"offset\": {text}; {OFFSET_END}"
        for line, text in [(2, "\"4 \" is taken as 4, the rest is ignored"),
                           (3, "\"010\" is taken as 8, a leading zero makes it octal"),
                           (4, "\"-4294967295\" is taken as 1, it is out of range"),
                           (5, "\"4294967297\" is taken as 1, it is out of range"),
                           (6, "\"x\" is taken as 0, it does not begin with a number"),
                           (7, "\"99999999999999999999\" is taken as 0, it is out of range")]]),
    ([item(translate={"abc": "x"})], ["2: warning: element 0 \"Serial\": \"translate\": has no effect; "
                                      "remove it, only values of \"location\" \"fuses\" are translated "
                                      "[translate-ignored]"]),
    ([item(FUSE, translate={"65536": "a", "01": "b", "0x1": "c", "": "d"}),
      item(LONG_FUSE, name="B", translate={"00112233445566AA": "a", "00": "b"})], [
        f"{line}: warning: element {element} \"{name}\": \"translate\": the member \"{key}\" is no value of {length} "
        "bytes; correct or remove it, it never matches [translate-key]"
        for line, element, name, length, keys in [(2, 0, "Serial", 2, ["", "01", "0x1", "65536"]),
                                                  (3, 1, "B", 8, ["00", "00112233445566AA"])] for key in keys]),
    ([item(FUSE, translate={"1": 5})], ["2: warning: element 0 \"Serial\": \"translate\": the member \"1\" is a number, "
                                        "not a string; write a string, the daemon ignores the member "
                                        "[translate-value]"]),
]


@pytest.fixture
def folder(tmp_path):
    """A folder with all value files."""
    for name, content in VALUES.items():
        (tmp_path / name).write_bytes(content)
    (tmp_path / "zeros").write_bytes(bytes(16))
    (tmp_path / "folder").mkdir()
    os.mkfifo(tmp_path / "fifo")
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(str(tmp_path / "socket"))
        yield tmp_path


def document_of(elements, folder):
    """Returns a configuration text, with one element a line."""
    text = elements if isinstance(elements, str) else "[\n" + ",\n".join(json.dumps(e) for e in elements) + "\n]"
    return text.replace("/VALUES", str(folder))


def lines_of(elements, folder, *options):
    """Checks a configuration; returns the status and the lines, without the file's name, and GLib's own words."""
    (folder / "board.json").write_text(document_of(elements, folder))
    status, output, complaints = run_check(*options, "board.json", cwd=folder)
    assert complaints == ""
    output = re.sub(r"(introspection document:) [^;]*;", r"\1 TEXT;", output.replace(str(folder), "/VALUES"))
    assert all(line.startswith("board.json:") for line in output.splitlines())
    return status, [line.removeprefix("board.json:") for line in output.splitlines()]


@pytest.mark.parametrize("elements, expected", CASES)
def test_finding(folder, elements, expected):
    status, lines = lines_of(elements, folder)
    assert lines == expected
    assert status == (1 if any(" error: " in line for line in expected) else 0)


def test_every_kind_has_a_case():
    with open(os.path.join(SOURCE_ROOT, "config", "Findings.cpp"), encoding="utf-8") as source:
        kinds = set(re.findall(r"KindInfo\{Kind::\w+, \"([a-z-]+)\"", source.read()))
    tested = {re.search(r"\[([a-z-]+)\]$", line).group(1) for _, expected in CASES for line in expected}
    assert len(kinds) > 30
    assert kinds - tested == {"unreadable-file", "more-findings"}  # below, and in the tests of salvage


def test_lines_end_at_carriage_returns_too(tmp_path):
    def places(text):
        tmp_path.joinpath("lines").write_bytes(text)
        return [(finding["kind"], finding["line"]) for finding in findings_of(tmp_path / "lines")]
    assert places(b"[\r{\"name\" 5}]") == [("syntax", 2)]
    assert places(b"[\r\n\r{\"length\": -1},\r\n5]") == [("wrong-type", 3), ("element-type", 4)]


def test_message_of_a_library_is_one_line_of_utf8(tmp_path):
    for text, start in [(b"[{\"name\": \"\xe4\"}]",
                         "1: error: element 0 \"\\xe4\": breaks the introspection document: "),
                        (b"[{\"\xe4\": 1,\n\"\xe4\": 2}]", "2:1: warning: Duplicate key: '\\xe4'; ")]:
        tmp_path.joinpath("bytes").write_bytes(text)
        _, output, _ = run_check("bytes", cwd=tmp_path)
        found = [line for line in output.splitlines() if line.startswith("bytes:" + start)]
        assert len(found) == 1 and "\ufffd" not in output, output


def test_file_that_cannot_be_read(tmp_path):
    for file, reason in [("missing", "No such file or directory"), (".", "Is a directory")]:
        status, output, _ = run_check(file, cwd=tmp_path)
        assert output == f"{file}: error: {reason}; name a configuration file, or let it be read [unreadable-file]\n"
        assert status == 1


def test_json_has_all_parts_of_a_finding(folder):
    (folder / "board.json").write_text(document_of([item(), item(name="B", read="x")], folder))
    assert findings_of("board.json", cwd=folder) == [{
        "file": "board.json", "line": 3, "column": None, "element": 1, "name": "B", "key": "read",
        "severity": "error", "kind": "wrong-type", "reason": "is a string, not true or false",
        "remedy": "correct the type, the daemon ends at start"}]
    (folder / "board.json").write_text("[,")
    assert findings_of("board.json", cwd=folder)[0] == {
        "file": "board.json", "line": 1, "column": 2, "element": None, "name": "", "key": "", "severity": "error",
        "kind": "syntax", "reason": "Syntax error: value, object or array expected",
        "remedy": "correct the JSON, without it the daemon does not start"}
    (folder / "board.json").write_text("[]")
    assert findings_of("board.json", cwd=folder) == []


def test_json_also_as_an_option_before_the_command(folder):
    (folder / "board.json").write_text("[]")
    status, output, _ = run_ctl("--json", "check", "board.json", cwd=folder)
    assert (status, output) == (0, "[]\n")


def run_ctl(*arguments, cwd):
    """Runs the tool with arguments before the command, which `run_check` cannot have."""
    result = subprocess.run([os.environ["KORVANEINFOCTL"], *arguments], cwd=cwd, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60, check=False, text=True)
    return result.returncode, result.stdout, result.stderr


def test_several_files_are_checked_one_by_one(folder):
    (folder / "one.json").write_text("[")
    (folder / "two.json").write_text(document_of([item()], folder))
    status, output, _ = run_check("one.json", "two.json", "three.json", cwd=folder)
    assert status == 1
    assert [line.split(":")[0] for line in output.splitlines()] == ["one.json", "three.json"]


def test_werror_makes_warnings_errors(folder):
    elements = [item(read=False)]
    assert lines_of(elements, folder)[0] == 0
    status, lines = lines_of(elements, folder, "--werror")
    assert status == 1
    assert lines[0].startswith("2: error: element 0 \"Serial\": is neither readable nor writable; ")
    assert lines_of([item()], folder, "--werror") == (0, [])


def test_no_values_leaves_value_files_alone(folder):
    elements = [item(path="/VALUES/missing", type="u"), item(name="B", path="/VALUES/fifo"), item(name="C", type="z")]
    status, lines = lines_of(elements, folder, "--no-values")
    assert lines == [f"4: error: element 2 \"C\": \"type\": \"z\" is no valid type; {SIGNATURE_END}"]
    assert status == 1


def test_root_is_where_value_files_are_looked_for(folder):
    image = folder / "image"
    (image / "etc").mkdir(parents=True)
    (image / "etc" / "count").write_text("5\n")
    (image / "etc" / "link").symlink_to("/etc/count")  # absolute, and yet inside the image
    (image / "etc" / "escape").symlink_to("../../text")
    elements = [item(path="/etc/count", type="u"), item(name="B", path="/etc/link", type="u"),
                item(name="C", path="/etc/escape"), item(name="D", path="/VALUES/text"),
                item(name="E", path="/sys/class/x", type="u"), item(name="F", path="/run/x", type="u", write=True)]
    status, lines = lines_of(elements, folder, "--root", "image")
    missing = "No such file or directory; " + FILE_END
    assert lines == [
        f"4: warning: element 2 \"C\": \"path\": cannot read \"/etc/escape\": {missing}",
        f"5: warning: element 3 \"D\": \"path\": cannot read \"/VALUES/text\": {missing}",
        "7: warning: element 5 \"F\": \"type\": the item is writable, and numbers above 2147483647 cannot be read back; "
        "use type \"i\" or \"s\", or remove \"write\", some values that a client can set end the daemon "
        "[writable-number]"]
    assert status == 0


def test_names_and_values_together_have_a_bound(folder):
    (folder / "long").write_bytes(b"x" * (3 << 20))
    elements = [item(path="/VALUES/long"), item(name="Other", path="/VALUES/long"), item(name="Short"),
                item(objectpath="Eth0", path="/VALUES/long")]
    status, lines = lines_of(elements, folder)
    reason = "all names and values have more than 4194304 bytes, of which 31457"
    assert [line.split(reason)[0] for line in lines] == ["2: error: element 0 \"Serial\": \"path\": ",
                                                         "5: error: element 3 \"Serial\": \"path\": "]
    assert all(line.endswith(" are this item's; " + LONG_END) for line in lines)
    assert status == 1


def test_endless_line_is_read_only_to_a_bound(folder):
    with open(folder / "endless", "wb") as file:
        file.truncate(1 << 40)
    _, lines = lines_of([item(path="/VALUES/endless"), item(LONG_FUSE, name="B", path="/VALUES/endless")], folder)
    assert [line.rsplit("[")[-1] for line in lines] == ["value-nul]", "value-too-long]"]


def test_configuration_from_a_pipe(folder):
    status, output, _ = run_check("/dev/stdin", cwd=folder)
    assert (status, output) == (1, "/dev/stdin:1:1: error: Syntax error: value, object or array expected; "
                                   "correct the JSON, without it the daemon does not start [syntax]\n")


@pytest.mark.parametrize("arguments, complaint", [
    ([], "korvaneinfoctl check: no file given\n"),
    (["--bogus", "x"], "korvaneinfoctl check: unrecognized option '--bogus'\n"),
    (["--root"], "korvaneinfoctl check: option '--root' requires an argument\n"),
    (["--root", "nowhere", "x"], "korvaneinfoctl check: --root: nowhere is no folder\n"),
])
def test_wrong_usage(tmp_path, arguments, complaint):
    status, output, complaints = run_check(*arguments, cwd=tmp_path)
    assert (status, output) == (2, "")
    assert complaints.startswith(complaint + "Usage: korvaneinfoctl check [OPTION]... FILE...\n")


def test_help(tmp_path):
    status, output, complaints = run_check("--help", cwd=tmp_path)
    assert (status, complaints) == (0, "")
    assert output.startswith("Usage: korvaneinfoctl check [OPTION]... FILE...\n")
