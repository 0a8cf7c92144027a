"""Everything goes wrong at once on a booted server: one short seed here, longer ones by scripts/chaos."""

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

from figures import count

CHAOS = Path(__file__).with_name("chaos.py")
SCRIPTS = Path(__file__).resolve().parents[2] / "scripts"
SUITE = os.environ.get("CORV_SUITE", "bookworm")
SEED = "7"
MINUTES, LONG_MINUTES = 0.8, 10


@pytest.fixture
def package():
    """The path of the package under test, as on the floors of booted hosts."""
    if os.environ.get("CORV_PACKAGE"):
        return os.environ["CORV_PACKAGE"]
    built = subprocess.run([SCRIPTS / "release", SUITE, SCRIPTS / "package"], stdout=subprocess.PIPE, text=True, check=True)
    return built.stdout.splitlines()[-1]


def test_a_short_seed_holds(package, is_long, tmp_path):
    minutes = LONG_MINUTES if is_long else MINUTES
    done = subprocess.run([sys.executable, CHAOS, "--package", package, "--suite", SUITE, "--seed", SEED, "--minutes", str(minutes),
                           "--log", tmp_path / "log"], stdout=subprocess.PIPE, text=True, check=False)
    last = done.stdout.splitlines()[-5:]
    told = re.search(r": (\d+) rounds, (\d+) requests, (\d+) disturbances; everything held$", last[-1]) if last else None
    rounds = int(told[1]) if told else 0
    count("everything goes wrong at once on a booted server", "accounts are whole, gone, or mended by what the doctor says; sites "
          "answer; nobody else's file changes; no log has a secret; a backup can be restored", max(rounds, 1), rounds)
    assert done.returncode == 0, "\n".join(last)
    assert rounds > 0
