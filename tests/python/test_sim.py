"""The simulated hardware through the unit's control socket."""

import time

import pytest

import tovel
from tovel import SimError, Status

ECHO, PLAIN = 0x7E, 0x21


@pytest.mark.tovel_unit(boards="t1:1050000077,rf")
def test_boards_come_and_go(tovel_unit):
    sim = tovel_unit.sim
    assert [(b.slot, b.kind, b.serial) for b in sim.boards()] == [(1, "t1", 1050000077), (2, "rf", 1150000000)]
    assert all(b.running and b.state == 4 and b.held for b in sim.boards())
    assert sim.attach("pots", serial=1350000042) == 3
    with tovel_unit.client() as c:
        assert c.enum_boards() == 3
        assert sim.boards()[2].held
        sim.detach(3)
        assert c.enum_boards() == 2
    assert [b.slot for b in sim.boards()] == [1, 2]


@pytest.mark.tovel_unit(boards="t1")
def test_a_pulled_board_answers_11(tovel_unit):
    with tovel_unit.client() as c:
        assert c.atomic_get(ECHO, ECHO, 2, b"\xbe\xef").ok
        tovel_unit.sim.detach(1)
        assert c.atomic_get(ECHO, ECHO, 2, b"\xbe\xef").status == Status.NO_USB_COMM
        assert c.atomic_send(PLAIN).status == Status.NO_USB_COMM
    assert tovel_unit.sim.boards() == []


def _atomic_send(c):
    return c.atomic_send(PLAIN).status


def _echo(c):
    return c.atomic_get(ECHO, ECHO, 1, b"\x5a").status


def _state(c):
    return c.get_status().state


@pytest.mark.parametrize("fault, request_, first, afterwards", [
    (("state", 3), _state, Status.IDLED, Status.IDLED),
    (("state", 3), _atomic_send, Status.IDLED, Status.IDLED),
    (("mixup",), _echo, Status.MSG_MIXUP, Status.OK),
    (("latency", 30), _echo, Status.OK, Status.OK),
    (("fail", 31, 1), _atomic_send, Status.OK, Status.OK),  # the link's retries absorb one
])
@pytest.mark.tovel_unit(boards="t1")
def test_faults(tovel_unit, fault, request_, first, afterwards):
    with tovel_unit.client() as c:
        # The unit binds a board when it accepts, which may be after connect()
        # returned: the first answer shows that the board is this client's.
        assert _echo(c) == Status.OK
        tovel_unit.sim.fault(1, *fault)
        assert (request_(c), request_(c)) == (first, afterwards)
        tovel_unit.sim.fault(1, "clear")
        assert _echo(c) == Status.OK


@pytest.mark.parametrize("command, error", [
    (lambda sim: sim.detach(9), SimError),
    (lambda sim: sim.fault(9, "hang"), SimError),
    (lambda sim: sim.fault(1, "state", 300), SimError),
    (lambda sim: sim.knob(2_000_000), SimError),
    (lambda sim: sim.fault(1, "fail", 31), ValueError),
    (lambda sim: sim.fault(1, "melt"), ValueError),
    (lambda sim: sim.attach("vax"), ValueError),
])
def test_refused_commands(tovel_unit_shared, command, error):
    with pytest.raises(error):
        command(tovel_unit_shared.sim)


def test_knob_and_watchdog(tovel_unit_shared):
    tovel_unit_shared.sim.knob(-5)
    dog = tovel_unit_shared.sim.watchdog()
    assert dog.armed and not dog.expired
    assert dog.interval_ms == 127000 and 0 < dog.remaining_ms <= dog.interval_ms


def test_sim_error_carries_the_reason(tovel_unit_shared):
    with pytest.raises(SimError, match="no board in slot 9"):
        tovel_unit_shared.sim.detach(9)


@pytest.mark.tovel_unit(boards="t1")
def test_powerfail_resets_the_unit(tovel_unit):
    # The unit listens before its power-fail thread has armed line 17; a line
    # raised before that is no rising edge the thread could see.
    deadline = time.monotonic() + 20
    while "PowerFailThread - Enter Loop" not in tovel_unit.output():
        assert time.monotonic() < deadline, tovel_unit.output_tail()
        time.sleep(0.05)
    tovel_unit.sim.powerfail()
    assert tovel_unit.wait(timeout=60) == 23
    with pytest.raises(OSError):
        tovel.SimControl(tovel_unit.root / "sim.sock").boards()
