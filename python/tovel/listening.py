"""Free ports, and whether a process listens on a port, without connecting.

A connection to the unit's remote port would bind one of its boards until the
unit's next accept purges the session, so readiness is read from the kernel's
socket tables instead: /proc/net/tcp and tcp6 list every socket with its
state and inode, and /proc/<pid>/fd tells which of them the process holds.
"""

from __future__ import annotations

import os
import socket

_LISTEN = "0A"


def free_ports(count: int) -> list[int]:
    """``count`` distinct TCP ports that nothing listens on right now."""
    sockets = []
    try:
        for _ in range(count):
            s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            s.bind(("127.0.0.1", 0))
            sockets.append(s)
        return [s.getsockname()[1] for s in sockets]
    finally:
        for s in sockets:
            s.close()


def _listening_inodes(port: int) -> set[str]:
    inodes = set()
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table, encoding="ascii") as f:
                lines = f.readlines()[1:]
        except OSError:
            continue
        for line in lines:
            fields = line.split()
            if len(fields) < 10 or fields[3] != _LISTEN:
                continue
            if int(fields[1].rsplit(":", 1)[1], 16) == port:
                inodes.add(fields[9])
    return inodes


def _socket_inodes(pid: int) -> set[str] | None:
    try:
        names = os.listdir(f"/proc/{pid}/fd")
    except OSError:
        return None
    inodes = set()
    for name in names:
        try:
            target = os.readlink(f"/proc/{pid}/fd/{name}")
        except OSError:
            continue  # closed meanwhile
        if target.startswith("socket:["):
            inodes.add(target[8:-1])
    return inodes


def listens(port: int, pid: int | None = None) -> bool:
    """Whether a socket listens on TCP ``port`` (held by process ``pid``, if given)."""
    inodes = _listening_inodes(port)
    if not inodes or pid is None:
        return bool(inodes)
    held = _socket_inodes(pid)
    return held is None or bool(inodes & held)
