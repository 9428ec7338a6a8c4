"""`check --salvage`: what the copy of a configuration keeps and lacks, what is said of it, and what it waits for."""

import contextlib
import json
import os
import shutil
import subprocess

import pytest

from checking import run_check, run_salvage
from testbed import SOURCE_ROOT

GOOD = '{"name": "Serial", "interface": "Board", "path": "TEXT", "location": "par", "type": "s", "read": true}'
WRONG_TYPE = '{"length": "x"}'


@pytest.fixture
def folder(tmp_path):
    """A folder with value files, in which the configuration is board.json and the copy is copy.json."""
    (tmp_path / "text").write_text("abc\n")
    (tmp_path / "number").write_text("42\n")
    (tmp_path / "latin").write_bytes(b"\xe4\n")
    (tmp_path / "fuse").write_bytes(bytes(range(0x80, 0x90)))
    os.mkfifo(tmp_path / "fifo")
    return tmp_path


def salvage(folder, text, *options):
    """Salvages this text; returns the status, the copy, the positions of the elements left out, and the summary."""
    data = text.encode() if isinstance(text, str) else text
    (folder / "board.json").write_bytes(data.replace(b"TEXT", str(folder / "text").encode()))
    status, findings, summary = run_salvage("board.json", "copy.json", *options, cwd=folder)
    left_out = sorted({finding["element"] for finding in findings if finding.get("leftOut")})
    copy = (folder / "copy.json").read_bytes() if (folder / "copy.json").exists() else None
    return status, copy, left_out, summary


def item(folder, **changes):
    """Returns an element, with some keys changed; the path is that of a value file."""
    element = {"name": "Serial", "interface": "Board", "path": "text", "location": "par", "type": "s", "read": True,
               **changes}
    element["path"] = os.path.join(folder, element["path"])
    return {key: value for key, value in element.items() if value is not None}


def test_sound_configuration_is_copied_byte_for_byte(folder):
    text = f"\ufeff// a comment, with a comma\r\n[\n\t{GOOD} /* another, */ ,\r\r]\n trailing"
    text = text.replace("TEXT", str(folder / "text"))
    status, copy, left_out, summary = salvage(folder, text)
    assert (status, copy, left_out, summary) == (0, text.encode(), [], "1 of 1 items\n")
    with open(os.path.join(SOURCE_ROOT, "examples", "board", "board.json"), "rb") as file:
        example = file.read()
    assert salvage(folder, example, "--no-values")[1] == example


@pytest.mark.parametrize("before, after", [
    ("[G,W]", "[G  ]"),
    ("[W,G]", "[  G]"),
    ("[G,W,G]", "[G,  G]"),
    ("[W,W]", "[   ]"),
    ("[W]", "[ ]"),
    ("[W,]", "[  ]"),
    ("[G,W,]", "[G   ]"),
    ("[G,]", "[G,]"),
    ("[G , W , G , W ]\n", "[G ,     G     ]\n"),
    ("[W /* , */ , // ,\n G]", "[  /* , */   // ,\n G]"),
    ("[G, // ,\r\n W // ,\r /* ,\n */ ]", "[G  // ,\r\n   // ,\r /* ,\n */ ]"),
    ("[G,5,\"a,b\",[1,\n2],W,G]", "[G,         \n    G]"),
    ("\ufeff[W,G]", "\ufeff[  G]"),
    ("[ // ],\n W // ]\n]", "[ \n  \n]"),
    ("[/* ] */W,\nW,]// x", "[\n]// x"),
])
def test_what_stays_stays_where_it_is(folder, before, after):
    def document(pattern, wrong):
        return (pattern.replace("W", wrong).replace("G", '{"name": 7, "interface": "B", "type": "s", '
                                                         '"path": "TEXT", "location": "par"}')
                .replace("TEXT", str(folder / "text")).encode())
    # One blank in the pattern stands for all those of the element.
    original = document(before, WRONG_TYPE)
    _, copy, left_out, _ = salvage(folder, original)
    assert len(copy) == len(original)
    assert [byte for byte in copy if byte in b"\r\n"] == [byte for byte in original if byte in b"\r\n"]
    assert copy.replace(b" ", b"") == document(after, "").replace(b" ", b"")
    assert all(one in (other, 0x20) for one, other in zip(copy, original))
    assert left_out or copy == original


