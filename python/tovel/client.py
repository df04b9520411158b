"""A client of the unit's remote command protocol: one TCP connection."""

from __future__ import annotations

import collections
import os
import selectors
import socket
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import TracebackType
from typing import Any, Generic, TypeVar

from . import protocol, requests
from .protocol import Control
from .replies import ConnectionClosed, ProtocolError, Reply, StatusBlock
from .requests import Request
from .status import Status

T = TypeVar("T")

# The listener may be closed for a moment (every board bound, or a session
# not yet purged): refused connections are tried again this often.
_CONNECT_RETRY_PAUSE = 0.02
_RECEIVE_SIZE = 65536


def _connect(host: str, port: int, connect_timeout: float) -> socket.socket:
    deadline = time.monotonic() + connect_timeout
    while True:
        try:
            sock = socket.create_connection((host, port),
                                            timeout=max(connect_timeout, 0.001))
            break
        except ConnectionRefusedError:
            # No event tells a client that a port opened: try again, bounded
            # by connect_timeout.
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                raise
            time.sleep(min(_CONNECT_RETRY_PAUSE, remaining))
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return sock


class Client:
    """One connection to the unit's remote port; a context manager.

    The unit binds the connection to one free board for as long as it stays
    open; every request acts on that board or on the controller.

    ``timeout`` bounds the wait for each reply (``None``: wait for ever); a
    board that hangs answers 13 only after the unit's own 5000 ms handshake
    time-out, so give such requests a longer one. ``connect_timeout`` bounds
    the retries of a refused connection.

    >>> with Client(port=unit.port) as c:        # doctest: +SKIP
    ...     c.version()
    191213
    """

    def __init__(self, host: str = "127.0.0.1", port: int = 3445, timeout: float | None = 5.0,
                 connect_timeout: float = 3.0) -> None:
        self.host = host
        self.port = port
        self.timeout = timeout
        self._sock: socket.socket | None = _connect(host, port, connect_timeout)
        self._received = bytearray()
        # Requests sent and not yet answered, oldest first (after a
        # TimeoutError, or between a pipeline's send and its reads).
        self._owed: collections.deque[Request[Any]] = collections.deque()

    # -- the requests ---------------------------------------------------------

    def version(self) -> int:
        """The server version (191213)."""
        return self._run(requests.version())

    def enum_boards(self) -> int:
        """Re-enumerate the boards; the number the controller now knows (modulo 256)."""
        return self._run(requests.enum_boards())

    def get_status(self) -> StatusBlock:
        """The board's 64-byte DSP status block."""
        return self._run(requests.get_status())

    def atomic_send(self, opcode: int, data: bytes = b"") -> Reply:
        """Send DSP command ``opcode`` and wait until the DSP reports it done."""
        return self._run(requests.atomic_send(opcode, data))

    def atomic_get(self, opcode: int, reply_opcode: int, length: int, data: bytes = b"") -> Reply:
        """Send DSP command ``opcode``; the reply holds ``length`` bytes of its answer."""
        return self._run(requests.atomic_get(opcode, reply_opcode, length, data))

    def prim_send(self, device: int, opcode: int, data: bytes = b"") -> None:
        """Send one raw DSP packet. The protocol answers nothing: a following
        ``prim_get`` or ``get_status`` shows the outcome."""
        self._run(requests.prim_send(device, opcode, data))

    def prim_get(self, size: int) -> Reply:
        """Read one raw DSP packet with ``size`` payload bytes (``data`` starts with its header)."""
        return self._run(requests.prim_get(size))

    def boot(self) -> Reply:
        """Boot the board's DSP from its kind's image. A failed boot answers 15
        (``WRONG_COF_VERSION``) and restarts the unit."""
        return self._run(requests.boot())

    def reboot(self) -> Reply:
        """Restart the controller (answers 4; the unit exits with 22 soon after)."""
        return self._run(requests.reboot())

    def cmdline(self) -> Reply:
        """Hand the unit to command-line control (answers 4; the unit restarts)."""
        return self._run(requests.cmdline())

    def cof_download(self, image: bytes | str | os.PathLike[str],
                     progress: Callable[[int, int], None] | None = None,
                     chunk_size: int = protocol.COF_CHUNK_SIZE) -> Reply:
        """Replace the DSP image of the board's kind with ``image`` (bytes or a path).

        Sends the start, the image in pieces of ``chunk_size`` bytes and the
        end; ``progress(sent, total)`` is called after each piece. Answers the
        first reply that is not ok, else the end's. The unit answers 0 even
        when it cannot write the file: its event log says so.
        """
        if not 1 <= chunk_size <= protocol.COF_CHUNK_MAX:
            raise ValueError(f"chunk_size must be 1..{protocol.COF_CHUNK_MAX}, got {chunk_size}")
        if not isinstance(image, (bytes, bytearray, memoryview)):
            with open(image, "rb") as f:
                image = f.read()
        data = bytes(image)
        answers = [self._run(requests.control(Control.COF_START))]
        for sent in range(0, len(data), chunk_size):
            piece = data[sent:sent + chunk_size]
            answers.append(self._run(requests.control(Control.COF_DATA, piece)))
            if progress is not None:
                progress(sent + len(piece), len(data))
        answers.append(self._run(requests.control(Control.COF_END)))
        return next((a for a in answers if not a.ok), answers[-1])

    def exchange(self, raw: bytes, replies: int = 1) -> list[Reply]:
        """Send ``raw`` bytes unchecked and read ``replies`` replies: for probing
        the unit with requests the other methods refuse to build."""
        self._send(bytes(raw))
        pending: list[Request[Reply]] = []
        for _ in range(replies):
            request: Request[Reply] = Request("exchange", b"", lambda r: r)
            self._owed.append(request)
            pending.append(request)
        return [self._await(request) for request in pending]

    @contextmanager
    def pipeline(self) -> Iterator[Pipeline]:
        """Queue requests and send them in one write when the block ends.

        >>> with client.pipeline() as p:           # doctest: +SKIP
        ...     v = p.version()
        ...     p.atomic_get(0x7E, 0x7E, 2, b"\\xbe\\xef")
        >>> v.value, [r.status for r in p.replies]  # doctest: +SKIP
        (191213, [<Status.RUNNING: 4>, <Status.OK: 0>])
        """
        pipeline = Pipeline()
        yield pipeline
        pipeline._flush(self)

    def next_reply(self, timeout: float | None = None) -> Reply:
        """The reply to the oldest request still unanswered, e.g. after a
        ``TimeoutError``; waits up to ``timeout`` (default: the client's)."""
        if not self._owed:
            raise RuntimeError("no request is waiting for its reply")
        return self._await(self._owed[0], self.timeout if timeout is None else timeout)

    @property
    def pending(self) -> int:
        """How many requests sent on this connection still wait for their reply."""
        return len(self._owed)

    def close(self) -> None:
        """Close the connection; the unit frees its board."""
        if self._sock is not None:
            self._sock.close()
            self._sock = None

    def __enter__(self) -> Client:
        return self

    def __exit__(self, exc_type: type[BaseException] | None, exc: BaseException | None,
                 tb: TracebackType | None) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "open" if self._sock is not None else "closed"
        return f"<tovel.Client {self.host}:{self.port} {state}>"

    # -- the wire -------------------------------------------------------------

    def _run(self, request: Request[T]) -> T:
        self._send(request.wire)
        if not request.answered:
            return None  # type: ignore[return-value]
        self._owed.append(request)
        return request.decode(self._await(request))

    def _socket(self) -> socket.socket:
        if self._sock is None:
            raise ConnectionClosed(f"the connection to {self.host}:{self.port} is closed")
        return self._sock

    def _send(self, data: bytes) -> None:
        """Sends all of ``data``, reading replies meanwhile, so that a long
        pipeline cannot stall with both directions' buffers full."""
        sock = self._socket()
        view = memoryview(data)
        with selectors.DefaultSelector() as selector:
            selector.register(sock, selectors.EVENT_READ | selectors.EVENT_WRITE)
            while view:
                events = selector.select(self.timeout)
                if not events:
                    raise TimeoutError(f"{self.host}:{self.port} took no data for "
                                       f"{self.timeout} s")
                mask = events[0][1]
                if mask & selectors.EVENT_READ:
                    self._receive_some(sock)
                if mask & selectors.EVENT_WRITE:
                    try:
                        sent = sock.send(view[:_RECEIVE_SIZE], socket.MSG_DONTWAIT)
                    except BlockingIOError:
                        continue
                    except OSError as e:
                        self._lost(e)
                    view = view[sent:]

    def _receive_some(self, sock: socket.socket) -> None:
        try:
            chunk = sock.recv(_RECEIVE_SIZE, socket.MSG_DONTWAIT)
        except BlockingIOError:
            return
        except OSError as e:
            self._lost(e)
        if not chunk:
            self._lost(None)
        self._received += chunk

    def _lost(self, cause: OSError | None) -> None:
        self.close()
        self._owed.clear()
        why = f": {cause}" if cause else ""
        raise ConnectionClosed(f"the connection to {self.host}:{self.port} ended{why}") from cause

    def _fill(self, count: int, deadline: float | None) -> None:
        sock = self._socket()
        while len(self._received) < count:
            remaining = None if deadline is None else deadline - time.monotonic()
            if remaining is not None and remaining <= 0:
                raise TimeoutError(f"no reply from {self.host}:{self.port} in {self.timeout} s "
                                   "(the request stays outstanding: see next_reply)")
            with selectors.DefaultSelector() as selector:
                selector.register(sock, selectors.EVENT_READ)
                if selector.select(remaining):
                    self._receive_some(sock)

    def _await(self, request: Request[Any], timeout: float | None = None) -> Reply:
        """Reads replies in order until ``request``'s; replies still owed to
        earlier requests (after a time-out) are skipped."""
        timeout = self.timeout if timeout is None else timeout
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            self._fill(protocol.REPLY_HEADER_SIZE, deadline)
            status, length = protocol.reply_header(bytes(self._received[:8]))
            if length > protocol.REPLY_DATA_MAX:
                self.close()
                raise ProtocolError(f"a reply of {length} data bytes exceeds the protocol's "
                                    f"{protocol.REPLY_DATA_MAX}; connection closed")
            self._fill(protocol.REPLY_HEADER_SIZE + length, deadline)
            data = bytes(self._received[8:8 + length])
            del self._received[:8 + length]
            answered = self._owed.popleft()
            if answered is request:
                return Reply(Status(status), data, request.success)


