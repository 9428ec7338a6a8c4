"""The checker against the daemon: random configurations, good and bad, are given to both.

Where the checker reports no error, the daemon has to start, to own its name, to answer for every item, and to stay
up. Where it reports errors, the daemon has to do all that with the elements taken out that the checker names.

A salvaged copy has to do better: the daemon starts with it, serves every element in it about which there is no error,
and stays up; and with any one of the elements left out put back it would not.

KORVANEINFO_CHECK_CASES is the number of cases, KORVANEINFO_CHECK_SEED the seed of the first one.
"""

import json
import os
import random
import re
import shutil
import subprocess
import xml.etree.ElementTree

from gi.repository import GLib
import pytest

from checking import findings_of, run_salvage
from testbed import BUS_NAME, INTERFACE, full_path

CASES = int(os.environ.get("KORVANEINFO_CHECK_CASES", "400"))
FIRST_SEED = int(os.environ.get("KORVANEINFO_CHECK_SEED") or random.SystemRandom().randrange(10**9))

# With one of these the daemon has trouble for certain. The others are what a client stumbles over.
FATAL_KINDS = {"syntax", "top-level", "element-type", "wrong-type", "introspection", "object-path",
               "interface-name", "interface-differs", "value-number", "value-encoding"}

ODD_TEXTS = ["", " ", "a b", "a'b", "<", "&", "&amp;", "\0", "a\0b", "ä", "\udcff", "/", "a/b", "/a", "a/", "a//b",
             "a-b", "a.b", ".", "9", "9a", "_", "x" * 300, "a\nb", "\"", "*"]
ODD_VALUES = [None, True, False, 0, 1, -1, 5, 1.5, 1e300, 2**31, 2**32, 2**63, 2**64, [], [1], {}, {"a": "b"}, "x"]
# The bus library takes some of these for others.
ODD_NAMES = [*ODD_TEXTS, "Item", "AB", "A&#66;", "A B", "A\tB", "A\nB"]
NUMBERS = ["0", "1", "42", "-1", " 7", "+7", "007", "2147483647", "2147483648", "-2147483648", "-2147483649",
           "4294967295", "99999999999999999999", "0x1F", "1.5", "1e3", "-1.5e-3", "1e308", "1e309", "1e-307", "1e-310",
           "inf", "nan", ".5", "12abc", "abc", "", "-", "true", "false", "TRUE"]
OFFSETS = ["0", "1", "4", "010", "0x2", "08", "3x", "-1", "abc", "99999999999999999999", "4294967296", "", 0, 1, 2, 3,
           5, 7, 1.0, 2.5, 1e20, -1]


