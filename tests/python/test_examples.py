"""The example scripts in examples/python, each against a unit of its own."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

EXAMPLES = Path(__file__).resolve().parents[2] / "examples" / "python"


@pytest.mark.parametrize("script, args, expected", [
    ("check_boards.py", ["--start", "t1,rf"], "board 2: state 4"),
    ("download_and_boot.py", ["--start", "pots"], "boot: 4"),
])
def test_example_script(script, args, expected):
    done = subprocess.run([sys.executable, str(EXAMPLES / script), *args], capture_output=True,
                          text=True, timeout=120, env={**os.environ, "TQDM_DISABLE": "1"})
    assert done.returncode == 0, done.stdout + done.stderr
    assert expected in done.stdout
