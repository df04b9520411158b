"""A test suite's view of a unit: pull the board a client uses, mid-session.

    PYTHONPATH=python TOVEL_BIN=build/tovel python3 -m pytest examples/python
"""

import pytest

from tovel import Status

ECHO = 0x7E  # the simulated DSP programs echo the payload of this command


def test_version(tovel_unit_shared):
    with tovel_unit_shared.client() as c:
        assert c.version() == 191213


@pytest.mark.tovel_unit(boards="t1")
def test_pulled_board_answers_no_usb_comm(tovel_unit):
    with tovel_unit.client() as c:
        assert c.atomic_get(ECHO, ECHO, 2, b"\xbe\xef").data == b"\xbe\xef"
        tovel_unit.sim.detach(1)  # the only board, so the client's
        reply = c.atomic_get(ECHO, ECHO, 2, b"\xbe\xef")
        assert reply.status == Status.NO_USB_COMM  # 11


@pytest.mark.tovel_unit(boards="t1")
def test_hot_plugged_board_serves_the_next_client(tovel_unit):
    tovel_unit.sim.detach(1)
    tovel_unit.sim.attach("t1")
    with tovel_unit.client() as c:
        assert c.enum_boards() == 1
        assert c.atomic_get(ECHO, ECHO, 1, b"\x01").ok
