"""A simulated unit: the ``tovel`` program in a fresh unit root of its own."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
import tempfile
import time
from collections.abc import Iterable
from pathlib import Path
from types import TracebackType
from typing import Any

from . import listening
from .client import Client
from .sim import SimControl

LOG_FOLDER = ("FlashFx Disk2", "Orvane", "Users", "Admin", "SystemLogs")
OUTPUT_FILE = "tovel.out"
CONTROL_SOCKET = "sim.sock"
REMOTE_PORT, TELNET_PORT, HTTP_PORT = 3445, 23, 80
# Exit codes that mean the remote port could not be bound: another process
# took the free port between choosing and binding it. Started again on others.
_PORT_TAKEN = (254, 253)
_START_ATTEMPTS = 3
# No event says that a port listens: the kernel's table is read this often.
_POLL_PAUSE = 0.01


class UnitError(RuntimeError):
    """The unit could not be found, did not start, or ended before it listened."""


def find_tovel(binary: str | os.PathLike[str] | None = None) -> str:
    """``binary``, else ``$TOVEL_BIN``, else ``tovel`` on ``PATH``."""
    chosen = binary or os.environ.get("TOVEL_BIN") or shutil.which("tovel")
    if not chosen:
        raise UnitError("tovel not found: set TOVEL_BIN to the built program "
                        "(build/tovel) or put it on PATH")
    path = Path(chosen)
    if not (path.is_file() and os.access(path, os.X_OK)):
        raise UnitError(f"{path} is not an executable tovel program")
    return str(path.resolve())


def _find_case_blind(root: Path, parts: Iterable[str]) -> Path:
    """The unit's file names match without regard to case, as on the unit."""
    path = root
    for part in parts:
        exact = path / part
        if not exact.exists() and path.is_dir():
            exact = next((p for p in path.iterdir() if p.name.lower() == part.lower()), exact)
        path = exact
    return path


