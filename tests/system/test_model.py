"""The daemon against the model: random configurations, value files and requests; everything seen must be as predicted.

MODEL_CASES sets the number of cases, MODEL_SEED the seed. A case that fails is shrunk and printed, with the seed.
"""

import json
import os
import re
import tempfile
from collections import Counter
from dataclasses import dataclass

import hypothesis
from gi.repository import Gio, GLib
from hypothesis import strategies as st

from model import (BROKEN, BUS_NAME, DIRECTORY, INTERFACE, INVALID_ARGS, NO_REPLY, ROOT, UNKNOWN_METHOD, Model,
                   is_utf8)
from testbed import PROPERTIES, Signals, TestBed, full_path

CASES = int(os.environ.get("MODEL_CASES", "300"))
SEED = int(os.environ.get("MODEL_SEED", "1"))

# --- what cases are made of. The first of each list is what a failing case is shrunk towards.

NAMES = ["Serial", "MacAddress", "Speed", "Rev", "a name with blanks, longer than the column", "Größe"]
ODD_NAMES = ["", "a'b", "<x>", "a&b", "&amp;", "&", "x\0y", "\udcff", "tab\t", "nl\n", 5, 0.5, True, None, [], {"a": 1}]
INTERFACES = ["Board", "Network", "A.B"]
ODD_INTERFACES = ["", "9x", "Bo-ard", "B&#79;ard", "BOard", "a'b", "\uff22oard", "\udcff", "Board\0", 7, None, ["x"]]
OBJECT_PATHS = ["", "Eth0", "Eth1", "eth0", "a/b", "a", "Eth0/deep/er"]
ODD_OBJECT_PATHS = ["/Eth0", "a//b", "a-b", "Eth0/", "&#65;", "A", "a'b", "é", "\udcff", "x\0y", 12, None, {}]
FILES = ["f0", "f1", "f2", "f3", "f4"]
ODD_PATHS = ["missing", "no/such", "folder", "folder/new", "./f0", "", "f0\0x", "\udcfe", 8, None, [1]]
LOCATIONS = ["par", "fuses"]
ODD_LOCATIONS = ["", "PAR", "Fuses", "par\0", "other", 1, None, ["par"]]
OFFSETS = ["0", "4", "0x5", "010", "08", "  2", "3abc", "", 1, 6, 9]
ODD_OFFSETS = ["abc", "-1", "0x", "4294967300", "99999999999999999999", "-9223372036854775809", "1\0", "\n", "+", "x\n",
               2.0, 1.5, -4, 1e300, 2**64, 2**63, True, None, [], {}]
LENGTHS = [1, 2, 3, 4, 5, 0, 6, 8, 12, 40]
ODD_LENGTHS = [2.0, 2.75, True, None, -1, 2**32, 1e10, "4", [], {}]
TYPES = ["s", "b", "d", "i", "u"]
OTHER_TYPES = ["y", "n", "q", "x", "t", "o", "g", "as", "ay", "v", "a{sv}", "(si)", "b", "i"]
ODD_TYPES = ["", "zz", "ss", "ib", "a", "i'", "\udcff", "s\0", 3, None, []]
FLAGS = [True, False]
ODD_FLAGS = [1, 0, -1, 0.0, 0.25, None, "true", [], {}]
RAW_TEXTS = ["0", "1", "32", "255", "65", "16705", "4142434445", "0000000000", "ffffffffff", "*", "AB", "0x1"]
DOCUMENTS = [None, {}, 5, "x", [], {"a": 1}, [5], [[]], [None], ["x"], [None, True]]
BROKEN_TEXTS = ["", " ", "[", "{", "nope", "[1 2]", '{"a" 1}', '[{"name": "x}]', "[}", "'x'", '["\\x"]', "// nothing",
                '["\\ud800"]', "[tru]", "\udcff"]

