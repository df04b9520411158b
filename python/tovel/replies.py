"""What the unit answers: a reply record and the decoded status block."""

from __future__ import annotations

from dataclasses import dataclass, field

from .status import Status

STATUS_BLOCK_SIZE = 64


class ProtocolError(Exception):
    """The unit answered something the protocol cannot produce, or not what was asked."""


class ConnectionClosed(ConnectionError):
    """The connection ended (the unit closed it, or it was reset) before a reply was whole."""


@dataclass(frozen=True)
class Reply:
    """One reply record: the status and the data that followed it.

    ``ok`` is true when the status means success for the request that was
    answered: 0 for the board requests and the COF download, 4 (``RUNNING``)
    for the controller's own sub-commands, a running DSP state after a boot.
    """

    status: Status
    data: bytes = b""
    success: frozenset[int] = field(default=frozenset({0}), repr=False, compare=False)

    @property
    def ok(self) -> bool:
        """Whether the status means success for the request."""
        return self.status.value in self.success


@dataclass(frozen=True)
class StatusBlock:
    """The board's 64-byte DSP status block, as a ``get_status`` reply carries it.

    ``status`` is the link's result; the block's fields mean something only
    when it is 0 (``ok``).
    """

    status: Status
    raw: bytes

    @property
    def ok(self) -> bool:
        """Whether the link read the block (status 0)."""
        return self.status == Status.OK

    @property
    def device(self) -> int:
        """Byte 0: 1 for a block from the DSP."""
        return self.raw[0]

    @property
    def state(self) -> Status:
        """Byte 2: the state the DSP reports about itself (4 running, 5 result ready ...)."""
        return Status(self.raw[2])

    @property
    def sequence(self) -> int:
        """Byte 63: the DSP's sequence number."""
        return self.raw[63]

    @property
    def detail(self) -> bytes:
        """Bytes 4 to 63: the status detail (its last byte is the sequence number)."""
        return self.raw[4:]

    @classmethod
    def from_reply(cls, reply: Reply) -> StatusBlock:
        """The block from a ``Rem_GetStatus`` reply: 65 data bytes, the block from byte 1."""
        if len(reply.data) != STATUS_BLOCK_SIZE + 1:
            raise ProtocolError(
                f"a status reply carries {STATUS_BLOCK_SIZE + 1} data bytes, got {len(reply.data)}")
        return cls(reply.status, reply.data[1:])
