"""korvaneinfoctl's list, get and set, as people and scripts use them."""

import fcntl
import json
import os
import pty
import struct
import subprocess
import termios

import pytest

from testbed import INTERFACE, ROOT, TIMEOUT, Signals


def board(bed):
    """Returns the elements of a board that has a bit of everything."""
    def element(name, interface, objectpath, content, type_, **keys):
        return {"name": name, "interface": interface, "objectpath": objectpath, "location": "par", "type": type_,
                "path": bed.file(f"{objectpath.replace('/', '-')}-{name}", content), "read": True, **keys}
    return [element("Serial", "Board", "", "SN-1\n", "s"),
            element("Count", "Board", "", "42\n", "u", write=True),
            element("Serial", "Net", "Eth0", "ä \x1b[31m x\n", "s", write=True),
            element("Speed", "Net", "Eth0", "21.5\n", "d", write=True),
            element("Secret", "Net", "Eth0", "5\n", "i", read=False, write=True),
            element("On", "Gpio", "Eth0/Led", "true\n", "b", write=True),
            element("Byte", "Gpio", "Eth0/Led", "7", "y", write=True)]


TABLE = ["OBJECT   INTERFACE PROPERTY TYPE ACCESS    VALUE",
         "/        Board     Serial   s    read      SN-1",
         "/        Board     Count    u    readwrite 42",
         "Eth0     Net       Serial   s    readwrite ä \\x1b[31m x",
         "Eth0     Net       Speed    d    readwrite 21.5",
         "Eth0     Net       Secret   i    write     -",
         "Eth0/Led Gpio      On       b    readwrite true",
         "Eth0/Led Gpio      Byte     y    readwrite 7"]


@pytest.fixture
def served(bed):
    """A test bed whose daemon serves the board."""
    bed.start(board(bed))
    return bed


@pytest.fixture
def activated(activatable):
    """A test bed whose bus starts the daemon for the board when somebody asks for it."""
    return activatable(board)


def environment(bed, **changes):
    """Returns the environment in which the tool finds the test bed's bus."""
    return {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bed.bus.address, "TERM": "xterm", "NO_COLOR": "", **changes}


def run(bed, *arguments, **changes):
    """Runs the tool; returns status, standard output, standard error."""
    result = subprocess.run([os.environ["KORVANEINFOCTL"], *arguments], env=environment(bed, **changes),
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT,
                            check=False)
    return result.returncode, result.stdout.decode(), result.stderr.decode()


def output_of(bed, *arguments):
    """Runs the tool, which has to succeed in silence; returns its standard output."""
    status, output, complaints = run(bed, *arguments)
    assert (status, complaints) == (0, "")
    return output


def complaint_of(bed, *arguments):
    """Runs the tool, which has to fail without output; returns what it complains of."""
    status, output, complaints = run(bed, *arguments)
    assert (status, output) == (1, "")
    assert complaints.startswith("korvaneinfoctl: ")
    return complaints.removeprefix("korvaneinfoctl: ").removesuffix("\n")


def on_terminal(bed, columns, *arguments, **changes):
    """Runs the tool on a terminal of this width; returns what it prints there."""
    terminal, side = pty.openpty()
    fcntl.ioctl(side, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))
    with subprocess.Popen([os.environ["KORVANEINFOCTL"], *arguments], env=environment(bed, **changes), stdout=side,
                          stdin=subprocess.DEVNULL, stderr=subprocess.PIPE) as process:
        os.close(side)
        output = b""
        while True:
            try:
                piece = os.read(terminal, 4096)
            except OSError:  # the tool has ended
                break
            output += piece
        os.close(terminal)
        assert process.wait(TIMEOUT) == 0
    return output.decode().replace("\r\n", "\n")


def test_list_is_the_default_and_shows_all_items(served):
    for arguments in [[], ["list"], ["--no-autostart", "list"]]:
        assert output_of(served, *arguments).splitlines() == TABLE


def test_list_without_legend(served):
    lines = output_of(served, "list", "--no-legend").splitlines()
    assert [line.split() for line in lines] == [line.split() for line in TABLE[1:]]


def test_full_names(served):
    lines = output_of(served, "--full").splitlines()
    assert lines[3].split()[:3] == [f"{ROOT}/Eth0", f"{INTERFACE}.Net", "Serial"]
    assert len(lines) == len(TABLE)


def test_list_of_an_empty_board(bed):
    bed.start([])
    assert output_of(bed) == "OBJECT INTERFACE PROPERTY TYPE ACCESS VALUE\n"
    assert json.loads(output_of(bed, "--json")) == []


def test_list_as_json(served):
    items = json.loads(output_of(served, "--json"))
    assert [list(item) for item in items] == [["access", "interface", "object", "property", "type", "value"]] * 7
    assert items[0] == {"object": ROOT, "interface": f"{INTERFACE}.Board", "property": "Serial", "type": "s",
                        "access": "read", "value": "SN-1"}
    assert [item["value"] for item in items] == ["SN-1", 42, "ä \x1b[31m x", 21.5, None, True, "7"]