CONTENTS = {
    "s": ["text", "", "two words", "a\r", "it's", "ä€😀", "true"],
    "b": ["true", "false", "TRUE", "1", "", "true ", " true", "ｔｒｕｅ", "true\0"],
    "d": ["1.5", "-0", "inf", "nan", "1e5xyz", " \t2", "0x1p3", "1e308", ".5"],
    "i": ["42", "-7", "12abc", "  7", "0x1F", "2147483647", "-2147483648", "+3", "010"],
    "u": ["42", "-1", "0", "2147483647", "12abc", "2147483648", "4294967295", "-2147483648"],
}
ODD_CONTENTS = ["abc", "", "2147483648", "-2147483649", "4294967295", "99999999999999999999", "1e400", "1e-310",
                "12\0x", "\udcff\udcfe", "ok\0\udcff", "-", "\0", "e5", "ｔｒｕｅ"]
BYTES = st.sampled_from([0, 1, 0x41, 0x42, 0xff, 0x80, 9, 10, 11, 12, 13, 32]) | st.integers(0, 255)
TEXT = st.text(st.characters(blacklist_categories=["Cs"], blacklist_characters="\0"), max_size=12)
VALUES = {
    "s": st.sampled_from(["", "abc", "it's", "''x''", "'", '"', "a\nb", "\\", "\u0001", "ä€", "true", "\u200b"]) | TEXT,
    "b": st.booleans(),
    "d": st.floats(allow_subnormal=False),  # which GVariant's own text form cannot be read back
    "i": st.integers(-2**31, 2**31 - 1),
    "u": st.sampled_from([0, 7, 2**31 - 1, 2**31, 2**32 - 1]) | st.integers(0, 2**32 - 1),
    "y": st.integers(0, 255),
    "n": st.integers(-2**15, 2**15 - 1),
    "q": st.integers(0, 2**16 - 1),
    "x": st.integers(-2**63, 2**63 - 1),
    "t": st.integers(0, 2**64 - 1),
    "o": st.sampled_from(["/", "/a/b"]),
    "g": st.sampled_from(["", "a{sv}"]),
    "as": st.lists(TEXT, max_size=2),
    "ay": st.binary(max_size=4),
    "(si)": st.tuples(TEXT, st.integers(-5, 5)),
}
VALUE_TEXTS = {
    "v": ["<1>", "<'x'>", "<<uint32 5>>"],
    "a{sv}": ["@a{sv} {}", "{'a': <1>, 'b': <'x'>}"],
}


@dataclass
class Case:
    """One run: the configuration (as text, and as the document it stands for), files, requests."""

    document: object
    text: str
    files: dict
    name_is_taken: bool
    requests: list


def element(draw, odds, pools):
    """Draws one element of the configuration; with `odds`, one in so many of its values is an odd one."""

    def pick(usual, odd):
        return draw(st.sampled_from(odd if odds and draw(st.integers(0, odds)) == odds else usual))

    drawn = {
        "name": pick(NAMES, ODD_NAMES),
        "interface": pick(pools["interface"], ODD_INTERFACES),
        "objectpath": pick(pools["objectpath"], ODD_OBJECT_PATHS),
        "path": pick(pools["path"], ODD_PATHS),
        "location": pick(LOCATIONS, ODD_LOCATIONS),
        "type": pick(TYPES, OTHER_TYPES) if draw(st.booleans()) else pick(TYPES + OTHER_TYPES, ODD_TYPES),
        "read": pick(FLAGS, ODD_FLAGS),
        "write": pick(FLAGS, ODD_FLAGS),
        "signal": pick(FLAGS, ODD_FLAGS),
        "offset": pick(OFFSETS, ODD_OFFSETS),
        "length": pick(LENGTHS, ODD_LENGTHS),
    }
    if draw(st.booleans()):
        keys = st.sampled_from(RAW_TEXTS)
        texts = st.sampled_from(["off", "on", "true", "7", "0", "", "ä", "\udcff"])
        drawn["translate"] = draw(st.dictionaries(keys, texts, max_size=4))
        if odds and draw(st.integers(0, odds)) == odds:
            drawn["translate"] = draw(st.sampled_from([{"*": 7}, {"0": None, "*": []}, {"*": {}}, None, "x", 5, []]))
    if odds and draw(st.integers(0, odds)) == odds:
        del drawn[draw(st.sampled_from(list(drawn)))]
    return drawn


