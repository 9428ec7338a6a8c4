import os
import tempfile

import pytest

from testbed import BUS_CONFIG, BUS_NAME, Bus, TestBed


@pytest.fixture
def bed(request):
    """A fresh test bed; on failure its daemons' standard error and journal are in the report."""
    test_bed = TestBed(tempfile.mkdtemp(prefix="korvaneinfod-test-"))
    yield test_bed
    report = getattr(request.node, "call_report", None)
    if report is not None and report.failed:
        report.sections.append(("daemons", test_bed.report()))
    test_bed.close()


@pytest.fixture
def activatable(bed):
    """Gives the test bed a bus that starts the daemon when somebody asks for it, for the elements that a function
    makes for the test bed."""
    def start(elements_for):
        services = os.path.join(bed.directory, "services")
        os.mkdir(services)
        with open(BUS_CONFIG, encoding="utf-8") as file:
            config = file.read().replace("</busconfig>", f"<servicedir>{services}</servicedir></busconfig>")
        bed.file("services/korvaneinfod.service",
                 f"[D-BUS Service]\nName={BUS_NAME}\nUser=root\n"
                 f"Exec={os.environ['KORVANEINFOD']} -c {bed.configuration(elements_for(bed))}\n")
        bed.bus.close()
        os.remove(os.path.join(bed.directory, "bus"))
        bed.bus = Bus(bed.directory, bed.file("bus.conf", config))
        return bed
    return start


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
