"""Fixtures of the system tests."""

from __future__ import annotations

import contextlib

import pytest

from harness.gateway import Gateway
from harness.sandbox import Tools, find_build


@pytest.fixture(scope="session")
def tools():
    """Copies of the product and of the stand-ins that every user can read."""
    try:
        build = find_build()
    except FileNotFoundError as error:
        pytest.exit(str(error), returncode=pytest.ExitCode.USAGE_ERROR)
    made = Tools(build)
    yield made
    made.remove()


@contextlib.contextmanager
def made_gateway(tools, seccomp=None):
    """A gateway that is torn down at the end; fails on what a sanitizer has found."""
    gateway = Gateway(tools, seccomp)
    try:
        yield gateway
        reports = gateway.sanitizer_reports()
    finally:
        print(gateway.story())
        gateway.remove()
    if reports:
        pytest.fail(f"a sanitizer has found:\n{reports}", pytrace=False)


@pytest.fixture
def gateway(tools):
    """A gateway of its own for each test."""
    with made_gateway(tools) as made:
        yield made


@pytest.fixture(scope="module")
def make_gateway(tools):
    """Makes gateways that last for a module's tests. An argument is a seccomp filter."""
    with contextlib.ExitStack() as stack:
        yield lambda seccomp=None: stack.enter_context(made_gateway(tools, seccomp))