def test_element_that_would_end_the_daemon_is_left_out(folder):
    cases = [
        item(folder, length="x"), item(folder, name=["A"]), item(folder, name="A'B"), item(folder, objectpath="a-b"),
        item(folder, objectpath="X", interface="0"), item(folder, type="u"), item(folder, type="i", path="missing"),
        item(folder, type="d", path="missing"), item(folder, path="latin"), item(folder, path="fifo"),
        item(folder, path="fifo", location="x"), item(folder, path="/dev/zero"),
        item(folder, location="fuses", path="missing", length=4), item(folder, location="fuses", length=99999999),
        "text", 5, [],
    ]
    good = item(folder, name="Good")
    for case in cases:
        for elements, position in ([case, good], 0), ([good, case], 1):
            (folder / "board.json").write_text(json.dumps(elements))
            status, findings, summary = run_salvage("board.json", "copy.json", cwd=folder)
            assert json.loads((folder / "copy.json").read_text()) == [good], case
            assert {finding["element"] for finding in findings if finding.get("leftOut")} == {position}
            assert {finding["severity"] for finding in findings if finding.get("leftOut")} == {"error"}
            assert status == 1
            assert summary.startswith(f"1 of 2 items; left out: element {position}") and summary.count("\n") == 1


def test_element_that_harms_only_itself_stays(folder):
    for case in [
        item(folder, interface="Other"), item(folder, name="a-b"), item(folder, type="ss"), item(folder, type=None),
        item(folder, path="missing"), item(folder, path=""), item(folder, location="x"), item(folder, path="latin",
        read=None, write=True), item(folder, type="u", read=None, write=True), item(folder, type="b"), None,
        item(folder, interface="0"), item(folder, type="u", path="missing", interface="Other"),
        item(folder, location="fuses", path="fuse", offset=100, length=8), item(folder, name="&amp;", type="u"),
    ]:
        elements = [item(folder, name="Good"), case]
        (folder / "board.json").write_text(json.dumps(elements))
        _, _, summary = run_salvage("board.json", "copy.json", cwd=folder)
        assert json.loads((folder / "copy.json").read_text()) == elements, case
        assert "left out" not in summary and summary.startswith("2 of 2 items")


def test_what_is_left_out_no_longer_counts_for_the_others(folder):
    first = item(folder, interface="One", type="u")
    second = item(folder, interface="Two", name="B")
    unreachable = item(folder, interface="One", name="C", type="u")
    (folder / "board.json").write_text(json.dumps([first, second, unreachable, second]))
    _, findings, _ = run_salvage("board.json", "copy.json", cwd=folder)
    assert json.loads((folder / "copy.json").read_text()) == [second, unreachable, second]
    assert [(finding["element"], finding["kind"]) for finding in findings if finding["severity"] == "error"] == [
        (0, "value-number"), (1, "duplicate-item"), (2, "interface-differs"), (2, "value-number"),
        (3, "duplicate-item")]


def test_duplicate_that_opens_a_fatal_value_to_readers_is_left_out(folder):
    hidden = item(folder, type="u", read=None, write=True)
    opener = item(folder)
    for elements, rest in ([hidden, opener], [hidden]), ([item(folder, name="First"), {**opener, "interface": "Other"},
                                                          hidden], [item(folder, name="First"),
                                                                    {**opener, "interface": "Other"}]):
        (folder / "board.json").write_text(json.dumps(elements))
        run_salvage("board.json", "copy.json", cwd=folder)
        assert json.loads((folder / "copy.json").read_text()) == rest


