"""The running unit's simulated hardware, through its control socket
(``<root>/sim.sock``): one command line in, one answer line out."""

from __future__ import annotations

import os
import shlex
import socket
from dataclasses import dataclass

BOARD_KINDS = ("t1", "rf", "ip", "ipg", "pots")
_FAULT_ARGS = {"fail": 2, "state": 1, "hang": 0, "mixup": 0, "latency": 1, "clear": 0}
_MAX_ANSWER = 1 << 16


class SimError(Exception):
    """The unit refused a control command; the message is its reason."""


@dataclass(frozen=True)
class Board:
    """A simulated board as the unit lists it."""

    slot: int
    kind: str
    serial: int
    state: int
    """The DSP state its status block shows (4 running)."""
    sequence: int
    running: bool
    version: str
    held: bool
    """Whether a driver handle holds the board (the controller registered it)."""


@dataclass(frozen=True)
class Watchdog:
    """The simulated hardware watchdog."""

    armed: bool
    expired: bool
    interval_ms: int
    since_service_ms: int
    remaining_ms: int
    hardware: str


def _fields(text: str) -> dict[str, str]:
    return dict(word.split("=", 1) for word in shlex.split(text) if "=" in word)


class SimControl:
    """Commands for the simulated hardware of the unit whose control socket is ``path``."""

    def __init__(self, path: str | os.PathLike[str], timeout: float = 10.0) -> None:
        self.path = os.fspath(path)
        self.timeout = timeout

    def command(self, line: str) -> str:
        """Sends one command line; answers the text after ``ok``, raises ``SimError``
        with the reason of an ``error`` answer."""
        if "\n" in line:
            raise ValueError("a control command is one line")
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(self.timeout)
            s.connect(self.path)
            s.sendall(line.encode() + b"\n")
            answer = bytearray()
            while not answer.endswith(b"\n"):
                chunk = s.recv(4096)
                if not chunk or len(answer) > _MAX_ANSWER:
                    raise SimError(f"the unit closed its control channel during {line!r}")
                answer += chunk
        text = answer.decode(errors="replace").rstrip("\n")
        if text.startswith("error"):
            raise SimError(text[len("error"):].strip())
        return text[len("ok"):].strip()

    def boards(self) -> list[Board]:
        """The attached simulated boards, by slot."""
        parts = self.command("boards").split("; ")[1:]
        boards = []
        for part in parts:
            f = _fields(part)
            boards.append(Board(int(f["slot"]), f["kind"], int(f["serial"]), int(f["state"]),
                                int(f["seq"]), f["running"] == "yes", f["version"],
                                f["held"] == "yes"))
        return boards

    def attach(self, kind: str, serial: int | None = None) -> int:
        """Plug in a board of ``kind`` (t1, rf, ip, ipg, pots); answers its slot.
        The controller sees the arrival and boots it.

        The controller tells the kinds apart by serial number: a ``serial``
        outside the kind's range (t1 1050000000, rf 1150000000, ip 1235000000,
        ipg 1245000000, pots 1350000000 and up) makes a board it does not use."""
        if kind not in BOARD_KINDS:
            raise ValueError(f"kind must be one of {', '.join(BOARD_KINDS)}, got {kind!r}")
        spec = kind if serial is None else f"{kind}:{int(serial)}"
        return int(_fields(self.command(f"attach {spec}"))["slot"])

    def detach(self, slot: int) -> None:
        """Pull the board in ``slot``: its client's requests answer 11 or 12."""
        self.command(f"detach {int(slot)}")

    def fault(self, slot: int, kind: str, *args: int) -> str:
        """Inject a fault into the board in ``slot``: ``"fail", code, count`` /
        ``"state", code`` / ``"hang"`` / ``"mixup"`` / ``"latency", ms`` / ``"clear"``.
        Answers the unit's confirmation."""
        if _FAULT_ARGS.get(kind) != len(args):
            usage = ", ".join(f"{k} ({n} numbers)" for k, n in _FAULT_ARGS.items())
            raise ValueError(f"fault {kind!r} with {len(args)} arguments; use {usage}")
        words = " ".join(str(int(a)) for a in args)
        return self.command(f"fault {int(slot)} {kind} {words}".rstrip())

    def powerfail(self) -> None:
        """Raise the power-fail line: the unit shuts down and its watchdog resets it."""
        self.command("powerfail")

    def knob(self, delta: int) -> None:
        """Turn the front-panel knob's counter by ``delta`` counts."""
        self.command(f"knob {int(delta)}")

    def watchdog(self) -> Watchdog:
        """The simulated watchdog's state."""
        f = _fields(self.command("watchdog"))
        return Watchdog(f["armed"] == "yes", f["expired"] == "yes", int(f["interval_ms"]),
                        int(f["since_service_ms"]), int(f["remaining_ms"]), f["hardware"])