class Unit:
    """A running ``tovel`` with simulated boards on free loopback ports; a context manager.

    ``boards`` is the ``--boards`` list (``"t1,rf,ip,pots"``, ``"t1:77,rf"``,
    ``"none"``). ``platform`` is the registry's platform name (default the
    KTX platform the unit lays out). ``extra_args`` go to ``tovel`` as they are.
    The root is a fresh temporary folder unless ``root`` names one; a
    temporary root is removed on exit unless ``keep_root``.

    Entering starts the unit and waits until its remote, Telnet and HTTP
    ports listen, without connecting (a connection would bind a board).
    Leaving stops it: SIGTERM, then SIGKILL after ``grace`` seconds.

    >>> with Unit(boards="t1") as unit, unit.client() as c:   # doctest: +SKIP
    ...     c.version()
    191213
    """

    def __init__(self, boards: str = "t1,rf,ip,pots", platform: str | None = None,
                 extra_args: Iterable[str] = (), *, binary: str | os.PathLike[str] | None = None,
                 root: str | os.PathLike[str] | None = None, keep_root: bool = False,
                 start_timeout: float = 30.0, grace: float = 5.0) -> None:
        self.boards = boards
        self.platform = platform
        self.extra_args = list(extra_args)
        self.binary = find_tovel(binary)
        self.keep_root = keep_root or root is not None
        self.root = Path(root) if root is not None else Path(tempfile.mkdtemp(prefix="tovel-"))
        self.start_timeout = start_timeout
        self.grace = grace
        self.port = self.telnet_port = self.http_port = 0
        self.sim = SimControl(self.root / CONTROL_SOCKET)
        """The simulated hardware (``boards()``, ``attach``, ``detach``, ``fault`` ...)."""
        self._process: subprocess.Popen[bytes] | None = None

    # -- life cycle -----------------------------------------------------------

    def start(self) -> Unit:
        """Starts the unit and waits until it listens; raises ``UnitError`` if it does not."""
        if self.returncode is None and self._process is not None:
            raise UnitError("the unit is already running")
        self.root.mkdir(parents=True, exist_ok=True)
        if self.platform is not None:
            self._write_registry()
        try:
            for attempt in range(_START_ATTEMPTS):
                self.port, self.telnet_port, self.http_port = listening.free_ports(3)
                self._spawn()
                code = self._wait_listening()
                if code is None:
                    return self
                if code not in _PORT_TAKEN or attempt == _START_ATTEMPTS - 1:
                    raise UnitError(f"tovel ended with exit code {code} before it listened "
                                    f"(root {self.root}):\n{self.output_tail()}")
        except BaseException:
            self.stop()
            raise
        raise AssertionError("unreachable")

    def stop(self) -> int | None:
        """Stops the unit (SIGTERM, then SIGKILL after the grace time); answers its exit code."""
        process = self._process
        if process is None:
            return None
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(self.grace)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        return process.returncode

    def __enter__(self) -> Unit:
        try:
            return self.start()
        except BaseException:
            self._remove_root()
            raise

    def __exit__(self, exc_type: type[BaseException] | None, exc: BaseException | None,
                 tb: TracebackType | None) -> None:
        self.stop()
        self._remove_root()

    def wait(self, timeout: float | None = None) -> int:
        """Waits until the unit ends by itself; answers its exit code (22 restart,
        23 watchdog reset ...). Raises ``TimeoutError`` if it still runs."""
        if self._process is None:
            raise UnitError("the unit was never started")
        try:
            return self._process.wait(timeout)
        except subprocess.TimeoutExpired:
            raise TimeoutError(f"the unit still runs after {timeout} s") from None

    @property
    def returncode(self) -> int | None:
        """The exit code once the unit ended, else ``None``."""
        return None if self._process is None else self._process.poll()

    @property
    def pid(self) -> int | None:
        """The process id of the running ``tovel``."""
        return None if self._process is None else self._process.pid

    # -- what the unit offers -------------------------------------------------

    def client(self, **kw: Any) -> Client:
        """A ``Client`` connected to this unit's remote port (keywords as ``Client`` takes)."""
        return Client("127.0.0.1", self.port, **kw)

    def listening(self) -> bool:
        """Whether the unit's remote port listens now (it closes while every board is bound)."""
        return self._process is not None and listening.listens(self.port, self._process.pid)

    def wait_listening(self, state: bool = True, timeout: float = 10.0) -> None:
        """Waits until the remote port listens (or, with ``state=False``, no longer does)."""
        deadline = time.monotonic() + timeout
        while self.listening() != state:
            if time.monotonic() > deadline:
                raise TimeoutError(f"port {self.port} {'never' if state else 'still'} listens "
                                   f"after {timeout} s")
            time.sleep(_POLL_PAUSE)

    @property
    def log_path(self) -> Path:
        """The event log ``usb.log`` (UTF-16LE)."""
        return _find_case_blind(self.root, (*LOG_FOLDER, "usb.log"))

    def usb_log(self) -> list[str]:
        """All lines of ``usb.log.old`` and ``usb.log``, decoded, oldest first."""
        lines: list[str] = []
        current = self.log_path
        for path in (current.with_name(current.name + ".old"), current):
            try:
                raw = path.read_bytes()
            except FileNotFoundError:
                continue
            lines += raw.decode("utf-16-le", errors="replace").lstrip("\ufeff").splitlines()
        return lines

    def output(self) -> str:
        """What the unit wrote to stdout and stderr: status lines and its debug output."""
        try:
            return (self.root / OUTPUT_FILE).read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def output_tail(self, lines: int = 40) -> str:
        """The last ``lines`` lines of ``output()``."""
        return "\n".join(self.output().splitlines()[-lines:])

    def __repr__(self) -> str:
        state = "not started" if self._process is None else (
            "running" if self.returncode is None else f"ended {self.returncode}")
        return f"<tovel.Unit boards={self.boards!r} port={self.port} {state} root={self.root}>"

    # -- internals ------------------------------------------------------------

    def _spawn(self) -> None:
        args = [self.binary, "--root", str(self.root), "--boards", self.boards, "--headless",
                "--port-map", f"{REMOTE_PORT}={self.port}",
                "--port-map", f"{TELNET_PORT}={self.telnet_port}",
                "--port-map", f"{HTTP_PORT}={self.http_port}", *self.extra_args]
        with open(self.root / OUTPUT_FILE, "ab") as out:
            self._process = subprocess.Popen(args, stdin=subprocess.DEVNULL, stdout=out,
                                             stderr=subprocess.STDOUT, cwd=self.root)

    def _wait_listening(self) -> int | None:
        """None once every port listens; the exit code if the unit ended first."""
        assert self._process is not None
        deadline = time.monotonic() + self.start_timeout
        ports = (self.port, self.telnet_port, self.http_port)
        pid = self._process.pid
        while not all(listening.listens(p, pid) for p in ports) or \
                not (self.root / CONTROL_SOCKET).exists():
            code = self._process.poll()
            if code is not None:
                return code
            if time.monotonic() > deadline:
                raise UnitError(f"the unit did not listen on ports {ports} within "
                                f"{self.start_timeout} s:\n{self.output_tail()}")
            time.sleep(_POLL_PAUSE)
        return None

    def _write_registry(self) -> None:
        # The unit keeps an existing registry: the platform name is set before
        # its first start.
        (self.root / "registry.reg").write_text(
            "REGEDIT4\r\n\r\n"
            "[HKEY_LOCAL_MACHINE\\COMM\\Firewall\\Rules\\InboundTovel]\r\n"
            f'"Port"=dword:{REMOTE_PORT:08x}\r\n\r\n'
            "[HKEY_LOCAL_MACHINE\\Platform]\r\n"
            f'"Name"="{self.platform}"\r\n', encoding="ascii")

    def _remove_root(self) -> None:
        if not self.keep_root:
            shutil.rmtree(self.root, ignore_errors=True)
