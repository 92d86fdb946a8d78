"""Makes `import quillo` find the module of a build.

The build folder comes from the environment variable QUILLO_PYTHON_DIR
(for instance build/debug/python); without it, build/release/python of this
checkout is used.
"""

import os
import sys

import pytest

_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
_MODULE_DIR = os.environ.get("QUILLO_PYTHON_DIR") or os.path.join(
    _ROOT, "build", "release", "python")
sys.path.insert(0, os.path.abspath(_MODULE_DIR))


@pytest.fixture
def quillo():
    import quillo as module
    return module


@pytest.fixture
def t(quillo):
    """A fresh QuilloTestClass."""
    return quillo.CreateObject("QuilloTestClass")


@pytest.fixture
def raises_error(quillo):
    """`with raises_error(number):` expects a quillo.RuntimeError with that number."""
    import contextlib

    @contextlib.contextmanager
    def expect(number):
        with pytest.raises(quillo.RuntimeError) as caught:
            yield caught
        assert caught.value.number == number, "error %d (%s), expected %d" % (
            caught.value.number, caught.value.description, number)

    return expect
