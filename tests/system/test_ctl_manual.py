"""The manual page of korvaneinfoctl: well-formed, and complete."""

import os
import re
import subprocess

from testbed import SOURCE_ROOT

PAGE = os.path.join(SOURCE_ROOT, "man", "korvaneinfoctl.1")


def text_of_page():
    """Returns the page as people read it, without hyphenation."""
    output = subprocess.run(["mandoc", "-T", "utf8", "-O", "width=1000", PAGE], stdout=subprocess.PIPE, check=True)
    return re.sub(".\b", "", output.stdout.decode())


def test_page_is_well_formed():
    result = subprocess.run(["mandoc", "-T", "lint", PAGE], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            check=False, text=True)
    # Whether the pages it refers to are installed here is not its fault.
    assert [line for line in result.stdout.splitlines()
            if "referenced manual not found" not in line and "outdated mandoc.db" not in line] == []


def test_page_has_every_command_and_option():
    page = text_of_page()
    for arguments in [["--help"], ["check", "--help"]]:
        usage = subprocess.run([os.environ["KORVANEINFOCTL"], *arguments], stdout=subprocess.PIPE, check=True, text=True)
        words = re.findall(r"^  (?:    )?(?:-\w, )?(--[\w-]+|\w+)", usage.stdout, re.MULTILINE)
        assert len(words) > 4
        for word in words:
            assert re.search(rf"(?<![\w-]){re.escape(word)}(?![\w-])", page), word


def test_page_has_every_kind_of_finding():
    with open(os.path.join(SOURCE_ROOT, "config", "Findings.cpp"), encoding="utf-8") as source:
        kinds = re.findall(r"KindInfo\{Kind::\w+, \"([a-z-]+)\", (\w+)", source.read())
    warnings_begin = text_of_page().index("Warnings flag surprising behaviour")
    errors, warnings = text_of_page()[:warnings_begin], text_of_page()[warnings_begin:]
    assert len(kinds) > 30
    for kind, severity in kinds:
        assert re.search(rf"(?<![\w-]){kind}(?![\w-])", errors if severity == "error" else warnings), kind
