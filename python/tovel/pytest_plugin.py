"""pytest fixtures that start a simulated unit.

Loaded by the package's ``pytest11`` entry point once it is installed, or with
``pytest -p tovel.pytest_plugin`` (or ``pytest_plugins = ["tovel.pytest_plugin"]``
in a conftest.py).

    @pytest.mark.tovel_unit(boards="t1")
    def test_version(tovel_unit):
        with tovel_unit.client() as c:
            assert c.version() == 191213

A failing test's report carries the tail of its unit's ``usb.log`` and debug
output.
"""

from __future__ import annotations

from collections.abc import Generator, Iterator
from typing import Any

import pytest

from .unit import Unit

_UNITS = pytest.StashKey[list[Unit]]()
_TAIL_LINES = 40


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("tovel", "simulated Tovel units")
    group.addoption("--tovel-bin", default=None,
                    help="the tovel program (default: $TOVEL_BIN, then tovel on PATH)")
    group.addoption("--tovel-keep-root", action="store_true", default=False,
                    help="keep each unit's root folder after its test")


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line(
        "markers", "tovel_unit(boards='t1,rf,ip,pots', platform=None, extra_args=()): "
        "how the tovel_unit fixture starts its unit")


def _start(config: pytest.Config, **kwargs: Any) -> Unit:
    kwargs.setdefault("binary", config.getoption("--tovel-bin"))
    kwargs.setdefault("keep_root", config.getoption("--tovel-keep-root"))
    return Unit(**kwargs)


def _remember(item: pytest.Item, unit: Unit) -> None:
    if _UNITS not in item.stash:
        item.stash[_UNITS] = list[Unit]()
    item.stash[_UNITS].append(unit)


@pytest.fixture
def tovel_unit(request: pytest.FixtureRequest) -> Iterator[Unit]:
    """A started unit of its own for this test: four simulated boards, or those
    of the test's ``@pytest.mark.tovel_unit(boards=...)`` marker."""
    marker = request.node.get_closest_marker("tovel_unit")
    kwargs = dict(marker.kwargs) if marker else {}
    with _start(request.config, **kwargs) as unit:
        _remember(request.node, unit)
        yield unit


@pytest.fixture(scope="session")
def tovel_unit_shared(request: pytest.FixtureRequest) -> Iterator[Unit]:
    """One started unit with four simulated boards for the whole session, for
    tests that only read. Each client binds one board while it is open."""
    with _start(request.config) as unit:
        yield unit


def _tail(text: list[str]) -> str:
    return "\n".join(text[-_TAIL_LINES:])


@pytest.hookimpl(hookwrapper=True)  # type: ignore[misc]  # pluggy's decorator is untyped
def pytest_runtest_makereport(item: pytest.Item,
                              call: pytest.CallInfo[None]) -> Generator[None, Any, None]:
    outcome = yield
    report: pytest.TestReport = outcome.get_result()
    if not report.failed or report.when == "teardown":
        return
    units = list(item.stash.get(_UNITS, []))
    funcargs = getattr(item, "funcargs", {})
    shared = funcargs.get("tovel_unit_shared")
    if isinstance(shared, Unit):
        units.append(shared)
    for unit in units:
        name = f"tovel unit {unit.root}"
        report.sections.append((f"{name}: usb.log (last {_TAIL_LINES} lines)",
                                _tail(unit.usb_log())))
        report.sections.append((f"{name}: debug output (last {_TAIL_LINES} lines)",
                                unit.output_tail(_TAIL_LINES)))
