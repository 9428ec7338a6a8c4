"""The demo: what it shows, what it offers to paste, and that it leaves nothing behind. It is built and isolated here."""

import os
import signal
import subprocess

import pytest

from testbed import SOURCE_ROOT, TIMEOUT


@pytest.fixture
def demo(tmp_path):
    """Starts the demo, in a process group and a folder for temporary files of its own; both must end up empty."""
    started = []

    def start(*arguments, program=os.environ["KORVANEINFOD"]):
        process = subprocess.Popen(
            ["scripts/demo", "--inside", program, *arguments], cwd=SOURCE_ROOT, text=True, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True,
            env=dict(os.environ, TMPDIR=str(tmp_path)))
        started.append(process)
        return process

    yield start
    for process in started:
        process.stdout.close()
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            continue
        pytest.fail("the demo has left a process behind")
    assert os.listdir(tmp_path) == []


def test_tour_shows_listing_reads_write_signal_and_journal(demo):
    process = demo()
    output, _ = process.communicate(timeout=TIMEOUT)
    assert process.returncode == 0, output
    position = 0
    for shown in (
            "HardwareRevision        : 1204\n", "BootMode                : emmc\n", "#### End board information ####\n",
            "/com/brenvok/Korvaneinfo1/Eth1\n", '"5ac30091e7421d88"', 's "00:00:5e:00:53:10"\n', "d 1.00273\n",
            "(<uint32 2>,)\n", "asset-tag\nunassigned\n", "asset-tag\ngate-17\n", 's "gate-17"\n',
            "/com/brenvok/Korvaneinfo1: org.freedesktop.DBus.Properties.PropertiesChanged ()\n",
            "Board       AssetTag         s    readwrite gate-17\n", "did you mean \"objectpath\"?", "[interface-differs]\n",
            "Name acquired: com.brenvok.korvaneinfod\n"):
        assert shown in output[position:], f"no {shown!r} from here on:\n{output[position:]}"
        position = output.index(shown, position) + len(shown)
    assert "\x1b" not in output, "colour, though nobody sees it"


def test_served_board_answers_the_lines_to_paste_until_the_demo_is_ended(demo):
    process = demo("--serve")
    while "Paste" not in process.stdout.readline():
        assert process.poll() is None, "the demo has ended"
    lines = []
    while not lines or "asset-tag" not in lines[-1]:
        lines.append(process.stdout.readline())
    pasted = subprocess.run(["bash", "-e"], input="".join(lines), text=True, stdout=subprocess.PIPE, check=True,
                            timeout=TIMEOUT).stdout
    assert "'AssetTag': <'gate-17'>" in pasted
    assert "readwrite gate-17\n" in pasted
    assert pasted.endswith("\ngate-17\n")

    process.terminate()
    assert process.wait(TIMEOUT) == 128 + signal.SIGTERM


@pytest.mark.parametrize("program", ["/bin/true", "/nonexistent"])
def test_daemon_that_ends_at_its_start_ends_the_demo(demo, program):
    process = demo(program=program)
    output, _ = process.communicate(timeout=TIMEOUT)
    assert process.returncode == 1
    assert output.endswith("demo: the daemon has ended at its start\n")


def test_unknown_option_is_refused():
    result = subprocess.run(["scripts/demo", "--help"], cwd=SOURCE_ROOT, text=True, capture_output=True, check=False)
    assert (result.returncode, result.stdout, result.stderr) == (2, "", "usage: scripts/demo [--serve]\n")
