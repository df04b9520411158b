"""Starting and stopping units: root, ports, logs, platform, failures."""

import socket

import pytest

import tovel
from tovel.unit import LOG_FOLDER

GUI_NOTICE = b"Unit is in Windows GUI mode."


def _answer(port: int, request: bytes = b"") -> bytes:
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        s.sendall(request)
        chunks = []
        while chunk := s.recv(4096):
            chunks.append(chunk)
        return b"".join(chunks)


def test_unit_runs_in_a_root_of_its_own():
    with tovel.Unit(boards="t1") as unit:
        root = unit.root
        assert unit.listening()
        assert (root / "registry.reg").is_file()
        assert any("Tovel Version 191213 Startup" in line for line in unit.usb_log())
        assert "Found 1 Boards." in unit.output()
        assert GUI_NOTICE in _answer(unit.telnet_port)
        assert GUI_NOTICE in _answer(unit.http_port, b"GET / HTTP/1.0\r\n\r\n")
        assert unit.returncode is None
    assert unit.returncode == 0  # SIGTERM is an orderly end
    assert not root.exists()


def test_given_root_is_kept_and_old_log_read_first(tmp_path):
    root = tmp_path / "unit"
    log_folder = root.joinpath(*LOG_FOLDER)
    log_folder.mkdir(parents=True)
    (log_folder / "usb.log.old").write_bytes("\ufeffrotated line\r\n".encode("utf-16-le"))
    with tovel.Unit(boards="t1", root=root) as unit:
        lines = unit.usb_log()
        assert lines[0] == "rotated line"
        assert any("Startup" in line for line in lines[1:])
    assert (root / "registry.reg").is_file()


def test_platform_and_no_boards():
    with tovel.Unit(boards="none", platform="Vendor Board Platform") as unit:
        assert "WatchDog::WatchDog -- VBQ!" in unit.output()
        assert unit.sim.boards() == []


def test_one_client_closes_the_listener_of_a_one_board_unit():
    with tovel.Unit(boards="t1") as unit, unit.client() as c:
        c.version()
        unit.wait_listening(False)
        c.close()
        unit.wait_listening(True)


def test_bad_arguments_end_the_start_with_the_units_message():
    with pytest.raises(tovel.UnitError, match=r"(?s)exit code 2.*unknown board kind"):
        with tovel.Unit(boards="vax"):
            pass


def test_program_is_found_through_the_environment(monkeypatch):
    monkeypatch.delenv("TOVEL_BIN", raising=False)
    monkeypatch.setenv("PATH", "/nonexistent")
    with pytest.raises(tovel.UnitError, match="TOVEL_BIN"):
        tovel.Unit()
