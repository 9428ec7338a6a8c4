"""The example of derived values: what its script makes of a memory device, and what the daemon makes of that."""

import json
import os
import random
import shutil
import struct
import subprocess
import uuid

import pytest

from testbed import INTERFACE, SOURCE_ROOT, full_path

EXAMPLE = os.path.join(SOURCE_ROOT, "examples", "derived-values")
SHELLS = [shell for shell in ("sh", "dash", "bash", "busybox") if shutil.which(shell)]
WHITE_SPACE = b"\t\n\v\f\r "
SIZE = 56  # bytes of the memory


def memory(mac=bytes(6), flags=0, identifier=bytes(16), unique=bytes(8), offset=0, altitude=0, build=0, serial=b""):
    """Returns a memory that holds these values as the example's board does."""
    return (mac + struct.pack("<H", flags) + identifier + unique + struct.pack("<h", offset) +
            struct.pack(">hI", altitude, build) + serial.ljust(16, b"\0"))


def expected(content):
    """Returns the values that such a memory holds, as files have them."""
    flags, offset = struct.unpack("<H", content[6:8])[0], struct.unpack("<h", content[32:34])[0]
    altitude, build = struct.unpack(">hI", content[34:40])
    return {
        "eth0-address": ":".join(f"{byte:02x}" for byte in content[:6]),
        "heater": "true" if flags & 0x10 else "false",
        "assembly": str(flags & 0x0f),
        "uuid": str(uuid.UUID(bytes=content[8:24])),
        "unique-id": content[24:32].hex(),
        "temperature-offset": str(offset),
        "altitude": str(altitude),
        "build": str(build),
        "serial-number": content[40:56].partition(b"\0")[0].decode(),
    }


MEMORIES = {
    "zeros": memory(),
    "all bits": memory(bytes([255] * 6), 0xffff, bytes([255] * 16), bytes([255] * 8), -1, -1, 0xffffffff),
    "white space": memory(WHITE_SPACE, 0x2009, (WHITE_SPACE * 3)[:16], (WHITE_SPACE * 2)[:8], 0x0a0d, 0x0920, 0x090a0b0c,
                          b" 1  2 "),
    "most negative": memory(offset=-0x8000, altitude=-0x8000, build=0x80000000),
    "most positive": memory(offset=0x7fff, altitude=0x7fff, build=0x7fffffff),
    "byte order": memory(offset=0x0102, altitude=0x0304, build=0x05060708, flags=0x0110),
    "octal look-alikes": memory(b"\x07\x08\x09\x10\x08\x09", build=0o10, serial=b"0010"),
    "characters that mean something": memory(serial=b"%d\\n'\"$x`#*&-n;"),
    "text without a NUL": memory(serial=b"0123456789abcdef"),
    "text with a NUL inside": memory(serial=b"ab\0cd"),
} | {f"bit {bit}": memory(flags=1 << bit) for bit in range(16)}


@pytest.fixture(params=SHELLS)
def derive(request, bed):
    """A function that runs the script with one of the shells for a memory; returns what it complains of and its files."""
    environment = dict(os.environ)
    shell = [request.param]
    if request.param == "busybox":
        # Its own dd and od as well, and nothing else.
        shell = [shutil.which("busybox"), "sh"]
        environment["PATH"] = bed.folder("applets")
        for applet in ("dd", "od", "mv", "rm", "printf"):
            os.symlink(shell[0], os.path.join(environment["PATH"], applet))
    folder = bed.folder("board-values")

    def run(content):
        result = subprocess.run([*shell, os.path.join(EXAMPLE, "derive-values"), bed.file("memory", content), folder],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=environment, check=False)
        assert result.stdout == ""
        assert result.returncode == (1 if result.stderr else 0)
        values = {}
        for name in os.listdir(folder):
            with open(os.path.join(folder, name), encoding="ascii", newline="") as file:
                values[name] = file.read()
        return result.stderr, values

    run.folder = folder
    return run


def as_lines(values):
    return {name: value + "\n" for name, value in values.items()}


@pytest.mark.parametrize("content", MEMORIES.values(), ids=MEMORIES)
def test_each_value_is_derived_from_its_bytes(derive, content):
    assert derive(content) == ("", as_lines(expected(content)))


def test_values_of_random_memories_are_derived(derive):
    source = random.Random(1)
    for _ in range(20):
        content = source.randbytes(SIZE - 16) + memory(serial=b"4711")[-16:]
        assert derive(content) == ("", as_lines(expected(content))), content.hex()


@pytest.mark.parametrize("byte", [0x01, 0x0a, 0x1f, 0x7f, 0x80, 0xff])
def test_bytes_that_are_no_text_cost_that_value_only(derive, byte):
    derive(memory(serial=b"before"))
    complaint, values = derive(memory(serial=b"a" + bytes([byte])))
    assert f"byte 0x{byte:02x} in the text" in complaint
    assert complaint.endswith("serial-number: no value\n")
    assert values.keys() == expected(memory()).keys() - {"serial-number"}


def test_memory_that_ends_early_costs_the_values_behind_its_end(derive):
    complaint, values = derive(memory()[:0x22])
    assert complaint.count("cannot read") == 3
    assert values.keys() == expected(memory()).keys() - {"altitude", "build", "serial-number"}


def test_value_file_is_replaced_and_never_rewritten(derive, bed):
    derive(memory(build=1))
    os.link(os.path.join(derive.folder, "build"), os.path.join(bed.directory, "kept"))
    assert derive(memory(build=22))[1]["build"] == "22\n"
    with open(os.path.join(bed.directory, "kept"), encoding="ascii") as file:
        assert file.read() == "1\n"


def test_daemon_publishes_the_derived_values_with_their_types(derive, bed):
    derive(memory(WHITE_SPACE, 0x0013, (WHITE_SPACE * 3)[:16], (WHITE_SPACE * 2)[:8], -42, -1, 0x01020304, b"FG240-7"))
    with open(os.path.join(EXAMPLE, "board.json"), encoding="utf-8") as file:
        text = file.read().replace("/run/board-values/", derive.folder + "/")
    bed.start(text)
    published = {element["name"]: bed.get(full_path(element.get("objectpath", "")),
                                          f"{INTERFACE}.{element['interface']}", element["name"]).print_(True)
                 for element in json.loads(text)}
    assert published == {
        "SerialNumber": "'FG240-7'", "Uuid": "'090a0b0c-0d20-090a-0b0c-0d20090a0b0c'", "UniqueId": "'090a0b0c0d20090a'",
        "Build": "uint32 16909060", "Assembly": "uint32 3", "HeaterFitted": "true", "MacAddress": "'09:0a:0b:0c:0d:20'",
        "TemperatureOffset": "-42", "Altitude": "-1",
    }
