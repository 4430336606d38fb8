"""Shared fixtures: where the programs under test are, and a private device root."""
import os
import pathlib

import pytest

BUILD_DIR = pathlib.Path(os.environ.get("ORVD_BUILD_DIR", pathlib.Path(__file__).resolve().parents[2] / "build"))


@pytest.fixture
def orvd_binary():
    path = BUILD_DIR / "orvd"
    assert path.is_file(), f"{path} is missing: build first"
    return str(path)


@pytest.fixture
def device_root(tmp_path):
    root = tmp_path / "root"
    root.mkdir()
    return root