def value_file(draw, entries):
    """Draws a value file: text that suits one of the entries' types, odd text, or bytes."""
    kind = draw(st.sampled_from([*(str(entry.get("type"))[:1] for entry in entries), "s"]))
    good = st.sampled_from(CONTENTS.get(kind, CONTENTS["s"]))
    text = draw(st.one_of(good, good, good, st.sampled_from(ODD_CONTENTS), st.none()))
    if text is None:
        return bytes(draw(st.lists(BYTES, max_size=24)))
    return text.encode("utf-8", "surrogateescape") + draw(st.sampled_from([b"\n", b"", b"\nmore\n", b"\r\n"]))


def variant_text(draw, signature):
    """Draws a value of a type, in the text form of GVariant."""
    if signature in VALUE_TEXTS:
        return draw(st.sampled_from(VALUE_TEXTS[signature]))
    if signature not in VALUES:
        signature = "s"
    return GLib.Variant(signature, draw(VALUES[signature])).print_(True)


def sendable(text, otherwise):
    return text if isinstance(text, str) and is_utf8(text) and "\0" not in text else otherwise


def request(draw, entries):
    """Draws one request: mostly for an entry's property, as declared or under its own interface. What is set is often
    read back."""
    entry = draw(st.sampled_from(entries or [{}]))
    path = entry.get("objectpath") or ""
    siblings = [other for other in entries if (other.get("objectpath") or "") == path]
    declaring = draw(st.sampled_from([(siblings or [{}])[0]] * 4 + [entry]))
    wrong = draw(st.integers(0, 15))
    path = full_path(path) if isinstance(path, str) else ROOT
    if wrong == 15 or not GLib.Variant.is_object_path(sendable(path, "")):
        path = draw(st.sampled_from([ROOT, "/", "/com/brenvok", *map(full_path, ["Eth0", "a", "A", "nope"])]))
    interface = INTERFACE + "." + sendable(declaring.get("interface") or "", "Board")
    if wrong == 14:
        interface = draw(st.sampled_from([INTERFACE, INTERFACE + ".", INTERFACE + ".BOard", PROPERTIES, "", "x y"]))
    name = sendable(entry.get("name"), "Nope")
    if wrong == 13:
        name = draw(st.sampled_from(["Nope", "", "&", "serial", "Serial ", "Größe", "x" * 300]))
    kind = draw(st.sampled_from(["get", "set", "set", "get", "get_all", "introspect", "call"]))
    if kind == "introspect":
        return [(kind, path)]
    if kind == "get_all":
        return [(kind, path, interface)]
    if kind == "call":
        # The bus library itself refuses to send what is no interface name or no member name.
        known = Gio.dbus_is_interface_name(interface)
        return [(kind, path, interface if known else "com.example", draw(st.sampled_from(["Get", "Frobnicate"])))]
    if kind == "get":
        return [(kind, path, interface, name)]
    signature = entry.get("type") if wrong != 12 else draw(st.sampled_from(TYPES + OTHER_TYPES))
    text = variant_text(draw, signature if isinstance(signature, str) else "s")
    return [(kind, path, interface, name, text)] + [("get", path, interface, name)] * draw(st.integers(0, 1))


def rendered(draw, document):
    """Draws one of the spellings of a document."""
    text = json.dumps(document, ensure_ascii=False, indent=draw(st.sampled_from([None, 2])))
    if text.endswith("}]") and draw(st.integers(0, 7)) == 7:
        text = text[:-2] + ",}  , ]" if text[-3] != "{" else text
    before = draw(st.sampled_from(["", "", "", "\n \t", "/* what\nthis is */ ", "// a remark\n", "\ufeff"]))
    behind = draw(st.sampled_from(["", "", "", "\n", " // the end", " /* the end */", " and more", "]", "[}"]))
    return before + text + behind


