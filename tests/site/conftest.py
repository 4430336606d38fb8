import pathlib
import sys

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP))
