import pytest

from orbmux_harness import Sandbox


@pytest.fixture
def sandbox():
    box = Sandbox()
    yield box
    box.cleanup()