@st.composite
def cases(draw):
    odds = draw(st.sampled_from([0, 0, 99, 99, 30, 9]))
    pools = {"interface": INTERFACES[:draw(st.integers(1, 3))], "path": FILES[:draw(st.integers(1, 5))],
             "objectpath": draw(st.lists(st.sampled_from(OBJECT_PATHS), min_size=1, max_size=3))}
    if draw(st.integers(0, 29)) == 29:
        document = draw(st.sampled_from([*DOCUMENTS, BROKEN, BROKEN, BROKEN]))
    else:
        document = draw(st.lists(st.composite(element)(odds, pools), min_size=1, max_size=6))
        if len(document) > 1 and draw(st.integers(0, 5)) == 5:
            document.append(dict(document[0], **draw(st.sampled_from([{}, {"path": "f4"}, {"write": True}]))))
    entries = [item for item in document if isinstance(item, dict)] if isinstance(document, list) else []
    text = draw(st.sampled_from(BROKEN_TEXTS)) if document is BROKEN else rendered(draw, document)
    files = {name: value_file(draw, entries) for name in FILES if draw(st.integers(0, 11)) < 11}
    requests = sum(draw(st.lists(st.composite(request)(entries), max_size=15)), [])
    return Case(document, text, files, draw(st.integers(0, 39)) == 39, requests)


# --- the daemon's side

class Run:
    """One run of the daemon: what it did, in the model's terms."""

    def __init__(self, bed, case):
        self.bed = bed
        self.folder = os.path.join(bed.directory, "values")
        os.makedirs(os.path.join(self.folder, "folder"))
        for name, content in case.files.items():
            bed.file(os.path.join("values", name), content)
        self.signals = Signals(bed.bus)
        self.wait_for_bus()
        if case.name_is_taken:
            bed.bus.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                         GLib.Variant("(su)", (BUS_NAME, 0)))
        configuration = bed.configuration(case.text.encode("utf-8", "surrogateescape"))
        self.daemon = bed.run("-c", configuration, cwd=self.folder)

    def wait_for_bus(self):
        """Waits until the bus has done everything this run's recorder of signals asked before."""
        self.bed.bus.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
                          connection=self.signals.connection)
        while GLib.MainContext.default().pending():
            GLib.MainContext.default().iteration(False)

    def request(self, kind, *arguments):
        """Sends a request; returns its reply as the model does."""
        try:
            return ("reply", getattr(self, "_" + kind)(*arguments))
        except GLib.Error as error:
            name = Gio.DBusError.get_remote_error(error)
            return ("error", name, error.message.removeprefix(f"GDBus.Error:{name}: "))

    def _invoke(self, path, interface, method, parameters=None):
        return self.bed.bus.connection.call_sync(BUS_NAME, path, interface, method, parameters, None,
                                                 Gio.DBusCallFlags.NO_AUTO_START, 30000, None)

    def _get(self, path, interface, name):
        return self._invoke(path, PROPERTIES, "Get", GLib.Variant("(ss)", (interface, name))).print_(True)

    def _get_all(self, path, interface):
        items = self._invoke(path, PROPERTIES, "GetAll", GLib.Variant("(s)", (interface,))).get_child_value(0)
        pairs = [items.get_child_value(i) for i in range(items.n_children())]
        return [(key.unpack(), value.get_variant().print_(True))
                for key, value in ((pair.get_child_value(0), pair.get_child_value(1)) for pair in pairs)]

    def _set(self, path, interface, name, value):
        parameters = GLib.Variant("(ssv)", (interface, name, value))
        return self._invoke(path, PROPERTIES, "Set", parameters).print_(True)

    def _introspect(self, path):
        xml = self._invoke(path, "org.freedesktop.DBus.Introspectable", "Introspect").unpack()[0]
        # Not parsed: the bus library writes names as they are, so that one with an ampersand makes it no XML.
        interfaces, end, nodes = xml.rpartition("  </interface>\n")
        begin = interfaces.find(f'  <interface name="{INTERFACE}')
        return (None if begin == -1 else interfaces[begin:] + end), sorted(re.findall('<node name="(.*)"/>', nodes))

    def _call(self, path, interface, method):
        return self._invoke(path, interface, method).print_(True)

    def files(self):
        """Returns the value files as they are now."""
        found = {}
        for folder, folders, names in os.walk(self.folder):
            for name in names:
                path = os.path.join(folder, name)
                with open(path, "rb") as file:
                    found[os.path.relpath(path, self.folder)] = file.read()
            found.update({os.path.relpath(os.path.join(folder, name), self.folder): DIRECTORY for name in folders})
        return found


