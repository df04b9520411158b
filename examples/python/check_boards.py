#!/usr/bin/env python3
"""A scripted board check: every board of a unit answers its status and an
echo command. Exit code 0 when all do, 1 otherwise.

    examples/python/check_boards.py --port 3445        # a running unit
    examples/python/check_boards.py --start t1,rf      # a simulated one of its own
"""

from __future__ import annotations

import argparse
import contextlib
import sys

import tovel

ECHO = 0x7E


def check(client: tovel.Client, board: int) -> bool:
    block = client.get_status()
    echo = client.atomic_get(ECHO, ECHO, 4, b"\xca\xfe\x00\x01")
    good = block.ok and block.state.running and echo.ok and echo.data == b"\xca\xfe\x00\x01"
    print(f"board {board}: state {block.state.describe()}, sequence {block.sequence}, "
          f"echo {echo.status.describe()}: {'good' if good else 'BAD'}")
    return good


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=3445)
    parser.add_argument("--start", metavar="BOARDS", help="start a simulated unit with BOARDS")
    args = parser.parse_args()
    with contextlib.ExitStack() as stack:
        if args.start:
            unit = stack.enter_context(tovel.Unit(boards=args.start))
            args.port = unit.port
        # Each connection is bound to a board of its own: one client per board,
        # all held open until every board has been checked.
        first = stack.enter_context(tovel.Client(args.host, args.port))
        count = first.enum_boards()
        print(f"server version {first.version()}, {count} boards")
        clients = [first] + [stack.enter_context(tovel.Client(args.host, args.port))
                             for _ in range(count - 1)]
        results = [check(c, i + 1) for i, c in enumerate(clients)]
    return 0 if count and all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
