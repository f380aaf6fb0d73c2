# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the system tests. `lab`: one lab for all tests of a file; `make_lab`: as many as a
test wants, of any kind, taken down with it."""

import pytest

from labkit import Lab


@pytest.fixture(scope="module")
def lab():
    running = Lab()
    yield running
    running.close()


@pytest.fixture
def make_lab():
    running = []

    def make(*arguments, **options):
        running.append(Lab(*arguments, **options))
        return running[-1]

    yield make
    for one in running:
        one.close()
