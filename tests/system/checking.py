"""Runs `korvaneinfoctl check` for the tests."""

import json
import os
import subprocess


def run_check(*arguments, cwd=None):
    """Runs the checker; returns its status, standard output and standard error."""
    result = subprocess.run([os.environ["KORVANEINFOCTL"], "check", *arguments], cwd=cwd, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60, check=False)
    return result.returncode, result.stdout.decode(errors="replace"), result.stderr.decode(errors="replace")


def findings_of(*arguments, cwd=None):
    """Runs the checker and returns its findings as dictionaries; the status has to fit them."""
    status, output, complaints = run_check("--json", *arguments, cwd=cwd)
    assert complaints == ""
    findings = json.loads(output)
    assert status == (1 if any(finding["severity"] == "error" for finding in findings) else 0)
    return findings


def run_salvage(file, output, *options, cwd=None):
    """Salvages a configuration; returns the status, the findings and the summary."""
    status, summary, findings = run_check("--json", "--salvage", output, *options, file, cwd=cwd)
    return status, json.loads(findings), summary
