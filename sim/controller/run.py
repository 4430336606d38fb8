#!/usr/bin/python3
"""Runs the reference RRM service from any working directory: sim/controller/run.py --help."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

from sim.controller.__main__ import main  # noqa: E402

if __name__ == "__main__":
    sys.exit(main())
