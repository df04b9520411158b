"""The remote command protocol on the wire: request encoding and its limits.

Pure byte work, no sockets. Every encoder checks its arguments and raises
``ValueError`` for a request the protocol cannot carry, before anything is
sent.
"""

from __future__ import annotations

import enum
import struct

VERSION = 191213
"""The server version that ``Rem_Control`` version answers."""

SHORT_HEADER_SIZE = 5
LONG_HEADER_SIZE = 16
REPLY_HEADER_SIZE = 8
REPLY_DATA_MAX = 8184
RECEIVE_BUFFER_SIZE = 10000
"""No request longer than the server's receive buffer can ever be served."""
PACKET_PAYLOAD_MAX = 8180
"""A DSP packet is at most 8184 bytes: a 4-byte header and this much payload."""
COF_CHUNK_SIZE = 8192
COF_CHUNK_MAX = RECEIVE_BUFFER_SIZE - LONG_HEADER_SIZE


class Opcode(enum.IntEnum):
    """Byte 0 of a request."""

    PRIM_SEND = 0
    PRIM_GET = 1
    GET_STATUS = 2
    ATOMIC_GET = 3
    ATOMIC_SEND = 4
    CONTROL = 5


class Control(enum.IntEnum):
    """The sub-commands of ``Opcode.CONTROL`` (byte 1 of its request)."""

    ENUM_BOARDS = 0
    COF_START = 1
    COF_DATA = 2
    COF_END = 3
    DSP_BOOT = 4
    REBOOT = 5
    VERSION = 6
    CMDLINE_CONTROL = 7


def _byte(name: str, value: int) -> int:
    if not isinstance(value, int) or not 0 <= value <= 0xFF:
        raise ValueError(f"{name} must be 0..255, got {value!r}")
    return value


def _payload(name: str, data: bytes, limit: int) -> bytes:
    data = bytes(data)
    if len(data) > limit:
        raise ValueError(f"{name} of {len(data)} bytes exceeds the protocol's {limit} bytes")
    return data


def long_form(opcode: int, command: int, payload: bytes = b"", reply_opcode: int = 0,
              reply_length: int = 0) -> bytes:
    """A 16-byte long-form header (size and reply length little-endian) and its payload."""
    return struct.pack("<BBHIB3xI", opcode, command, 0, len(payload), reply_opcode,
                       reply_length) + payload


def prim_send(device: int, opcode: int, data: bytes = b"") -> bytes:
    """``Rem_PrimSend``: one raw DSP packet (device, opcode, big-endian size, payload)."""
    _byte("device", device)
    _byte("opcode", opcode)
    data = _payload("a DSP packet payload", data, PACKET_PAYLOAD_MAX)
    return struct.pack(">BBBH", Opcode.PRIM_SEND, device, opcode, len(data)) + data


def prim_get(size: int) -> bytes:
    """``Rem_PrimGet``: read a DSP packet of ``size`` payload bytes (and its header)."""
    if not isinstance(size, int) or not 0 <= size <= PACKET_PAYLOAD_MAX:
        raise ValueError(f"size must be 0..{PACKET_PAYLOAD_MAX}, got {size!r}")
    return struct.pack(">BBBH", Opcode.PRIM_GET, 0, 0, size)


def get_status() -> bytes:
    """``Rem_GetStatus``: always five bytes."""
    return bytes([Opcode.GET_STATUS, 0, 0, 0, 0])


def atomic_send(opcode: int, data: bytes = b"") -> bytes:
    """``Rem_AtomicSend`` of DSP command ``opcode`` with ``data``."""
    _byte("opcode", opcode)
    data = _payload("a DSP command payload", data, PACKET_PAYLOAD_MAX)
    return long_form(Opcode.ATOMIC_SEND, opcode, data)


def atomic_get(opcode: int, reply_opcode: int, length: int, data: bytes = b"") -> bytes:
    """``Rem_AtomicGet``: command ``opcode``; the answer must carry ``reply_opcode``."""
    _byte("opcode", opcode)
    _byte("reply_opcode", reply_opcode)
    if not isinstance(length, int) or not 0 <= length <= PACKET_PAYLOAD_MAX:
        raise ValueError(f"length must be 0..{PACKET_PAYLOAD_MAX}, got {length!r}")
    data = _payload("a DSP command payload", data, PACKET_PAYLOAD_MAX)
    return long_form(Opcode.ATOMIC_GET, opcode, data, reply_opcode, length)


def control(sub_command: int, data: bytes = b"") -> bytes:
    """``Rem_Control`` with a sub-command (``Control``) and its payload."""
    _byte("sub_command", sub_command)
    data = _payload("a control payload", data, COF_CHUNK_MAX)
    return long_form(Opcode.CONTROL, sub_command, data)


def reply_header(header: bytes) -> tuple[int, int]:
    """(status, length) of an 8-byte reply header."""
    status, length = struct.unpack("<II", header)
    return status, length
