"""A run of the driver program on seeds of its own, each a random program on a lying runtime."""

import os
import subprocess
import sys

DRIVER = os.path.join(os.path.dirname(__file__), "driver.py")
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")


def test_seeds():
    count = os.environ.get("VORDA_HOSTILE_SEEDS", "150" if SANITIZED else "500")
    run = subprocess.run([sys.executable, DRIVER, "--jobs", str(os.cpu_count()), "--count", count],
                         stdout=subprocess.PIPE, universal_newlines=True)
    assert run.returncode == 0, run.stdout
