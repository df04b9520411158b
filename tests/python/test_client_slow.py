"""The two client tests that wait for the unit's own timing: a hung board's
5000 ms handshake time-out, and the restart after a reboot request."""

import pytest

from tovel import Status


@pytest.mark.tovel_unit(boards="t1")
def test_timeout_leaves_the_request_outstanding(tovel_unit):
    with tovel_unit.client(timeout=0.2) as c:
        assert c.version() == 191213  # the board is bound before it hangs
        tovel_unit.sim.fault(1, "hang")
        with pytest.raises(TimeoutError):
            c.atomic_get(0x7E, 0x7E, 2, b"\xbe\xef")
        assert c.pending == 1
        late = c.next_reply(timeout=30)
        assert (late.status, late.ok, len(late.data)) == (Status.USB_TIMEOUT, False, 2)
        assert c.pending == 0
        assert c.version() == 191213


@pytest.mark.tovel_unit(boards="t1")
def test_reboot_restarts_the_unit(tovel_unit):
    with tovel_unit.client() as c:
        reply = c.reboot()
        assert (reply.ok, reply.status) == (True, Status.RUNNING)
    # A session that ends by itself saves the unit a second grace pass.
    assert tovel_unit.wait(timeout=60) == 22
    assert any("Controller Reboot Requested" in line for line in tovel_unit.output().splitlines())
