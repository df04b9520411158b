#!/usr/bin/env python3
"""Download a DSP image for the board kind of a unit's board and boot it,
with a progress bar (tqdm's, when it is installed).

    examples/python/download_and_boot.py --port 3445 t1.cof
    examples/python/download_and_boot.py --start t1        # the unit's own t1.cof again
"""

from __future__ import annotations

import argparse
import contextlib
import sys
from collections.abc import Callable
from pathlib import Path

import tovel


def progress_bar(total: int) -> tuple[Callable[[int, int], None], Callable[[], None]]:
    """A progress callback for cof_download and the function that ends the bar."""
    try:
        from tqdm import tqdm  # optional
    except ImportError:
        def show(sent: int, total: int) -> None:
            filled = 40 * sent // max(total, 1)
            print(f"\r[{'#' * filled}{'.' * (40 - filled)}] {sent}/{total} bytes", end="",
                  file=sys.stderr, flush=True)
        return show, lambda: print(file=sys.stderr)
    bar = tqdm(total=total, unit="B", unit_scale=True)
    return lambda sent, _total: bar.update(sent - bar.n), bar.close


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("image", nargs="?", type=Path, help="the COF image to download")
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=3445)
    parser.add_argument("--start", metavar="BOARD", help="start a simulated unit with one BOARD")
    args = parser.parse_args()
    with contextlib.ExitStack() as stack:
        if args.start:
            unit = stack.enter_context(tovel.Unit(boards=args.start))
            args.port = unit.port
            if args.image is None:
                args.image = (unit.root / "Program Files" / "Orvane Instruments" / "480" /
                              f"{args.start}.cof")
        if args.image is None:
            parser.error("an image is needed without --start")
        image = args.image.read_bytes()
        client = stack.enter_context(tovel.Client(args.host, args.port, timeout=30))
        show, done = progress_bar(len(image))
        reply = client.cof_download(image, progress=show)
        done()
        if not reply.ok:
            print(f"download failed: {reply.status.describe()}")
            return 1
        booted = client.boot()
        print(f"boot: {booted.status.describe()}")
        return 0 if booted.ok else 1


if __name__ == "__main__":
    sys.exit(main())
