"""The package installs offline, from Debian's setuptools and numpy, and works where installed."""

import os
import shutil
import subprocess
import venv
from pathlib import Path

import pytest

import tavix

SOURCE = Path(__file__).resolve().parent.parent


def test_installs_offline_into_a_virtual_environment(tmp_path):
    # The package is built from a copy: pip builds in place and would leave build files behind.
    source = tmp_path / "source"
    shutil.copytree(SOURCE, source, ignore=shutil.ignore_patterns("tests", "__pycache__", "build", "*.egg-info"))
    environment = tmp_path / "env"
    try:
        venv.EnvBuilder(system_site_packages=True, with_pip=True).create(environment)
    except (subprocess.CalledProcessError, OSError) as error:
        pytest.skip(f"no virtual environment with pip (Debian's python3-venv): {error}")
    python = environment / "bin" / "python"
    subprocess.run(
        [python, "-m", "pip", "install", "--quiet", "--no-build-isolation", "--no-index", str(source)],
        check=True,
        env={**os.environ, "PIP_DISABLE_PIP_VERSION_CHECK": "1"},
    )
    # Imported from elsewhere, so the installed copy is the one found, loading the same library.
    environ = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    if os.sep in tavix.library_path:
        environ["TAVIX_LIBRARY"] = os.path.abspath(tavix.library_path)
    result = subprocess.run(
        [python, "-c", "import tavix; print(tavix.__file__); print(tavix.devices('video')[-1])"],
        capture_output=True,
        text=True,
        cwd=tmp_path,
        env=environ,
    )
    assert result.returncode == 0, result.stderr
    location, device = result.stdout.splitlines()
    assert location.startswith(str(environment))
    assert device == "Tavix Test Deck"
