"""The main process of the service: what it starts with which configuration, and what it tells the service manager."""

import json
import os
import queue
import shutil
import socket
import stat
import subprocess
import threading
import time

import pytest

from testbed import INTERFACE, ROOT

LAUNCHER = os.environ["KORVANEINFOD_LAUNCH"]
CONFIG = 78  # exit status of a configuration with which no start can succeed


class Service:
    """Plays the service manager: a runtime directory, a socket for notifications, and programs to be started."""

    def __init__(self, folder):
        self.folder = folder
        self.runtime = folder / "run"
        self.runtime.mkdir()
        self.copy = self.runtime / "board.json"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(folder / "notify"))
        self.received = queue.Queue()
        # Someone has to read while the launcher runs: the socket's queue is short, and a full one blocks.
        threading.Thread(target=self._receive, daemon=True).start()
        self.daemon = self.program("daemon", 'echo "$0 $*"')
        self.launcher = LAUNCHER
        self.environment = {"RUNTIME_DIRECTORY": str(self.runtime), "NOTIFY_SOCKET": str(folder / "notify")}

    def program(self, name, script):
        """Writes a shell script that can be executed; returns its path."""
        path = self.folder / name
        path.write_text("#!/bin/sh\n" + script + "\n")
        path.chmod(stat.S_IRWXU)
        return path

    def replace_checker(self, script):
        """Starts another checker from now on: the launcher looks for it in its own folder."""
        self.launcher = str(self.folder / "korvaneinfod-launch")
        shutil.copy(LAUNCHER, self.launcher)
        self.program("korvaneinfoctl-check", script)

    def configuration(self, text):
        """Writes the configuration; returns its path."""
        path = self.folder / "board.json"
        path.write_text(text if isinstance(text, str) else json.dumps(text))
        return path

    def run(self, *arguments, **environment):
        """Runs the launcher; returns its status, standard output and standard error."""
        result = subprocess.run([self.launcher, *map(str, arguments)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                env={**os.environ, **self.environment, **environment}, timeout=60, check=False,
                                text=True)
        return result.returncode, result.stdout, result.stderr

    def start(self, text, **environment):
        """Runs the launcher with a configuration; returns what `run` does."""
        return self.run(self.daemon, self.configuration(text), **environment)

    def end(self, result, code, status):
        """Runs the launcher after the end of the daemon."""
        assert self.run("--ended", SERVICE_RESULT=result, EXIT_CODE=code, EXIT_STATUS=status) == (0, "", "")

    def _receive(self):
        while message := self.socket.recv(65536).decode():
            self.received.put(message)

    def notifications(self):
        """Returns what the service manager has been told since the last time."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"END", self.environment["NOTIFY_SOCKET"])
        return list(iter(self.received.get, "END"))

    def close(self):
        """Ends the reader."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"", self.environment["NOTIFY_SOCKET"])

    def status(self):
        """Returns the last status that the service manager has been told, or None."""
        texts = [text.removeprefix("STATUS=") for text in self.notifications() if text.startswith("STATUS=")]
        return texts[-1] if texts else None


@pytest.fixture
def service(tmp_path):
    """A service with a daemon that prints its command line and ends."""
    service = Service(tmp_path)
    yield service
    service.close()


def test_daemon_gets_the_salvaged_copy(service):
    status, output, complaints = service.start('[5, {"interface": "B", "name": "C", "type": "s"}]')
    assert (status, output) == (0, f"{service.daemon} -c {service.copy}\n")
    assert service.copy.read_text() == '[   {"interface": "B", "name": "C", "type": "s"}]'
    assert "left out: element 0: is a number, not an object" in complaints
    assert service.status() == "Serving 1 of 2 items; left out: element 0: is a number, not an object"


def test_launcher_becomes_the_daemon(service):
    service.daemon = service.program("daemon", 'exec sleep 60')
    with subprocess.Popen([LAUNCHER, service.daemon, service.configuration([])],
                          env={**os.environ, **service.environment}) as process:
        try:
            while service.status() != "Serving 0 of 0 items":
                time.sleep(0.01)
            while os.readlink(f"/proc/{process.pid}/exe") == LAUNCHER:
                time.sleep(0.01)
            with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as file:
                assert file.read() == ""
        finally:
            process.kill()


def test_real_daemon_serves_the_copy(bed, tmp_path, monkeypatch):
    (tmp_path / "service").mkdir()
    service = Service(tmp_path / "service")
    configuration = service.configuration([bed.par("Sound", "abc\n"), bed.par("Faulty", "abc\n", type="u")])
    wrapper = service.program("launch", f'exec {LAUNCHER} "{os.environ["KORVANEINFOD"]}" {configuration}')
    monkeypatch.setenv("KORVANEINFOD", str(wrapper))
    daemon = bed.run(env=service.environment)
    bed.wait_until_serving(daemon)
    assert bed.get_all(ROOT, f"{INTERFACE}.Board") == {"Sound": "abc"}
    service.close()


@pytest.mark.parametrize("text, status", [
    ("[\n[", "2: Syntax error: value, object or array expected"),
    ("{\"a\": 1}", "1: the document is an object, not an array"),
])
def test_hopeless_configuration_is_told_by_the_exit_status(service, text, status):
    assert service.start(text)[:2] == (CONFIG, "")
    assert service.status() == f"{service.folder}/board.json:{status}"


@pytest.mark.parametrize("script", ["kill -SEGV $$", "exit 0", "exit 1", "exit 2", "exit 4", "exit 77",
                                    "echo \"[]\" >$2; echo partial; kill -KILL $$"])
def test_daemon_gets_the_original_when_the_checker_fails(service, script):
    service.replace_checker(script)
    status, output, complaints = service.start("[5]")
    original = service.folder / "board.json"
    assert (status, output) == (0, f"{service.daemon} -c {original}\n")
    assert f"the check has failed; the daemon gets {original} as it is" in complaints
    assert service.status() == f"The check of {original} has failed, it is served as it is"


def test_checker_that_is_missing_or_hangs_has_failed(service):
    service.replace_checker("exec sleep 1000")
    begin = time.monotonic()
    assert service.start("[]")[1] == f"{service.daemon} -c {service.folder / 'board.json'}\n"
    assert time.monotonic() - begin > 9
    os.remove(service.folder / "korvaneinfoctl-check")
    assert service.start("[]")[1] == f"{service.daemon} -c {service.folder / 'board.json'}\n"


def test_daemon_that_cannot_be_executed(service):
    service.daemon = "/missing"
    status, _, complaints = service.start("[]")
    assert status == CONFIG
    assert "cannot run /missing: No such file or directory" in complaints
    assert service.status() == "cannot run /missing: No such file or directory"


def test_missing_files_are_waited_for_at_the_first_start_alone(service):
    service.replace_checker('shift; echo "[]" >"$1"; shift; echo "$*"')
    waits = []
    for _ in range(2):
        service.start("[]", VALUE_FILE_WAIT_SEC="7")
        waits.append([text for text in service.notifications() if "--wait" in text][-1].split()[2])
    assert waits == ["7", "0"]


def test_long_check_extends_the_start(service):
    service.replace_checker('sleep 1.5; echo "[]" >"$2"; echo done')
    service.start("[]")
    assert service.notifications() == ["EXTEND_TIMEOUT_USEC=20000000", "STATUS=done", "STATUS=Serving done"]


@pytest.mark.parametrize("text", ["x", "1x", "-1", "1.5"])
def test_wait_that_is_no_number_is_told_and_ignored(service, text):
    status, _, complaints = service.start("[]", VALUE_FILE_WAIT_SEC=text)
    assert status == 0
    assert f"VALUE_FILE_WAIT_SEC: {text} is no number of seconds" in complaints
    assert service.status() == "Serving 0 of 0 items"


@pytest.mark.parametrize("end, text", [
    (("core-dump", "dumped", "TRAP"), "the daemon ended by signal TRAP"),
    (("signal", "killed", "ABRT"), "the daemon ended by signal ABRT"),
    (("signal", "killed", "KILL"), "the daemon was killed, which also happens when it runs out of memory"),
    (("timeout", "killed", "TERM"), "the daemon did not start or end in time"),
    (("success", "exited", "0"), "the daemon ended by itself: its name was taken or refused, or the bus ended"),
    (("exit-code", "exited", "203"), "the daemon ended with status 203"),
])
def test_end_of_the_daemon_is_told_then_and_at_the_next_start(service, end, text):
    service.end(*end)
    assert service.status() == text
    service.start("[]")
    assert service.status() == f"Serving 0 of 0 items; restarted, since {text}"


@pytest.mark.parametrize("end, told", [
    (("success", "killed", "TERM"), ["STATUS="]),
    (("exit-code", "exited", str(CONFIG)), []),  # the status says already why
])
def test_orderly_stop_and_hopeless_configuration_are_no_reason_for_a_restart(service, end, told):
    service.end("signal", "killed", "ABRT")
    service.notifications()
    service.end(*end)
    assert service.notifications() == told
    service.start("[]")
    assert service.status() == "Serving 0 of 0 items"


def test_start_pauses_when_the_daemon_has_ended_often(service):
    for _ in range(10):
        service.end("core-dump", "dumped", "TRAP")
    assert not pauses_of(service)
    service.end("core-dump", "dumped", "TRAP")
    begin = time.monotonic()
    assert pauses_of(service) == [
        "STATUS=Pausing after 11 ends in half a minute; restarted, since the daemon ended by signal TRAP"]
    assert time.monotonic() - begin >= 0.25


def test_ends_of_long_ago_do_not_count(service):
    for _ in range(11):
        service.end("core-dump", "dumped", "TRAP")
    ends = [float(text) for text in (service.runtime / "failures").read_text().split()]
    (service.runtime / "failures").write_text("".join(f"{end - 31}\n" for end in ends))
    assert not pauses_of(service)
    service.end("core-dump", "dumped", "TRAP")
    assert len((service.runtime / "failures").read_text().split()) == 1


@pytest.mark.parametrize("end", [("success", "killed", "TERM"), ("exit-code", "exited", str(CONFIG))])
def test_stops_do_not_count(service, end):
    for _ in range(41):
        service.end(*end)
    assert not pauses_of(service)


def test_ends_for_lack_of_memory_pause_later(service):
    for _ in range(40):
        service.end("signal", "killed", "KILL")
    assert not pauses_of(service)
    service.end("signal", "killed", "KILL")
    assert len(pauses_of(service)) == 1


def pauses_of(service):
    """Starts the service; returns what it says about a pause."""
    service.notifications()
    service.start("[]")
    return [text for text in service.notifications() if "Pausing" in text]


def test_broken_record_of_ends_does_no_harm(service):
    (service.runtime / "failures").write_text("nonsense\n1e999\n")
    assert service.start("[]")[0] == 0
    service.end("core-dump", "dumped", "TRAP")
    assert len((service.runtime / "failures").read_text().split()) == 1


@pytest.mark.parametrize("note", ["failures", "kills", "last-end", "waited", "board.json"])
@pytest.mark.parametrize("make", [
    os.mkfifo,
    lambda path: os.makedirs(path / "folder"),
    lambda path: path.symlink_to("/dev/zero"),
    lambda path: path.write_text("1 \nSTATUS=x\n\033" * 10**6),
], ids=["fifo", "folder", "link", "long"])
def test_hostile_notes_neither_hang_nor_mislead_a_start(service, note, make):
    make(service.runtime / note)
    assert service.start("[]", VALUE_FILE_WAIT_SEC="0")[0] == 0
    assert service.status() == "Serving 0 of 0 items"
    service.end("core-dump", "dumped", "TRAP")
    assert service.start("[]")[1] == f"{service.daemon} -c {service.copy}\n"
    assert service.status() == "Serving 0 of 0 items; restarted, since the daemon ended by signal TRAP"


@pytest.mark.parametrize("arguments", [[], ["x"], ["--ended", "x", "y"]])
def test_wrong_usage(service, arguments):
    assert service.run(*arguments)[0] == CONFIG
    assert service.run("x", "y", RUNTIME_DIRECTORY="")[0] == CONFIG


def test_further_runtime_directories_of_a_drop_in_are_left_alone(service):
    other = service.folder / "other"
    other.mkdir()
    assert service.start("[]", RUNTIME_DIRECTORY=f"{service.runtime}:{other}")[0] == 0
    assert os.listdir(other) == []
