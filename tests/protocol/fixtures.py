"""The fixtures of the floors whose tests work in sandboxes; their conftest.py imports them."""

import contextlib
import signal

import pytest

import ground as shared
from sandbox import Sandbox


@contextlib.contextmanager
def used(ground):
    """A fresh sandbox for a with block, at whose end the checks are made that every test makes."""
    box = Sandbox(ground)
    try:
        yield box
        wrong = box.finish()
    finally:
        box.close()
    assert not wrong, "\n".join(wrong)


@pytest.fixture(scope="session")
def ground():
    # A shell's background jobs ignore these two, and whatever a test starts would inherit that.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    common = shared.Ground()
    yield common
    common.close()


@pytest.fixture
def sandbox(ground):
    """A fresh sandbox; the agent starts with the first request, or by start()."""
    with used(ground) as box:
        yield box


@pytest.fixture
def impatient(sandbox):
    """The sandbox with the agent that waits 0.5 s for a program's start and 2 s for its end."""
    sandbox.executable = shared.short_agent_executable()
    return sandbox