class Pending(Generic[T]):
    """A request queued in a pipeline; ``value`` once the pipeline has run."""

    def __init__(self, request: Request[T]) -> None:
        self.request = request
        self.reply: Reply | None = None

    @property
    def value(self) -> T:
        """What the direct call would have answered (``version()`` an int, ...)."""
        if self.reply is None:
            raise RuntimeError(f"{self.request.name} has no reply yet: the pipeline runs "
                               "when its block ends")
        return self.request.decode(self.reply)


class Pipeline:
    """Requests queued by ``Client.pipeline()``; ``replies`` holds their
    replies in order once the block has ended (``prim_send`` has none)."""

    def __init__(self) -> None:
        self._queued: list[Pending[Any]] = []
        self.replies: list[Reply] = []

    def _queue(self, request: Request[T]) -> Pending[T]:
        pending = Pending(request)
        self._queued.append(pending)
        return pending

    def _flush(self, client: Client) -> None:
        client._send(b"".join(p.request.wire for p in self._queued))
        answered = [p for p in self._queued if p.request.answered]
        client._owed.extend(p.request for p in answered)
        for pending in answered:
            pending.reply = client._await(pending.request)
            self.replies.append(pending.reply)

    def version(self) -> Pending[int]:
        """Queue ``Client.version``."""
        return self._queue(requests.version())

    def enum_boards(self) -> Pending[int]:
        """Queue ``Client.enum_boards``."""
        return self._queue(requests.enum_boards())

    def get_status(self) -> Pending[StatusBlock]:
        """Queue ``Client.get_status``."""
        return self._queue(requests.get_status())

    def atomic_send(self, opcode: int, data: bytes = b"") -> Pending[Reply]:
        """Queue ``Client.atomic_send``."""
        return self._queue(requests.atomic_send(opcode, data))

    def atomic_get(self, opcode: int, reply_opcode: int, length: int,
                   data: bytes = b"") -> Pending[Reply]:
        """Queue ``Client.atomic_get``."""
        return self._queue(requests.atomic_get(opcode, reply_opcode, length, data))

    def prim_send(self, device: int, opcode: int, data: bytes = b"") -> None:
        """Queue ``Client.prim_send`` (no reply)."""
        self._queue(requests.prim_send(device, opcode, data))

    def prim_get(self, size: int) -> Pending[Reply]:
        """Queue ``Client.prim_get``."""
        return self._queue(requests.prim_get(size))

    def boot(self) -> Pending[Reply]:
        """Queue ``Client.boot``."""
        return self._queue(requests.boot())