@pytest.mark.parametrize("name", [
    "A' type='s' access='read'/> </interface> <!--",
    "A' type='s' access='read'/> <property name='B",
    "A' type='s' access='read'/> </interface> <interface name='org.freedesktop.DBus.Properties'> <property name='B",
    "A' type='s' access='read'/> </interface> </node> <node name='/x'> <interface name='a.b'> <property name='B",
])
def test_markup_in_a_name_is_left_out(folder, name):
    for path in "", "P":
        elements = [item(folder), item(folder, name=name, objectpath=path, interface="B" + path)]
        (folder / "board.json").write_text(json.dumps(elements))
        _, findings, _ = run_salvage("board.json", "copy.json", cwd=folder)
        assert json.loads((folder / "copy.json").read_text()) == elements[:1]
        assert "introspection" in {finding["kind"] for finding in findings if finding.get("leftOut")}


def test_name_that_the_bus_library_reads_as_another_one_is_judged_as_that(folder):
    """Entities are resolved, and tabs and line feeds become blanks."""
    for name, declared in [("AB", "A&#66;"), ("A B", "A\tB"), ("A B", "A\nB")]:
        hidden, opener = item(folder, name=name, type="u", read=None, write=True), item(folder, name=declared)
        for elements in [hidden, opener], [opener, hidden]:
            (folder / "board.json").write_text(json.dumps(elements))
            run_salvage("board.json", "copy.json", cwd=folder)
            assert json.loads((folder / "copy.json").read_text()) == elements[:1]
        unreachable = [item(folder, name=declared, type="u")]
        (folder / "board.json").write_text(json.dumps(unreachable))
        run_salvage("board.json", "copy.json", cwd=folder)
        assert json.loads((folder / "copy.json").read_text()) == unreachable


def test_largest_values_are_left_out_first(folder):
    (folder / "long").write_bytes(b"x" * ((4 << 20) - 20))
    (folder / "short").write_bytes(b"x" * (1 << 20))
    elements = [item(folder, name="Long", path="long"), item(folder, path="short"), item(folder, name="Other"),
                item(folder, name="Third", path="short")]
    (folder / "board.json").write_text(json.dumps(elements))
    run_salvage("board.json", "copy.json", cwd=folder)
    assert json.loads((folder / "copy.json").read_text()) == elements[1:]


def test_other_errors_are_counted_in_the_summary(folder):
    (folder / "board.json").write_text(json.dumps([item(folder), item(folder, name="B", interface="C"), 5]))
    _, _, summary = run_salvage("board.json", "copy.json", cwd=folder)
    assert summary == "2 of 3 items; left out: element 2: is a number, not an object; other errors: 1\n"


def test_value_counts_for_each_property_that_it_answers(folder):
    (folder / "long").write_bytes(b"x" * (1 << 20))
    elements = [item(folder, path="long")] + [item(folder)] * 5
    (folder / "board.json").write_text(json.dumps(elements))
    run_salvage("board.json", "copy.json", cwd=folder)
    assert json.loads((folder / "copy.json").read_text()) == elements[:3]


@pytest.mark.parametrize("text, reason", [
    ("", "board.json:1: Syntax error: value, object or array expected"),
    ("[\n,", "board.json:2: Syntax error: value, object or array expected"),
    pytest.param("[" * 2000, "board.json: Exceeded stackLimit in readValue()", id="nested"),
    ("\n{\"a\": 1, \"a\": 2}", "board.json:2: the document is an object, not an array"),
    ("null", "board.json:1: the document is null, not an array"),
    pytest.param("[]" + " " * (512 << 10), "board.json: has more than 524288 bytes", id="long"),
])
def test_hopeless_configuration(folder, text, reason):
    status, copy, _, summary = salvage(folder, text)
    assert (status, copy, summary) == (3, None, reason + "\n")


def test_configuration_that_is_no_file(folder):
    for path, reason in ("missing", "No such file or directory"), ("fifo", "is a FIFO"), ("/dev/zero", "is a device"):
        status, findings, summary = run_salvage(path, "copy.json", cwd=folder)
        assert (status, summary) == (3, f"{path}: {reason}\n")
        assert [finding["kind"] for finding in findings] == ["unreadable-file"]