def send(value):
    return GLib.Variant.parse(None, value, None, None)


def compare(case, seen):
    """Runs one case with the daemon and with the model; counts in `seen` what happened in it."""
    model = Model(case.document, dict(case.files, folder=DIRECTORY), case.name_is_taken)
    bed = TestBed(tempfile.mkdtemp(prefix="korvaneinfod-model-"))
    try:
        run = Run(bed, case)
        if model.status is None:
            assert run.daemon.wait_for_name(bed.bus), f"ended with {run.daemon.wait()}: {run.daemon.stderr()}"
        for sent in case.requests:
            if model.status is not None:
                break
            arguments = [*sent[:4], *map(send, sent[4:])]
            predicted = model.request(*arguments)
            answered = run.request(*arguments)
            if predicted[0] == "error" and predicted[2] is None:
                answered = (*answered[:2], None)
            assert answered == predicted, sent
            seen[f"{sent[0]}: {predicted[1] if predicted[0] == 'error' else 'reply'}"] += 1
        seen[f"end with {model.status} after {model.journal[-1][4].split(':')[0] if model.journal else 'nothing'}"] += 1
        if model.status is None:
            run.wait_for_bus()
            bed.bus.stop()
            model.lose_bus()
        assert run.daemon.wait() == model.status, run.daemon.stderr()
        # GLib announces its own failed assertions on standard output.
        assert run.daemon.stdout().split(b"Bail out!")[0] == model.listing
        assert run.daemon.journal() == model.journal
        if bed.bus.process.poll() is None:
            run.wait_for_bus()
        assert run.signals.seen == model.signals
        assert run.files() == model.files
        assert bool(run.daemon.stderr()) == model.complaints, run.daemon.stderr()
    finally:
        bed.close()


# What a thousand cases have to bring about, or they show less than they seem to.
WANTED = {
    "get: reply", "set: reply", "get_all: reply", "introspect: reply", f"get: {INVALID_ARGS}", f"set: {INVALID_ARGS}",
    f"get: {UNKNOWN_METHOD}", f"call: {UNKNOWN_METHOD}", f"get: {NO_REPLY}",
    "get: org.freedesktop.DBus.Error.UnknownProperty", "set: org.freedesktop.DBus.Error.UnknownProperty",
    "end with 0 after Error in getting data from configuration file", "end with 0 after Registration failed",
    "end with 0 after name lost", "end with -6 after Introspection Data",
}


def test_daemon_does_what_the_model_predicts():
    """Thousands of cases are one test: a failure names the case, the seed and the difference."""
    seen = Counter()

    @hypothesis.seed(SEED)
    @hypothesis.settings(max_examples=CASES, deadline=None, database=None, print_blob=False,
                         suppress_health_check=list(hypothesis.HealthCheck))
    @hypothesis.given(cases())
    def property_of_all_cases(case):
        compare(case, seen)

    print(f"MODEL_SEED={SEED} MODEL_CASES={CASES}")
    property_of_all_cases()
    for what, count in sorted(seen.items()):
        print(f"{count:6} {what}")
    assert CASES < 1000 or WANTED <= seen.keys(), WANTED - seen.keys()