class Generator:
    """Makes one case from one seed: value files in a folder, and a configuration that names them."""

    def __init__(self, seed, directory):
        self.random = random.Random(seed)
        self.directory = directory
        self.oddity = self.random.choice([0.0, 0.01, 0.05, 0.2])
        self.files = 0

    def is_odd(self):
        """Whether the next thing is to be one that people get wrong."""
        return self.random.random() < self.oddity

    def pick(self, usual, odd):
        """Returns a usual thing, or seldom an odd one."""
        return self.random.choice(odd if self.is_odd() else usual)

    def file(self, content):
        """Writes a value file; returns its path."""
        self.files += 1
        path = os.path.join(self.directory, f"value-{self.files}")
        with open(path, "wb") as file:
            file.write(content)
        return path

    def text_file(self, signature):
        """Writes a value file that fits the type, mostly."""
        if self.is_odd():
            return self.pick([os.path.join(self.directory, "missing"), self.directory, "", "relative",
                              self.file(self.random.randbytes(self.random.randrange(20)))], ODD_TEXTS)
        usual = {"i": ["0", "42", "-7"], "u": ["0", "42"], "d": ["1.5", "-2e3"], "b": ["true", "false"]}
        text = self.pick(usual.get(signature, ["abc", "Board 5", "ä€", ""]), NUMBERS)
        return self.file(text.encode() + self.random.choice([b"", b"\n", b"\nsecond line\n"]))

    def fuse_keys(self):
        """Returns the keys of an item in fuses."""
        content = self.random.randbytes(self.random.randrange(8, 40))
        if self.random.random() < 0.7:
            content = bytes(byte & 0x5f for byte in content)
        length = self.random.choice([1, 2, 3, 4, 4, 6, 8])
        keys = {"path": self.text_file("s") if self.is_odd() else self.file(content), "location": "fuses",
                "offset": self.pick([0, 1, 4, "0x2", "3"], OFFSETS), "length": self.pick([length], [0, 100, 5.5, 70000])}
        if self.random.random() < 0.3:
            members = self.random.sample(["0", "1", "2", "*", "ff", "00"], 2)
            texts = NUMBERS + ["on", "off", "a\0b", "\udcff", "ä"]
            keys["translate"] = {member: self.pick(["7", "1"], texts + [5, None]) for member in members}
        return keys

    def element(self):
        """Returns one element."""
        if self.is_odd() and self.is_odd():
            return self.random.choice(ODD_VALUES)
        signature = self.pick(["s", "s", "i", "u", "d", "b"], ["x", "y", "as", "a{sv}", "{sv}", "v", "o", "ii", "z", "("]
                              + ODD_TEXTS)
        place = self.random.choice(["", "Eth0", "Eth1", "a/b"])
        element = {"name": self.pick([f"Item{self.random.randrange(1000)}"], ODD_NAMES),
                   "interface": self.pick(["I" + place.replace("/", "")], ["Other", *ODD_TEXTS]),
                   "objectpath": self.pick([place], ODD_TEXTS), "type": signature,
                   "read": self.random.random() < 0.9, "write": self.random.random() < 0.2}
        if self.random.random() < 0.5:
            element.update(path=self.text_file(signature), location=self.pick(["par"], ["Par", "", "x"]))
        else:
            element.update(self.fuse_keys())
        for key in [*element, "signal", "translate", "comment"]:
            if self.is_odd() and self.is_odd():
                element[key] = self.random.choice(ODD_VALUES)
            if self.is_odd() and self.is_odd():
                element.pop(key, None)
        if element.get("length") == 2**31:  # the daemon would take minutes, and most of the memory
            element["length"] = 2**16
        return element

    def elements(self):
        """Returns the elements of a configuration."""
        return [self.element() for _ in range(self.random.choice([0, 1, 1, 2, 3, 5, 8]))]

    def damaged(self, document):
        """Returns the document with a few bytes changed, which mostly is no JSON any more."""
        damaged = bytearray(document)
        for _ in range(self.random.randrange(1, 4)):
            at = self.random.randrange(len(damaged) + 1)
            change = self.random.choice([b"", b"{", b"}", b"[", b"]", b",", b":", b"\"", b"0", b"-", b"\\", b"/*", b"//",
                                         b"null", b"\xff", b"\0", b"\\u0000", b"\\ud800", b"'", b"\n"])
            damaged[at:at + self.random.randrange(2)] = change
        return bytes(damaged)


def encoded(elements):
    """Returns the configuration as bytes, in which surrogates stand for bytes that are not UTF-8."""
    return json.dumps(elements, ensure_ascii=False, indent=1).encode(errors="surrogateescape")


def commented(document):
    """Returns the document with comments between its elements, which hold what a cut looks for."""
    return document.replace(b"[\n {", OPENING).replace(b"\n },\n", SEPARATOR)


OPENING = b"[ // [ ,\n {"
SEPARATOR = b"\n } /* , ] */ , // ]\n"


def fails(call, *arguments):
    """Whether the daemon answers with an error, or not at all, or the names are such that nobody can ask."""
    try:
        call(*arguments)
        return False
    except (GLib.Error, UnicodeEncodeError, AttributeError):
        return True