def test_summary_names_three_elements_and_counts_the_rest(folder):
    summary = salvage(folder, "[1,2,3,4,5]")[3]
    assert summary == ("0 of 5 items; left out: element 0: is a number, not an object; element 1: is a number, not an "
                       "object; element 2: is a number, not an object; and 2 more\n")


def test_findings_have_a_bound_and_salvage_has_none(folder):
    odd = {"interface": "B"}
    (folder / "board.json").write_text(json.dumps([odd] * 1000 + [5, "x"] * 1000 + [odd] * 1000))
    _, findings, summary = run_salvage("board.json", "copy.json", cwd=folder)
    assert [finding["kind"] for finding in findings].count("more-findings") == 1
    assert len(findings) < 1100
    assert json.loads((folder / "copy.json").read_text()) == [odd] * 2000
    assert summary.startswith("2000 of 4000 items; and 2000 more; other errors: ")


def test_summary_fits_into_a_status(folder):
    (folder / "board.json").write_text(json.dumps([item(folder, name="\u00e4" * 6000, length="x")] * 3))
    _, _, summary = run_salvage("board.json", "copy.json", cwd=folder)
    assert len(summary.encode()) < 1100
    assert summary.count("...") == 3


def test_text_names_what_is_left_out(folder):
    (folder / "board.json").write_text(f"[\n{WRONG_TYPE}]")
    status, summary, findings = run_check("--salvage", "copy.json", "board.json", cwd=folder)
    assert (status, summary.count("\n")) == (1, 1)
    assert findings == ("board.json:2: error: left out: element 0: \"length\": is a string, not an integer from 0 to "
                        "4294967295; correct the type, the daemon ends at start [wrong-type]\n")


def test_priorities_are_given_to_the_journal_alone(folder):
    (folder / "board.json").write_text('[5, {"interface": "B", "type": "s"}]')
    command = [os.environ["KORVANEINFOCTL"], "check", "--salvage", "copy.json", "board.json"]
    status = os.stat(folder / "text")
    for stream, prefixes in (f"{status.st_dev}:{status.st_ino}", {"<3>", "<4>"}), ("1:2", {"boa"}):
        with open(folder / "text", "wb") as output:
            subprocess.run(command, cwd=folder, stderr=output, stdout=subprocess.DEVNULL, check=False,
                           env={**os.environ, "JOURNAL_STREAM": stream})
        assert {line[:3] for line in (folder / "text").read_text().splitlines()} == prefixes


def test_output_that_cannot_be_written(folder):
    (folder / "board.json").write_text("[]")
    for output in "missing/copy.json", "/dev/full":
        status, _, complaint = run_check("--salvage", output, "board.json", cwd=folder)
        assert status == 4
        assert complaint.startswith(f"cannot write {output}: ")


@pytest.mark.parametrize("arguments, complaint", [
    (["--salvage", "board.json", "board.json"], "--salvage: board.json is the file to be salvaged"),
    (["--salvage", "link.json", "board.json"], "--salvage: link.json is the file to be salvaged"),
    (["--salvage", "copy.json", "board.json", "board.json"], "--salvage takes one file"),
    (["--wait", "1", "board.json"], "--wait goes with --salvage"),
    (["--salvage", "copy.json", "--wait", "1", "--root", ".", "board.json"],
     "--wait goes neither with --root nor with --no-values"),
    (["--salvage", "copy.json", "--wait", "1", "--no-values", "board.json"],
     "--wait goes neither with --root nor with --no-values"),
    *((["--salvage", "copy.json", "--wait", text, "board.json"], f"--wait: {text} is no number of seconds")
      for text in ("", "x", "1x", "-1", "1.5", "99999999999")),
])
def test_wrong_usage(folder, arguments, complaint):
    (folder / "board.json").write_text("[]")
    (folder / "link.json").symlink_to("board.json")
    status, output, complaints = run_check(*arguments, cwd=folder)
    assert (status, output) == (2, "")
    assert complaints.startswith(f"korvaneinfoctl check: {complaint}\nUsage: ")
    assert (folder / "board.json").read_text() == "[]"


