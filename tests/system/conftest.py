import tempfile

import pytest

from testbed import TestBed


@pytest.fixture
def bed(request):
    """A fresh test bed; on failure its daemons' standard error and journal are in the report."""
    test_bed = TestBed(tempfile.mkdtemp(prefix="korvaneinfod-test-"))
    yield test_bed
    report = getattr(request.node, "call_report", None)
    if report is not None and report.failed:
        report.sections.append(("daemons", test_bed.report()))
    test_bed.close()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.when == "call":
        item.call_report = report


def pytest_sessionfinish(session, exitstatus):
    """A test that was skipped has shown nothing, so it counts as failed."""
    reporter = session.config.pluginmanager.get_plugin("terminalreporter")
    if exitstatus == 0 and reporter is not None and reporter.stats.get("skipped"):
        session.exitstatus = pytest.ExitCode.TESTS_FAILED
