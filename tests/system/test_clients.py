"""The example clients: each reads, writes and follows a value."""

import os
import signal
import subprocess
import threading

import pytest

from testbed import INTERFACE, ROOT, SOURCE_ROOT

EXAMPLES = os.path.join(SOURCE_ROOT, "examples", "clients")
BUILT = os.environ["EXAMPLE_CLIENTS"]
# How each shows the text "old": the shell tools print the type, or the whole reply.
CLIENTS = {
    "busctl": ([os.path.join(EXAMPLES, "busctl.sh")], 's "{}"'),
    "gdbus": ([os.path.join(EXAMPLES, "gdbus.sh")], "(<'{}'>,)"),
    "gio": ([os.path.join(EXAMPLES, "gio.py")], "{}"),
    "giomm": ([os.path.join(BUILT, "client-giomm")], "{}"),
    "sdbus": ([os.path.join(BUILT, "client-sdbus")], "{}"),
}
LABEL = [f"{ROOT}/Case", f"{INTERFACE}.Board", "Label"]


@pytest.fixture
def bed(bed):
    """A test bed with a daemon that serves one writable text."""
    bed.start([{"name": "Label", "interface": "Board", "objectpath": "Case", "path": bed.file("label", "old\n"),
                "location": "par", "type": "s", "read": True, "write": True}])
    return bed


def kill(process):
    """Ends a client that has not ended by itself, with the programs that a script runs."""
    if process.poll() is None:
        os.killpg(process.pid, signal.SIGKILL)


@pytest.fixture(params=CLIENTS)
def client(request, bed):
    """A function that starts an example client with a command, and how that client shows a text."""
    program, form = CLIENTS[request.param]
    started = []

    def start(command, *arguments):
        process = subprocess.Popen([*program, command, *LABEL, *arguments], stdout=subprocess.PIPE, text=True,
                                   env=dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bed.bus.address),
                                   start_new_session=True)
        started.append(process)
        timer = threading.Timer(30, kill, [process])  # so that a client that stays silent is an error, not a halt
        timer.daemon = True
        timer.start()
        return process

    yield start, form.format
    for process in started:
        kill(process)
        process.wait()
        process.stdout.close()


def run(start, *command):
    """Runs a client to its end; returns what it prints."""
    process = start(*command)
    output = process.communicate()[0]
    assert process.returncode == 0
    return output


def test_reads(client):
    start, shown = client
    assert run(start, "read") == shown("old") + "\n"


def test_writes(bed, client):
    start, shown = client
    run(start, "write", "two words")
    assert bed.get(*LABEL).unpack() == "two words"
    assert run(start, "read") == shown("two words") + "\n"


def test_follows(bed, client):
    start, shown = client
    follower = start("follow")
    assert follower.stdout.readline() == shown("old") + "\n"
    for text in ("new", "newer"):
        run(start, "write", text)
        assert follower.stdout.readline() == shown(text) + "\n"
