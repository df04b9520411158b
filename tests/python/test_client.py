"""The client against real units: every request kind, pipelining, retries,
bad arguments."""

import threading
import time
from pathlib import Path

import pytest

import tovel
from tovel import Status

ECHO, REJECT, PLAIN = 0x7E, 0x7F, 0x21  # what the simulated DSP programs do with them


def test_requests_on_a_running_board(tovel_unit_shared):
    with tovel_unit_shared.client() as c:
        assert c.version() == tovel.VERSION == 191213
        assert c.enum_boards() == 4
        block = c.get_status()
        assert (block.ok, block.device, block.state) == (True, 1, Status.RUNNING)
        before = block.sequence
        echo = c.atomic_get(ECHO, ECHO, 3, b"\x01\x02\x03")
        assert (echo.ok, echo.status, echo.data) == (True, Status.OK, b"\x01\x02\x03")
        assert c.atomic_send(PLAIN, b"\x0a\x0b\x0c").ok
        rejected = c.atomic_send(REJECT)
        assert (rejected.ok, rejected.status) == (False, Status.BAD_COMMAND)
        assert c.get_status().sequence == (before + 6) % 256  # three commands, 2 each


@pytest.mark.tovel_unit(boards="t1")
def test_raw_packets(tovel_unit):
    with tovel_unit.client() as c:
        assert c.prim_send(1, ECHO, b"xy") is None
        reply = c.prim_get(2)
        assert (reply.status, reply.data) == (Status.OK, b"\x01\x7e\x00\x02xy")
        # The link refuses a packet above 8184 bytes; the client builds none.
        with pytest.raises(ValueError):
            c.prim_get(8181)
        [refused] = c.exchange(bytes([1, 0, 0, 0x1F, 0xF5]))
        assert refused.status == Status.USB_COMM_FAILED


@pytest.mark.tovel_unit(boards="t1")
def test_cof_download_and_boot(tovel_unit):
    image_path = tovel_unit.root / "Program Files" / "Orvane Instruments" / "480" / "t1.cof"
    image = image_path.read_bytes()
    seen = []
    with tovel_unit.client() as c:
        done = c.cof_download(bytes(reversed(image)), chunk_size=4096)
        assert done.ok and image_path.read_bytes() == bytes(reversed(image))
        done = c.cof_download(str(_copy(image, tovel_unit.root / "copy.cof")),
                              progress=lambda sent, total: seen.append((sent, total)))
        assert done.ok and image_path.read_bytes() == image
        booted = c.boot()
        assert booted.ok and booted.status.running
        assert c.atomic_get(ECHO, ECHO, 1, b"\x5a").data == b"\x5a"
    pieces = -(-len(image) // 8192)
    assert len(seen) == pieces and seen[-1] == (len(image), len(image))


def _copy(data: bytes, path: Path) -> Path:
    path.write_bytes(data)
    return path


@pytest.mark.tovel_unit(boards="t1")
def test_cmdline_control_answers_before_the_restart(tovel_unit):
    with tovel_unit.client() as c:
        reply = c.cmdline()
        assert (reply.ok, reply.status) == (True, Status.RUNNING)


def test_pipeline_answers_in_order(tovel_unit_shared):
    with tovel_unit_shared.client() as c:
        with c.pipeline() as p:
            version = p.version()
            echoes = [p.atomic_get(ECHO, ECHO, 1, bytes([i])) for i in range(5)]
            status = p.get_status()
            with pytest.raises(RuntimeError):
                version.value  # not sent yet
        assert version.value == 191213
        assert [e.value.data for e in echoes] == [bytes([i]) for i in range(5)]
        assert status.value.state == Status.RUNNING
        assert [r.status for r in p.replies] == [Status.RUNNING] + [Status.OK] * 6
        assert c.pending == 0


def test_long_pipeline_does_not_stall(tovel_unit_shared):
    # Megabytes each way: more than both directions' socket buffers hold.
    payloads = [bytes([i % 256]) * 8180 for i in range(300)]
    with tovel_unit_shared.client(timeout=30) as c:
        with c.pipeline() as p:
            for data in payloads:
                p.atomic_get(ECHO, ECHO, len(data), data)
        assert [r.data for r in p.replies] == payloads


@pytest.mark.parametrize("call", [
    lambda c: c.atomic_send(256),
    lambda c: c.atomic_send(-1),
    lambda c: c.atomic_send(1, bytes(8181)),
    lambda c: c.atomic_get(1, 1, 8181),
    lambda c: c.atomic_get(1, 300, 4),
    lambda c: c.prim_send(1, 1, bytes(8181)),
    lambda c: c.prim_send(256, 1),
    lambda c: c.prim_get(-1),
    lambda c: c.cof_download(b"x", chunk_size=9985),
])
def test_bad_arguments_send_nothing(tovel_unit_shared, call):
    with tovel_unit_shared.client() as c:
        with pytest.raises(ValueError):
            call(c)
        assert c.version() == 191213  # the next reply is the version's own


def test_refused_connection_is_retried_until_a_board_is_free():
    with tovel.Unit(boards="t1") as unit:
        first = unit.client()
        first.version()
        unit.wait_listening(False)  # the only board is bound
        result = {}

        def second_client():
            with unit.client(connect_timeout=20) as c:
                result["version"] = c.version()

        thread = threading.Thread(target=second_client)
        thread.start()
        first.close()
        thread.join(30)
        assert result == {"version": 191213}


def test_refused_connection_gives_up_after_connect_timeout():
    [port] = tovel.listening.free_ports(1)
    started = time.monotonic()
    with pytest.raises(ConnectionRefusedError):
        tovel.Client(port=port, connect_timeout=0.2)
    assert time.monotonic() - started >= 0.2


@pytest.mark.tovel_unit(boards="t1")
def test_a_stopped_unit_closes_the_connection(tovel_unit):
    with tovel_unit.client() as c:
        assert c.version() == 191213
        assert tovel_unit.stop() == 0
        with pytest.raises(tovel.ConnectionClosed):
            c.version()
        with pytest.raises(tovel.ConnectionClosed):
            c.version()