def declared(bed, path):
    """Returns all (object path, interface, property, access) that the daemon declares at and below a path."""
    tree = xml.etree.ElementTree.fromstring(bed.introspect(path))
    for interface in tree.findall("interface"):
        if interface.get("name").startswith(INTERFACE):
            for item in interface.findall("property"):
                yield path, interface.get("name"), item.get("name"), item.get("access")
    for node in tree.findall("node"):
        yield from declared(bed, f"{path}/{node.get('name')}")


def troubles(bed, document, elements):
    """Starts a daemon with the configuration and reads everything; returns what goes wrong, as texts, and the
    elements that are known to be at fault."""
    daemon = bed.run("-c", bed.configuration(document))
    try:
        if not daemon.wait_for_name(bed.bus):
            return [f"ended with {daemon.wait()} at start: {daemon.stderr()}"], set()
        wrong, culprits, is_empty = read_everything(bed, daemon, elements)
        # It may own its name for a moment before it gives up, and the bus library may describe some items by itself.
        # A refused registration is complained of on standard error.
        if (wrong or is_empty or daemon.stderr()) and any(text == "Registration failed" for *_, text in daemon.journal()):
            return [f"ended with {daemon.wait()} at start: {daemon.stderr()}"], set()
        return wrong, culprits
    finally:
        daemon.kill()
        bed.daemons.remove(daemon)
        shutil.rmtree(os.path.dirname(daemon.stdout_path))


def read_everything(bed, daemon, elements):
    """Gets each element's property, then walks over all that is declared; returns what `troubles` does, and whether
    nothing is declared."""
    wrong, culprits, items = [], set(), []
    for position, element in enumerate(elements):
        if not isinstance(element, dict) or is_write_only(element):
            continue
        interface = f"{INTERFACE}.{as_text(element.get('interface'))}"
        if fails(bed.get, full_path(as_text(element.get("objectpath"))), interface, as_text(element.get("name"))):
            wrong.append(f"element {position} cannot be read")
            culprits.add(position)
        if fails(bed.bus.call, BUS_NAME, full_path(""), "org.freedesktop.DBus.Peer", "Ping"):
            return wrong + [f"ended with {daemon.wait()}: {daemon.stderr()}"], culprits, False
    try:
        items = list(declared(bed, full_path("")))
        for path, interface, name, access in items:
            if access != "write" and name not in bed.get_all(path, interface):
                wrong.append(f"{path} {interface} {name} is not among all properties")
    except GLib.Error as error:
        wrong.append(f"a walk over all items fails: {error}, {daemon.process.poll()}: {daemon.stderr()}")
    except xml.etree.ElementTree.ParseError as error:
        wrong.append(f"the introspection data is broken: {error}")
    if daemon.process.poll() is not None:
        wrong.append(f"ended with {daemon.wait()}: {daemon.stderr()}")
    return wrong, culprits, not items


def is_write_only(element):
    """Whether clients are not meant to read the item."""
    return isinstance(element, dict) and bool(element.get("write")) and not element.get("read")


def as_text(value):
    """Returns a JSON value as the daemon's JSON library converts it to text."""
    if value is None:
        return ""
    if isinstance(value, bool):
        return "true" if value else "false"
    return str(value)


def judge(bed, elements, document):
    """Holds the checker's verdict against the daemon; returns whether there was an error."""
    findings = findings_of(bed.configuration(document), cwd=bed.directory)
    errors = [finding for finding in findings if finding["severity"] == "error"]
    wrong, culprits = troubles(bed, document, elements)
    report = f"\nfindings: {json.dumps(findings, indent=1)}\nwrong: {wrong}\nconfiguration: {document!r}"

    if not errors:
        assert not wrong, "not foreseen" + report
        return False
    named = {finding["element"] for finding in errors}
    assert culprits <= named, "the wrong element is named" + report
    asked_for = {position for position, element in enumerate(elements) if not is_write_only(element)}
    kinds = {error["kind"] for error in errors
             if error["kind"] != "interface-differs" or error["element"] in asked_for}
    if kinds & FATAL_KINDS and "duplicate-item" not in kinds:
        assert wrong, "false alarm" + report
    return True