@contextlib.contextmanager
def folder_below_sys():
    """Hides a folder of /sys by an empty one, away with the test; this process has mounts of its own."""
    subprocess.run(["mount", "-t", "tmpfs", "test", "/sys/kernel"], check=True)
    try:
        yield "/sys/kernel"
    finally:
        subprocess.run(["umount", "/sys/kernel"], check=True)


def test_missing_file_below_sys_is_waited_for(folder):
    with folder_below_sys() as below:
        (folder / "board.json").write_text(json.dumps([
            item(folder, location="fuses", path=f"{below}/late", length=2),
            item(folder, name="Other", path=f"{below}/second")]))
        command = [os.environ["KORVANEINFOCTL"], "check", "--salvage", "copy.json", "--wait", "60", "board.json"]
        with subprocess.Popen(command, cwd=folder, stdout=subprocess.PIPE, text=True) as process:
            assert process.stdout.readline() == f"waiting for {below}/late and 1 more\n"
            shutil.copy(folder / "fuse", f"{below}/late")
            assert process.stdout.readline() == f"waiting for {below}/second\n"
            shutil.copy(folder / "text", f"{below}/second")
            assert process.stdout.readline() == "2 of 2 items\n"
        assert process.returncode == 0


def test_file_that_does_not_come_is_reported(folder):
    with folder_below_sys() as below:
        (folder / "board.json").write_text(json.dumps([item(folder, location="fuses", path=f"{below}/x", length=2)]))
        status, findings, output = run_salvage("board.json", "copy.json", "--wait", "1", cwd=folder)
    assert status == 1
    assert output == (f"waiting for {below}/x\n0 of 1 items; left out: element 0 \"Serial\": \"path\": cannot read "
                      f"\"{below}/x\": No such file or directory\n")
    assert [finding["kind"] for finding in findings] == ["fuse-file"]


def test_files_elsewhere_are_not_waited_for(folder):
    (folder / "board.json").write_text(json.dumps([item(folder, path="missing"), item(folder, path="/sys/kernel"), 5]))
    _, _, output = run_salvage("board.json", "copy.json", "--wait", "60", cwd=folder)
    assert "waiting" not in output


def test_file_that_this_process_cannot_write_is_told(folder):
    items = [item(folder, write=True), item(folder, name="New", path="new", write=True)]
    (folder / "board.json").write_text(json.dumps(items))
    subprocess.run(["mount", "--bind", folder, folder], check=True)
    subprocess.run(["mount", "-o", "remount,bind,ro", folder], check=True)
    try:
        _, findings, _ = run_salvage(str(folder / "board.json"), "/dev/null")
    finally:
        subprocess.run(["umount", folder], check=True)
    assert [(finding["element"], finding["reason"]) for finding in findings if finding["kind"] == "write-target"] == [
        (number, f"cannot write \"{folder}/{name}\": Read-only file system")
        for number, name in [(0, "text"), (1, "new")]]


def test_image_is_not_judged_as_this_machine(folder):
    (folder / "image" / "etc").mkdir(parents=True)
    (folder / "image" / "etc" / "only-there").write_text("abc\n")
    (folder / "board.json").write_text(json.dumps([item(folder, path="/etc/only-there", write=True)]))
    _, findings, summary = run_salvage("board.json", "copy.json", "--root", "image", cwd=folder)
    assert (findings, summary) == ([], "1 of 1 items\n")


def test_file_that_is_hidden_from_the_service_cannot_be_read(folder):
    (folder / "hidden").touch(0)
    (folder / "board.json").write_text(json.dumps([item(folder, path="hidden"), item(folder, path="hidden",
                                                                                     location="fuses", length=2)]))
    _, findings, _ = run_salvage("board.json", "copy.json", cwd=folder)
    reason = f"cannot read \"{folder}/hidden\": Permission denied"
    assert [finding["kind"] for finding in findings if finding["reason"] == reason] == ["value-file", "fuse-file"]
