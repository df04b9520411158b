"""The pytest plugin, run on small suites by pytest's own pytester."""

SUITE = """
import pytest
import tovel

pids = []

@pytest.mark.tovel_unit(boards="t1")
def test_marker_picks_the_boards(tovel_unit):
    assert [b.kind for b in tovel_unit.sim.boards()] == ["t1"]

def test_default_unit_has_four_boards(tovel_unit):
    assert [b.kind for b in tovel_unit.sim.boards()] == ["t1", "rf", "ip", "pots"]

def test_shared_unit_first(tovel_unit_shared):
    pids.append(tovel_unit_shared.pid)

def test_shared_unit_again(tovel_unit_shared):
    assert pids == [tovel_unit_shared.pid]

@pytest.mark.tovel_unit(boards="rf")
def test_failure_carries_the_unit_log(tovel_unit):
    with tovel_unit.client() as c:
        c.exchange(tovel.protocol.control(9))  # logs the unknown sub-command
        assert c.version() == 0, "fails on purpose"
"""


def test_plugin_fixtures_and_failure_report(pytester):
    pytester.makepyfile(test_suite=SUITE)
    result = pytester.runpytest("-p", "tovel.pytest_plugin")
    result.assert_outcomes(passed=4, failed=1)
    result.stdout.fnmatch_lines([
        "*fails on purpose*",
        "*tovel unit */tovel-*: usb.log (last 40 lines)*",
        "*Unknown opCode 9 in ServerThreadCallback, Rem_Control API!!*",
        "*tovel unit */tovel-*: debug output (last 40 lines)*",
        "*Found 1 Boards.*",
    ])


def test_missing_program_is_a_clear_error(pytester):
    pytester.makepyfile("def test_needs_unit(tovel_unit): pass")
    result = pytester.runpytest("-p", "tovel.pytest_plugin", "--tovel-bin", "/nonexistent/tovel")
    result.assert_outcomes(errors=1)
    result.stdout.fnmatch_lines(["*UnitError: /nonexistent/tovel is not an executable tovel program*"])