def test_list_shows_what_cannot_be_read(bed):
    elements = board(bed)[:1]
    bed.start(elements + [{**elements[0], "name": "Odd", "interface": "Other"}])
    assert output_of(bed).splitlines()[2] == "/      Board     Odd      s    read   error: property Odd unknown"
    assert json.loads(output_of(bed, "--json"))[1]["value"] is None
    assert complaint_of(bed, "get", "Odd") == "/Board/Odd: property Odd unknown"


def test_terminal_gets_colour_and_no_more_than_its_width(served):
    bold = "\x1b[1m{}\x1b[0m"
    assert on_terminal(served, 200).splitlines() == [bold.format(TABLE[0])] + TABLE[1:]
    narrow = on_terminal(served, 49).splitlines()
    assert narrow[3] == TABLE[3][:48] + "…"
    assert narrow[2] == TABLE[2]
    assert on_terminal(served, 10).splitlines()[1:3] == ["/        …", "/        …"]
    assert on_terminal(served, 20, "-l", "--no-legend").splitlines()[0].endswith("SN-1")


def test_colour_can_be_refused(served):
    assert on_terminal(served, 200, NO_COLOR="1").splitlines() == TABLE
    assert "\x1b" not in on_terminal(served, 200, NO_COLOR="", TERM="dumb")
    assert "\x1b" in on_terminal(served, 200, NO_COLOR="")


@pytest.mark.parametrize("name", [
    "Speed", "Net/Speed", f"{INTERFACE}.Net/Speed", "Eth0/Speed", "Eth0/Net/Speed", f"{ROOT}/Eth0/Speed",
    f"{ROOT}/Eth0/Net/Speed", f"{ROOT}/Eth0/{INTERFACE}.Net/Speed"])
def test_names_of_an_item(served, name):
    assert output_of(served, "get", name) == "21.5\n"


@pytest.mark.parametrize("name", ["/Serial", "Board/Serial", "/Board/Serial", f"{ROOT}/Serial"])
def test_names_of_an_item_of_the_root_object(served, name):
    assert output_of(served, "get", name) == "SN-1\n"


def test_ambiguous_name_lists_the_candidates(served):
    for command in [["get", "Serial"], ["set", "Serial", "x"], ["watch", "Serial"]]:
        assert complaint_of(served, *command) == ("Serial: ambiguous, it could be\n"
                                                  "  /Board/Serial\n"
                                                  "  Eth0/Net/Serial")


def test_unknown_name(served):
    for name in ["Nothing", "eth0/Speed", "Eth0", "peed", "", "/"]:
        assert complaint_of(served, "get", name) == f"{name}: no such item"


def test_get_prints_one_value_a_line(served):
    assert output_of(served, "get", "Count", "On", "/Serial") == "42\ntrue\nSN-1\n"
    assert [item["value"] for item in json.loads(output_of(served, "get", "--json", "Count", "On"))] == [42, True]


def test_get_prints_text_as_it_is_but_to_a_terminal(served):
    assert output_of(served, "get", "Eth0/Serial") == "ä \x1b[31m x\n"
    assert on_terminal(served, 80, "get", "Eth0/Serial") == "ä \\x1b[31m x\n"


def test_get_prints_nothing_when_one_name_is_wrong(served):
    assert complaint_of(served, "get", "Count", "Nothing") == "Nothing: no such item"
    assert complaint_of(served, "get", "Secret") == "Eth0/Net/Secret: cannot be read, it is write-only"


@pytest.mark.parametrize("name, value, answer", [
    ("Count", "7", "7"), ("Count", "2147483647", "2147483647"), ("Eth0/Serial", "x y", "x y"), ("Eth0/Serial", "", ""),
    ("Speed", "-1.25", "-1.25"), ("Speed", "1e300", "1e+300"), ("Speed", "inf", "inf"), ("On", "false", "false"),
    ("Byte", "200", "0xc8")])
def test_set_is_read_back(served, name, value, answer):
    assert output_of(served, "set", name, value) == ""
    assert output_of(served, "get", name) == answer + "\n"


def test_set_prints_the_item_as_json(served):
    assert json.loads(output_of(served, "--json", "set", "Speed", "-5"))[0]["value"] == -5.0


