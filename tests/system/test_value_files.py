"""Value files: what the listing and a read show of the bytes that are in a file."""

import os

import pytest

import messages
from testbed import INTERFACE, ROOT


def listed(daemon):
    """Returns the value of the only entry, named A, as the listing shows it."""
    begin = b"#### Begin board information ####\nA                       : "
    end = b"\n#### End board information ####\n"
    stdout = daemon.stdout()
    assert stdout.startswith(begin) and stdout.endswith(end)
    return stdout[len(begin):-len(end)]


def check(bed, element, value):
    """Checks the value that a daemon with this one entry shows, and that it says nothing else."""
    daemon = bed.start([element])
    assert listed(daemon) == value
    assert bed.get(ROOT, f"{INTERFACE}.Board", "A").get_string() == value.decode()
    assert [message for message in daemon.journal() if message[0] < 6] == []
    assert daemon.stderr() == ""


@pytest.mark.parametrize("content, value", [
    pytest.param(b"123\n", b"123", id="one line"),
    pytest.param(b"123", b"123", id="no line feed"),
    pytest.param(b"", b"", id="empty file"),
    pytest.param(b"\n", b"", id="empty line"),
    pytest.param(b"\nsecond\n", b"", id="empty first line"),
    pytest.param(b"abc\r\nxyz", b"abc\r", id="carriage return is kept"),
    pytest.param(b"a\rb\n", b"a\rb", id="carriage return ends no line"),
    pytest.param(b" \t a b \t \n", b" \t a b \t ", id="blanks are kept"),
    pytest.param("Gr\u00f6\u00dfe \U0001f600\n".encode(), "Gr\u00f6\u00dfe \U0001f600".encode(), id="UTF-8"),
    pytest.param(b"x" * 100000 + b"\nrest", b"x" * 100000, id="long line"),
])
def test_par_is_the_first_line_of_a_text_file(bed, content, value):
    check(bed, bed.par("A", content), value)


def test_par_with_a_nul_byte_is_listed_whole_and_published_up_to_it(bed):
    daemon = bed.start([bed.par("A", b"ab\0cd\nef")])
    assert listed(daemon) == b"ab\0cd"
    assert bed.get(ROOT, f"{INTERFACE}.Board", "A").get_string() == "ab"


@pytest.mark.parametrize("keys", [
    {"translate": {"1": "one", "*": "other"}}, {"translate": "text"}, {"translate": [1]}, {"offset": 2, "length": 1},
], ids=repr)
def test_par_uses_neither_translation_nor_offset_nor_length(bed, keys):
    check(bed, bed.par("A", "123\n", **keys), b"123")


@pytest.mark.parametrize("location", ["", "PAR", "Par", "par ", "FUSES", "Fuses", "fuse", "text"])
def test_an_unknown_location_has_no_value(bed, location):
    check(bed, bed.par("A", "123\n", location=location, length=1, translate={"": "x", "*": "y"}), b"")


@pytest.mark.parametrize("location, length, value", [
    ("par", 1, b""), ("fuses", 0, b"0"), ("fuses", 1, b"0"), ("fuses", 4, b"0"), ("fuses", 5, b"0" * 10),
    ("other", 1, b""),
])
@pytest.mark.parametrize("path", ["missing", "missing/file", "", None, ".", 5])
def test_a_file_that_cannot_be_read(bed, path, location, length, value):
    element = bed.par("A", None, path=path, location=location, offset=6, length=length)
    daemon = bed.start([element], cwd=bed.folder("empty"))
    assert listed(daemon) == value
    assert bed.get(ROOT, f"{INTERFACE}.Board", "A").get_string() == value.decode()
    assert [message for message in daemon.journal() if message[0] < 6] == []
    assert daemon.stderr() == ""


@pytest.mark.parametrize("path", ["value", "./value", 5])
def test_a_relative_path_is_below_the_working_folder(bed, path):
    with open(os.path.join(bed.folder("work"), os.path.basename(str(path))), "w", encoding="utf-8") as file:
        file.write("here\n")
    daemon = bed.start([bed.par("A", None, path=path)], cwd=os.path.join(bed.directory, "work"))
    assert listed(daemon) == b"here"


