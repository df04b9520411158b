"""The package installs offline into a fresh virtual environment and brings
its fixtures to any test suite through its entry point."""

import os
import shutil
import subprocess
import venv
from pathlib import Path

import pytest

PACKAGE = Path(__file__).resolve().parents[2] / "python"

SUITE = """
import tovel

def test_installed_fixture(tovel_unit):
    assert tovel.__file__.startswith({prefix!r})
    with tovel_unit.client() as c:
        assert c.version() == tovel.VERSION
"""


def test_pip_install_gives_the_fixture(tmp_path):
    pytest.importorskip("ensurepip", reason="python3-venv is not installed")
    # A copy: the build leaves its files next to the sources.
    source = shutil.copytree(PACKAGE, tmp_path / "src", ignore=shutil.ignore_patterns(
        "__pycache__", "build", "*.egg-info"))
    env_dir = tmp_path / "venv"
    venv.create(env_dir, system_site_packages=True, with_pip=True)
    python = env_dir / "bin" / "python"
    clean = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    clean["PIP_DISABLE_PIP_VERSION_CHECK"] = "1"
    subprocess.run([python, "-m", "pip", "install", "-q", "--no-build-isolation", "--no-index",
                    str(source)], check=True, env=clean, timeout=300)
    suite = tmp_path / "suite"
    suite.mkdir()
    (suite / "test_installed.py").write_text(SUITE.format(prefix=str(env_dir)))
    done = subprocess.run([python, "-m", "pytest", "-q", "-p", "no:cacheprovider"], cwd=suite,
                          env=clean, capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "1 passed" in done.stdout
