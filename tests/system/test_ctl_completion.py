"""Completion of korvaneinfoctl's command line in bash and zsh, with names from a running daemon."""

import os
import pty
import select
import subprocess

import pytest

from testbed import SOURCE_ROOT, TIMEOUT

FOLDER = os.path.join(SOURCE_ROOT, "ctl", "completion")


@pytest.fixture
def environment(bed):
    """A daemon with four items, and what a shell needs to find it and the tool."""
    def element(name, interface, objectpath, **keys):
        return {"name": name, "interface": interface, "objectpath": objectpath, "location": "par", "type": "s",
                "path": bed.file(name, "1\n"), "read": True, **keys}
    bed.start([element("Serial", "Board", ""), element("Serial", "Net", "Eth0", write=True),
               element("Speed", "Net", "Eth0", write=True), element("Secret", "Net", "Eth0", read=False, write=True)])
    path = f"{os.path.dirname(os.environ['KORVANEINFOCTL'])}:{os.environ['PATH']}"
    return {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bed.bus.address, "PATH": path, "TERM": "dumb"}


def bash(environment, *words, cwd=None):
    """Returns what bash offers for the last word."""
    script = """
        source "$1"; shift
        compopt() { :; } # only works while bash itself asks
        COMP_WORDS=(korvaneinfoctl "$@") COMP_CWORD=$#
        _korvaneinfoctl
        printf '%s\\n' "${COMPREPLY[@]}"
    """
    result = subprocess.run(["bash", "-c", script, "bash", os.path.join(FOLDER, "korvaneinfoctl.bash"), *words],
                            env=environment, cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, timeout=TIMEOUT, check=True, text=True)
    assert result.stderr == ""
    return result.stdout.split("\n")[:-1]


def test_bash_completes_commands_and_options(environment):
    assert bash(environment, "") == ["list", "get", "set", "watch", "check"]
    assert bash(environment, "--json", "s") == ["set"]
    assert bash(environment, "-H", "board", "w") == ["watch"]
    assert bash(environment, "get", "--js") == ["--json"]
    assert bash(environment, "check", "--n") == ["--no-values"]
    assert bash(environment, "list", "") == [""]


def test_bash_completes_names_from_the_running_daemon(environment):
    assert bash(environment, "get", "") == ["/Board/Serial", "Eth0/Net/Serial", "Speed"]
    assert bash(environment, "get", "Speed", "Eth") == ["Eth0/Net/Serial"]
    assert bash(environment, "watch", "Sp") == ["Speed"]
    assert bash(environment, "--json", "set", "") == ["Eth0/Net/Serial", "Speed", "Secret"]
    assert bash(environment, "set", "Speed", "") == [""]


def test_bash_completes_files(environment, tmp_path):
    (tmp_path / "my board.json").touch()
    (tmp_path / "folder").mkdir()
    assert bash(environment, "check", "my", cwd=tmp_path) == ["my board.json"]
    assert bash(environment, "check", "--root", "f", cwd=tmp_path) == ["folder"]


class Zsh:
    """An interactive zsh with the completion loaded. Its Tab key completes, and tells what the line is then."""

    def __init__(self, environment, directory):
        answers = os.path.join(directory, "answers")
        os.mkfifo(answers)
        self.answers = os.open(answers, os.O_RDWR)
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.execvpe("zsh", ["zsh", "-f", "-i"], {**environment, "HOME": str(directory)})
        os.write(self.terminal, (
            f"fpath=({FOLDER} $fpath); autoload -U compinit; compinit -D -u\n"
            f"tell() {{ zle complete-word; print -r -- \"$BUFFER\" >{answers}; BUFFER= }}\n"
            "zle -N tell; bindkey '^I' tell\n").encode())

    def complete(self, line):
        """Returns the line as zsh completes it."""
        os.write(self.terminal, f"{line}\t".encode())
        answer = b""
        while not answer.endswith(b"\n"):
            # What zsh shows on its terminal has to be fetched, or it waits.
            ready, _, _ = select.select([self.answers, self.terminal], [], [], TIMEOUT)
            assert ready, f"no answer to {line!r}"
            if self.terminal in ready:
                os.read(self.terminal, 4096)
            if self.answers in ready:
                answer += os.read(self.answers, 4096)
        return answer.decode().removesuffix("\n")

    def close(self):
        """Ends it."""
        os.close(self.terminal)
        os.close(self.answers)
        os.waitpid(self.process, 0)


@pytest.fixture
def zsh(environment, tmp_path):
    shell = Zsh(environment, tmp_path)
    yield shell
    shell.close()


def test_zsh_completes_commands_and_options(zsh):
    assert zsh.complete("korvaneinfoctl wa") == "korvaneinfoctl watch "
    assert zsh.complete("korvaneinfoctl --js") == "korvaneinfoctl --json "
    assert zsh.complete("korvaneinfoctl check --no-v") == "korvaneinfoctl check --no-values "


def test_zsh_completes_names_from_the_running_daemon(zsh):
    assert zsh.complete("korvaneinfoctl get Sp") == "korvaneinfoctl get Speed "
    assert zsh.complete("korvaneinfoctl get /B") == "korvaneinfoctl get /Board/Serial "
    assert zsh.complete("korvaneinfoctl get Sec") == "korvaneinfoctl get Sec"
    assert zsh.complete("korvaneinfoctl --json set Sec") == "korvaneinfoctl --json set Secret "
    assert zsh.complete("korvaneinfoctl set Speed Sp") == "korvaneinfoctl set Speed Sp"
    assert zsh.complete("korvaneinfoctl watch Speed Eth") == "korvaneinfoctl watch Speed Eth0/Net/Serial "