@pytest.mark.parametrize("content, offset, length, value", [
    pytest.param("00000000 99983412 AB00", 6, 2, "4660", id="unaligned, across a word"),
    pytest.param("01020304", 0, 0, "0", id="length 0"),
    pytest.param("01020304", 0, 1, "1", id="length 1"),
    pytest.param("01020304", 0, 2, "513", id="length 2"),
    pytest.param("01020304", 0, 3, "197121", id="length 3"),
    pytest.param("01020304", 0, 4, "67305985", id="length 4"),
    pytest.param("0102030405", 0, 5, "0102030405", id="length 5"),
    pytest.param("FFFFFFFF", 0, 4, "4294967295", id="largest number"),
    pytest.param("FFFFFFFF", 0, 3, "16777215", id="no sign"),
    pytest.param("000102030405060708", "0x5", 1, "5", id="hexadecimal offset, one byte discarded"),
    pytest.param("000102030405060708", "0X7", 1, "7", id="hexadecimal offset, three bytes discarded"),
    pytest.param("000102030405060708", "010", 1, "8", id="octal offset"),
    pytest.param("000102030405060708", "08", 1, "0", id="octal offset ends before a digit 8"),
    pytest.param("000102030405060708", 6, 1, "6", id="offset as a number"),
    pytest.param("000102030405060708", 3.9, 1, "3", id="offset as a fraction"),
    pytest.param("000102030405060708", " 5 bytes", 1, "5", id="offset with text behind it"),
    pytest.param("000102030405060708", 4294967298, 1, "2", id="offset beyond 32 bits"),
    pytest.param("000102030405060708", "0x100000003", 1, "3", id="hexadecimal offset beyond 32 bits"),
    pytest.param("000102030405060708", -1, 1, "0", id="negative offset lies behind the end"),
    pytest.param("000102030405060708", "", 1, "0", id="empty offset"),
    pytest.param("000102030405060708", None, 2, "256", id="no offset"),
    pytest.param("0102030405", 4, 1, "5", id="last byte of the file"),
    pytest.param("0102030405", 3, 4, "1284", id="number past the end is filled with zeros"),
    pytest.param("0102030405", 5, 1, "0", id="number at the end"),
    pytest.param("0102030405", 8, 4, "0", id="number behind the end"),
    pytest.param("0A200D09", 0, 4, "151855114", id="whitespace counts in numbers"),
    pytest.param("00AB01FF7F80", 0, 6, "00ab01ff7f80", id="lower-case digits, two for each byte"),
    pytest.param("0011203344 5566778899", 0, 8, "0011334455667788", id="blank is skipped"),
    pytest.param("410A4243 4445", 0, 5, "4142434445", id="line feed is skipped"),
    pytest.param("090A0B0C0D2041 0A42 2043 0944 0D45", 0, 5, "4142434445", id="all whitespace is skipped"),
    pytest.param("085C0E1F21A0 85", 0, 7, "085c0e1f21a085", id="what merely looks like whitespace stays"),
    pytest.param("00112233 445566778899", 3, 5, "3344556677", id="long value, unaligned"),
    pytest.param("00200A33 445566778899", 3, 5, "3344556677", id="whitespace counts in the discarded bytes"),
    pytest.param("0102030405", 2, 6, "030405050505", id="long value past the end repeats the last byte"),
    pytest.param("01020304 2020", 0, 6, "010203040404", id="long value past whitespace at the end"),
    pytest.param("0102030405", 5, 5, "0000000000", id="long value at the end"),
    pytest.param("0102030405", 4000, 5, "0000000000", id="long value behind the end"),
    pytest.param("", 0, 5, "0000000000", id="long value of an empty file"),
    pytest.param("A5" * 300, 0, 300, "a5" * 300, id="very long value"),
])
def test_fuses_are_bytes_at_an_offset(bed, content, offset, length, value):
    check(bed, bed.fuses("A", bytes.fromhex(content), offset, length), value.encode())


@pytest.mark.parametrize("content, length, translate, value", [
    pytest.param("02", 1, {"2": "two"}, "two", id="own member"),
    pytest.param("02", 1, {"2": "two", "*": "other"}, "two", id="own member before the fallback"),
    pytest.param("03", 1, {"2": "two", "*": "other"}, "other", id="fallback"),
    pytest.param("03", 1, {"2": "two"}, "3", id="no member of its own, no fallback"),
    pytest.param("03", 1, {}, "3", id="empty table"),
    pytest.param("03", 1, None, "3", id="null is no table"),
    pytest.param("05", 1, {"5": 7, "*": "other"}, "other", id="a member that is no text is ignored"),
    pytest.param("05", 1, {"5": 7}, "5", id="a member that is no text, without a fallback"),
    pytest.param("05", 1, {"5": None, "*": ["x"]}, "5", id="a fallback that is no text is ignored"),
    pytest.param("05", 1, {"5": ""}, "", id="an empty text is a text"),
    pytest.param("05", 1, {"05": "x", "0x5": "y", " 5": "z"}, "5", id="the decimal digits alone are compared"),
    pytest.param("FFFFFFFF", 0, {"0": "nothing"}, "nothing", id="length 0 is the raw value 0"),
    pytest.param("FFFFFFFF", 4, {"4294967295": "blank"}, "blank", id="number of four bytes"),
    pytest.param("00000000AB", 5, {"00000000ab": "rev B"}, "rev B", id="hexadecimal digits"),
    pytest.param("00000000AB", 5, {"00000000AB": "rev B"}, "00000000ab", id="capital digits are other digits"),
])
def test_fuses_are_translated(bed, content, length, translate, value):
    check(bed, bed.fuses("A", bytes.fromhex(content), 0, length, translate=translate), value.encode())


def test_the_position_of_a_value_is_in_the_dump(bed):
    element = bed.fuses("A", bytes(range(64)), "0x21", 18)
    daemon = bed.start([element])
    value = bytes(range(0x21, 0x21 + 18)).hex()
    assert daemon.journal() == [
        *messages.beginning(element),
        messages.dump("A", "Board", "", "fuses", "00000021", "12", "s", value, "100"),
        *messages.serving(("", "Board", [("A", "s", "read")]))]
