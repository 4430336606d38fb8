"""Runs the lab: /usr/bin/python3 scripts/lablib [options] (scripts/lab builds, then runs it)."""
import pathlib
import sys

sys.dont_write_bytecode = True  # before the first import of the package's own modules

if not __package__:
    # Run as a folder: the package is imported from the folder that holds it, not from itself.
    sys.path[0] = str(pathlib.Path(__file__).resolve().parents[1])

from lablib.cli import main  # noqa: E402

sys.exit(main())
