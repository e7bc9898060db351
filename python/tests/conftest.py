# Fixtures of the package's tests. Run from the build with CTest, or by hand:
#   QXIVEILON31_LIBRARY=build/libqxiveilon31.so.0 QXMATTE=build/qxmatte \
#       /usr/bin/python3 -m pytest python/tests

import os
import subprocess
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
if os.environ.get("QX_TEST_INSTALLED") != "1":  # the source tree's package
    sys.path.insert(0, os.path.dirname(HERE))

import scenes  # noqa: E402


@pytest.fixture(scope="session")
def disc():
    return scenes.soft_disc()


@pytest.fixture(scope="session")
def square_scene():
    return scenes.subject_and_square()


@pytest.fixture
def qxmatte():
    """qxmatte(*args): runs the command-line tool, which must succeed."""
    path = os.environ.get("QXMATTE")
    if not path or not os.access(path, os.X_OK):
        pytest.skip("QXMATTE does not name the built qxmatte tool (CTest sets it)")

    def run(*args):
        done = subprocess.run([path, *map(str, args), "-q"], capture_output=True, text=True)
        assert done.returncode == 0, done.stderr

    return run


@pytest.fixture
def no_library(monkeypatch):
    """A stand-in for the library that fails the test on any use."""
    from qxiveilon31 import _native

    class Untouchable:
        def __getattr__(self, name):
            raise AssertionError("the library was called (%s)" % name)

    monkeypatch.setattr(_native, "LIB", Untouchable())
