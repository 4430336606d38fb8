"""The fault suite runs the programs the end-to-end suite runs, with the same fixtures."""
import importlib.util
import pathlib
import sys

HERE = pathlib.Path(__file__).resolve().parent
INTEGRATION = HERE.parent / "integration"
for path in (HERE, INTEGRATION):
    if str(path) not in sys.path:
        sys.path.insert(0, str(path))

_spec = importlib.util.spec_from_file_location("integration_fixtures", INTEGRATION / "conftest.py")
_fixtures = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_fixtures)
globals().update({name: value for name, value in vars(_fixtures).items() if not name.startswith("_")})
