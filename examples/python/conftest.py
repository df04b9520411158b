import os
import shutil
from pathlib import Path

# The tovel fixtures without installing the package (PYTHONPATH=python);
# once it is installed, its entry point loads them and this line is a no-op.
pytest_plugins = ["tovel.pytest_plugin"]

# In this tree, the program built by `make build` unless told otherwise.
_BUILT = Path(__file__).resolve().parents[2] / "build" / "tovel"
if "TOVEL_BIN" not in os.environ and not shutil.which("tovel") and _BUILT.is_file():
    os.environ["TOVEL_BIN"] = str(_BUILT)
