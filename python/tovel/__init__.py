"""Tovel for test engineers: a client of the unit's remote command protocol,
a simulated unit that a test suite starts by itself, and a pytest plugin.

    >>> import tovel
    >>> with tovel.Unit(boards="t1") as unit, unit.client() as c:   # doctest: +SKIP
    ...     c.atomic_get(0x7E, 0x7E, 2, b"\\xbe\\xef").data
    b'\\xbe\\xef'

``Client`` speaks the protocol, ``Unit`` runs ``tovel`` (from ``TOVEL_BIN``
or ``PATH``), ``unit.sim`` drives its simulated hardware, and the fixtures
``tovel_unit`` and ``tovel_unit_shared`` come with ``tovel.pytest_plugin``.
"""

from .client import Client, Pending, Pipeline
from .protocol import VERSION, Control, Opcode
from .replies import ConnectionClosed, ProtocolError, Reply, StatusBlock
from .sim import Board, SimControl, SimError, Watchdog
from .status import Status
from .unit import Unit, UnitError, find_tovel

__all__ = [
    "Board", "Client", "ConnectionClosed", "Control", "Opcode", "Pending", "Pipeline",
    "ProtocolError", "Reply", "SimControl", "SimError", "Status", "StatusBlock", "Unit",
    "UnitError", "VERSION", "Watchdog", "find_tovel",
]
