"""The command line: one option of any name, then the configuration file's name. The exit status is always 0."""

import os

import pytest
from gi.repository import Gio

import messages

NOTHING_READ = [messages.NOT_PARSED, messages.NO_CONFIGURATION]
LISTING = (b"#### Begin board information ####\n"
           b"Serial                  : 4711\n"
           b"#### End board information ####\n")


@pytest.fixture
def board(bed):
    """A configuration file with one entry, in the test's folder."""
    bed.element = bed.par("Serial", "4711\n")
    bed.configuration([bed.element])
    return bed


def expected_journal(board):
    """Returns the journal of a daemon that serves the board of this file."""
    return [*messages.par_entry(board.element, "4711"), *messages.serving(("", "Board", [("Serial", "s", "read")]))]


def complaint(option):
    return f"{os.environ['KORVANEINFOD']}: invalid option -- '{option}'\n"


@pytest.mark.parametrize("arguments, journal, stderr", [
    pytest.param([], [messages.OPTION_MISSING], "", id="no arguments"),
    pytest.param(["board.json"], [messages.OPTION_MISSING], "", id="a file name without an option"),
    pytest.param(["--", "board.json"], [messages.OPTION_MISSING], "", id="end of options before the file name"),
    pytest.param(["-"], [messages.OPTION_MISSING], "", id="a lone dash is no option"),
    pytest.param([""], [messages.OPTION_MISSING], "", id="an empty argument is no option"),
    pytest.param(["-c"], [messages.FILE_NAME_MISSING], "", id="option without a file name"),
    pytest.param(["board.json", "-c"], [messages.FILE_NAME_MISSING], "", id="file name before the option"),
    pytest.param(["-x"], [messages.FILE_NAME_MISSING], complaint("x"), id="unknown option without a file name"),
    pytest.param(["-cboard.json"], NOTHING_READ, "", id="file name glued to the option"),
    pytest.param(["-cx", "board.json"], NOTHING_READ, "", id="two options in one argument"),
    pytest.param(["--config", "board.json"], NOTHING_READ, complaint("-"), id="long option"),
    pytest.param(["-c", "-c", "board.json"], NOTHING_READ, "", id="the second option is the file name"),
    pytest.param(["-c", "--", "board.json"], NOTHING_READ, "", id="end of options is the file name"),
    pytest.param(["-c", "missing.json"], NOTHING_READ, "", id="missing file"),
    pytest.param(["-c", "missing/board.json"], NOTHING_READ, "", id="missing folder"),
    pytest.param(["-c", ""], NOTHING_READ, "", id="empty file name"),
    pytest.param(["-c", "."], NOTHING_READ, "", id="folder as file"),
    pytest.param(["-c", "missing.json", "board.json"], NOTHING_READ, "", id="only the first file name is read"),
])
def test_nothing_is_served(board, arguments, journal, stderr):
    daemon = board.run(*arguments, cwd=board.directory)
    assert daemon.wait() == 0
    assert daemon.journal() == journal
    assert daemon.stderr() == stderr
    assert daemon.stdout() == b""


@pytest.mark.parametrize("arguments, stderr", [
    pytest.param(["-c", "board.json"], "", id="relative file name"),
    pytest.param(["-c", "./board.json"], "", id="relative file name with a folder"),
    pytest.param(["-x", "board.json"], complaint("x"), id="unknown option counts as -c"),
    pytest.param(["-c", "board.json", "missing.json"], "", id="the second file name is ignored"),
    pytest.param(["-c", "board.json", "-x"], "", id="options behind the file name are not looked at"),
    pytest.param(["missing.json", "-c", "board.json"], "", id="the file name behind the option counts"),
])
def test_the_file_is_served(board, arguments, stderr):
    daemon = board.run(*arguments, cwd=board.directory)
    board.wait_until_serving(daemon)
    assert daemon.journal() == expected_journal(board)
    assert daemon.stderr() == stderr
    assert daemon.stdout() == LISTING


def test_a_file_whose_name_is_the_glued_argument_is_served(board):
    os.rename(os.path.join(board.directory, "board.json"), os.path.join(board.directory, "-cboard.json"))
    daemon = board.run("-cboard.json", cwd=board.directory)
    board.wait_until_serving(daemon)
    assert daemon.journal() == expected_journal(board)


def test_an_absolute_file_name_is_served(board):
    daemon = board.run("-c", os.path.join(board.directory, "board.json"), cwd="/")
    board.wait_until_serving(daemon)
    assert daemon.journal() == expected_journal(board)


def test_without_a_configuration_the_bus_is_left_alone(board):
    names = []
    board.bus.connection.signal_subscribe(
        "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", None, None, Gio.DBusSignalFlags.NONE,
        lambda *message: names.append(message[-1].unpack()))
    assert board.run("-c", "missing.json").wait() == 0
    board.bus.dispatch()
    assert names == []
    daemon = board.run("-c", os.path.join(board.directory, "board.json"))
    board.wait_until_serving(daemon)
    board.bus.dispatch()
    assert names != []
