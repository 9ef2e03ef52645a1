"""The test peers (scripts/test-peers.sh) and a channel for each test."""
import hashlib
import os
import sys
from pathlib import Path
from typing import Dict, Iterator

import pytest

import webchannel

# The package under test is the one pip installed, not the source tree.
assert Path(webchannel.__file__).resolve().is_relative_to(Path(sys.prefix).resolve()), webchannel.__file__


@pytest.fixture(scope="session")
def peers() -> Dict[str, str]:
    """peers.env of the running peers; a test never passes without them."""
    env = Path(os.environ["WEBCHANNEL_TEST_ENV"], "peers.env")
    return dict(line.split("=", 1) for line in env.read_text().splitlines() if "=" in line)


@pytest.fixture
def channel() -> Iterator[webchannel.Channel]:
    with webchannel.Channel(workers=4) as opened:
        opened.set_param(3016, "5")  # transfer time-out in seconds: nothing waits long
        yield opened


def sha256(path: Path) -> str:
    return hashlib.sha256(path.read_bytes()).hexdigest()