@pytest.mark.parametrize("name, value, reason", [
    ("/Board/Count", "x", "\"x\" is not a whole number without a sign"),
    ("/Board/Count", "-1", "\"-1\" is not a whole number without a sign"),
    ("/Board/Count", "3000000000",
     "\"3000000000\" is above 2147483647: the daemon could not read it back and would end"),
    ("/Board/Count", "4294967296", "\"4294967296\" is out of range"),
    ("Eth0/Net/Secret", "1.5", "\"1.5\" is not a whole number"),
    ("Eth0/Net/Speed", "fast", "\"fast\" is not a number"),
    ("Eth0/Net/Speed", "1e-310", "\"1e-310\" is too near to zero: the daemon could not read it back and would end"),
    ("Eth0/Led/Gpio/On", "1", "\"1\" is neither true nor false"),
    ("Eth0/Led/Gpio/Byte", "256", "\"256\" is out of range"),
    ("Eth0/Net/Serial", b"\xff", "the value is not UTF-8"),
    ("/Board/Serial", "x", "cannot be set, it is read-only")])
def test_bad_value_is_refused_before_it_is_sent(served, name, value, reason):
    signals = Signals(served.bus)
    assert complaint_of(served, "set", name, value) == f"{name}: {reason}"
    assert signals.so_far() == []


def test_set_that_the_daemon_could_not_store(bed):
    elements = board(bed)
    bed.start(elements)
    os.remove(elements[1]["path"])
    os.mkdir(elements[1]["path"])
    assert complaint_of(bed, "set", "Count", "7") == (
        "/Board/Count: the daemon answered success, but the value is 42")


def test_set_of_text_that_the_daemon_stores_in_another_way(served):
    assert complaint_of(served, "set", "Eth0/Serial", "it's") == (
        "Eth0/Net/Serial: the daemon answered success, but the value is \"it's\"")


def test_set_of_an_item_that_cannot_be_read_back(bed):
    elements = board(bed)
    bed.start(elements)
    status, output, complaints = run(bed, "set", "Secret", "-9")
    assert (status, output, complaints) == (
        0, "", "Eth0/Net/Secret: sent, but it is write-only and cannot be read back\n")
    with open(elements[4]["path"], encoding="utf-8") as file:
        assert file.read() == "-9\n"


def test_daemon_that_ends_over_a_value(bed):
    elements = board(bed)
    bed.start([{**elements[0], "type": "u"}])
    assert complaint_of(bed).startswith(
        "the daemon has ended or does not answer, `korvaneinfoctl check` on its configuration may tell why (")


def test_without_a_daemon(bed):
    for arguments in [[], ["get", "x"], ["set", "x", "y"], ["watch"], ["--no-autostart"]]:
        assert complaint_of(bed, *arguments).startswith("the daemon is not running (")


def test_without_a_bus(bed):
    bed.bus.stop()
    assert complaint_of(bed) == "no connection to the system bus: Connection refused"


@pytest.mark.parametrize("arguments, complaint", [
    (["bogus"], "korvaneinfoctl: unknown command bogus\n"),
    (["get"], "korvaneinfoctl: get needs a NAME\n"),
    (["set", "x"], "korvaneinfoctl: set needs a NAME and a VALUE\n"),
    (["set", "x", "y", "z"], "korvaneinfoctl: set needs a NAME and a VALUE\n"),
    (["list", "x"], "korvaneinfoctl: list takes no NAME\n"),
    (["-H", "x", "check", "y"], "korvaneinfoctl: check takes neither --host nor --machine\n"),
    (["list", "--bogus"], "list: unrecognized option '--bogus'\n"),
])
def test_wrong_usage(bed, arguments, complaint):
    assert run(bed, *arguments) == (2, "", complaint + "Try 'korvaneinfoctl --help'.\n")


def test_help_and_version(bed):
    assert output_of(bed, "--help").startswith("Usage: korvaneinfoctl [OPTION]... [COMMAND]\n")
    assert output_of(bed, "--version").startswith("korvaneinfoctl ")


def test_reading_starts_the_daemon_by_activation(activated):
    assert complaint_of(activated, "--no-autostart").startswith("the daemon is not running (")
    assert output_of(activated, "get", "Count") == "42\n"
    assert output_of(activated, "--no-autostart", "get", "Count") == "42\n"


def test_other_host_is_asked_over_ssh(served, tmp_path):
    ssh = tmp_path / "ssh"
    ssh.write_text(f"#!/bin/sh\necho \"$@\" >{tmp_path}/arguments\n"
                   f"exec systemd-stdio-bridge --bus-path=\"{served.bus.address}\"\n")
    ssh.chmod(0o755)
    path = f"{tmp_path}:{os.environ['PATH']}"
    status, output, complaints = run(served, "-H", "root@board-7", "get", "Count", PATH=path)
    assert (status, output, complaints) == (0, "42\n", "")
    assert "root@board-7" in (tmp_path / "arguments").read_text().split()
    ssh.write_text("#!/bin/sh\necho board-8 is unreachable >&2\nexit 255\n")
    status, output, complaints = run(served, "-H", "board-8", PATH=path)
    assert (status, output) == (1, "")
    assert complaints.startswith("board-8 is unreachable\nkorvaneinfoctl: no connection to the system bus of board-8: ")


def test_unknown_container(served):
    assert complaint_of(served, "-M", "nowhere").startswith("no connection to the system bus of nowhere: ")
