"""Each request of the protocol as data: its bytes, whether it is answered,
which statuses mean success, and how its reply becomes the caller's value.
Shared by the client's direct calls and its pipelines."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from typing import Generic, TypeVar

from . import protocol
from .protocol import Control
from .replies import ProtocolError, Reply, StatusBlock
from .status import Status

T = TypeVar("T")

BOARD_OK = frozenset({Status.OK.value})
CONTROL_OK = frozenset({Status.RUNNING.value})
RUNNING_STATES = frozenset(range(4, 10))


def _same(reply: Reply) -> Reply:
    return reply


@dataclass(frozen=True)
class Request(Generic[T]):
    """One encoded request. ``answered`` is false only for ``Rem_PrimSend``."""

    name: str
    wire: bytes
    decode: Callable[[Reply], T]
    success: frozenset[int] = BOARD_OK
    answered: bool = True


def _value_of(name: str, size: int) -> Callable[[Reply], int]:
    def decode(reply: Reply) -> int:
        if not reply.ok or len(reply.data) < size:
            raise ProtocolError(f"{name} answered {reply.status.describe()} with "
                                f"{len(reply.data)} data bytes")
        return int.from_bytes(reply.data[:size], "little")

    return decode


def version() -> Request[int]:
    return Request("version", protocol.control(Control.VERSION), _value_of("version", 4),
                   CONTROL_OK)


def enum_boards() -> Request[int]:
    return Request("enum_boards", protocol.control(Control.ENUM_BOARDS),
                   _value_of("enum_boards", 1), CONTROL_OK)


def get_status() -> Request[StatusBlock]:
    return Request("get_status", protocol.get_status(), StatusBlock.from_reply)


def atomic_send(opcode: int, data: bytes) -> Request[Reply]:
    return Request("atomic_send", protocol.atomic_send(opcode, data), _same)


def atomic_get(opcode: int, reply_opcode: int, length: int, data: bytes) -> Request[Reply]:
    return Request("atomic_get", protocol.atomic_get(opcode, reply_opcode, length, data), _same)


def prim_send(device: int, opcode: int, data: bytes) -> Request[Reply]:
    return Request("prim_send", protocol.prim_send(device, opcode, data), _same, answered=False)


def prim_get(size: int) -> Request[Reply]:
    return Request("prim_get", protocol.prim_get(size), _same)


def control(sub_command: int, data: bytes = b"", success: frozenset[int] = BOARD_OK,
            name: str = "control") -> Request[Reply]:
    return Request(name, protocol.control(sub_command, data), _same, success)


def boot() -> Request[Reply]:
    # Success is the running DSP's state; a failed boot answers 15.
    return control(Control.DSP_BOOT, success=RUNNING_STATES, name="boot")


def reboot() -> Request[Reply]:
    return control(Control.REBOOT, success=CONTROL_OK, name="reboot")


def cmdline() -> Request[Reply]:
    return control(Control.CMDLINE_CONTROL, success=CONTROL_OK, name="cmdline")