def judge_with_and_without_errors(bed, generator, seed):
    """Judges one case, and the case without the elements at fault; returns how often there were errors."""
    elements = generator.elements()
    with_errors = 0
    if judge(bed, elements, encoded(elements)):
        with_errors += 1
        findings = findings_of(bed.configuration(encoded(elements)), cwd=bed.directory)
        named = {finding["element"] for finding in findings if finding["severity"] == "error"}
        rest = [element for position, element in enumerate(elements) if position not in named]
        assert not judge(bed, rest, encoded(rest)), "new errors without the elements that were named"
    if seed % 4 == 0:
        with_errors += judge(bed, [], generator.damaged(encoded(elements)))
    return with_errors


def has_ended(wrong):
    """Whether the daemon has ended, or a client would have lost it."""
    return any(text.startswith("ended") for text in wrong)


def salvage(bed, document):
    """Salvages a configuration; returns the status, the copy and the findings."""
    output = os.path.join(bed.directory, "copy.json")
    status, findings, _ = run_salvage(bed.configuration(document), output, cwd=bed.directory)
    with open(output, "rb") as file:
        return status, file.read(), findings


def judge_salvaged(bed, generator, _seed):
    """Holds a salvaged copy against the daemon; returns whether an element was left out."""
    elements = generator.elements()
    document = commented(encoded(elements))
    status, copy, findings = salvage(bed, document)
    left_out = {finding["element"] for finding in findings if finding.get("leftOut")}
    kept = [element for position, element in enumerate(elements) if position not in left_out]
    report = f"\nfindings: {json.dumps(findings, indent=1)}\nconfiguration: {document!r}"
    assert status in (0, 1), "not salvaged" + report
    plain = re.sub(rb"// \[ ,\n|/\* , \] \*/|// \]\n", b"", copy)
    assert json.loads(plain.decode(errors="surrogateescape")) == kept, "the copy has not what was kept" + report
    assert all(one in (other, ord(" ")) for one, other in zip(copy, document, strict=True)), "moved" + report

    wrong, culprits = troubles(bed, copy, kept)
    assert not has_ended(wrong), f"the copy ends the daemon: {wrong}" + report
    places = [position for position in range(len(elements)) if position not in left_out]
    in_error = {finding["element"] for finding in findings if finding["severity"] == "error"} - left_out
    assert {places[culprit] for culprit in culprits} <= in_error, f"not served: {wrong}" + report
    assert in_error or not wrong, f"not served: {wrong}" + report

    for position in left_out:
        back = [element for other, element in enumerate(elements) if other == position or other not in left_out]
        if any(finding["kind"] == "fuse-file" for finding in findings if finding["element"] == position):
            path = as_text(elements[position].get("path")).split("\0")[0]
            assert not os.path.isfile(os.path.join(bed.directory, path)), "its file is there" + report
            continue
        wrong, _ = troubles(bed, encoded(back), back)
        assert has_ended(wrong), f"element {position} was left out, and does no harm: {wrong}" + report
    return bool(left_out)


@pytest.mark.parametrize("judgement", [judge_with_and_without_errors, judge_salvaged])
def test_verdict_fits_the_daemon(bed, capsys, monkeypatch, judgement):
    monkeypatch.chdir(bed.directory)
    with_errors = 0
    for seed in range(FIRST_SEED, FIRST_SEED + CASES):
        directory = os.path.join(bed.directory, "case")
        os.mkdir(directory)
        try:
            with_errors += judgement(bed, Generator(seed, directory), seed)
        except (AssertionError, GLib.Error, subprocess.TimeoutExpired) as error:
            raise AssertionError(f"KORVANEINFO_CHECK_SEED={seed}: {error}") from error
        shutil.rmtree(directory)
    with capsys.disabled():
        print(f"{judgement.__name__}: {CASES} cases from KORVANEINFO_CHECK_SEED={FIRST_SEED} on, {with_errors} "
              "verdicts with errors")
    assert CASES < 100 or 0.2 * CASES < with_errors < 0.9 * CASES, "the cases are lopsided"
