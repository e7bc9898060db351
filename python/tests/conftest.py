"""Fixtures of the package's tests.

Run from the project's build with CTest (scripts/test.sh), or by hand:
    QXIVEILON31_LIBRARY=build/libqxiveilon31.so.0 QXMATTE=build/qxmatte \
        /usr/bin/python3 -m pytest python/tests
QXMATTE names the command-line tool whose results the package must match; without it those
tests are skipped.
"""

import os
import subprocess
import sys

import numpy as np
import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
# The package from the source tree, unless the run says which copy to test.
if os.environ.get("QX_TEST_INSTALLED") != "1":
    sys.path.insert(0, os.path.dirname(HERE))

import scenes  # noqa: E402


@pytest.fixture(scope="session")
def disc():
    return scenes.soft_disc()


@pytest.fixture(scope="session")
def odd_disc():
    """The soft disc on an odd size (rows of no round length), for the tool comparisons."""
    return scenes.soft_disc(width=157, height=113, radius=33.0)


@pytest.fixture(scope="session")
def square_scene():
    return scenes.subject_and_square()


@pytest.fixture(scope="session")
def qxmatte():
    """A function running the command-line tool: qxmatte(*args) -> CompletedProcess."""
    path = os.environ.get("QXMATTE")
    if not path or not os.access(path, os.X_OK):
        pytest.skip("QXMATTE does not name the built qxmatte tool (CTest sets it)")

    def run(*args):
        done = subprocess.run([path, *map(str, args), "-q"], capture_output=True, text=True)
        assert done.returncode == 0, "qxmatte %s: %s" % (" ".join(map(str, args)), done.stderr)
        return done

    return run


@pytest.fixture
def no_library(monkeypatch):
    """Puts a stand-in for the library in place that fails the test on any use: for checks
    that must refuse an argument before the library is called."""
    from qxiveilon31 import _native

    class Untouchable:
        def __getattr__(self, name):
            raise AssertionError("the library was called (%s)" % name)

    monkeypatch.setattr(_native, "LIB", Untouchable())

