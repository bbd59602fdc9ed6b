"""Want of memory, at each request in turn; see allocation_walk.py."""

import os
import subprocess
import sys

import pytest

WALK = os.path.join(os.path.dirname(__file__), "allocation_walk.py")
ALLOCATOR = os.path.join(os.environ.get("VORDA_BUILD", ""), "faults", "libfailing_allocator.so")


@pytest.mark.skipif(not os.path.exists(ALLOCATOR),
                    reason="the failing allocator is built for one interpreter")
@pytest.mark.skipif(sys.version_info[:2] == (3, 13),
                    reason="CPython 3.13 crashes where it has no memory for a function")
@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""),
                    reason="the sanitizer's allocator takes the requests itself")
@pytest.mark.parametrize("interface", ["zelqa", "dbapi"])
@pytest.mark.parametrize("failing", ["one", "rest"])
def test_want_of_memory_changes_nothing(failing, interface):
    # Freed memory is overwritten, so that a use of it shows.
    environment = dict(os.environ, LD_PRELOAD=ALLOCATOR, PYTHONMALLOC="malloc",
                       MALLOC_PERTURB_="165")
    done = subprocess.run([sys.executable, WALK, interface, failing], env=environment,
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stdout[-5000:] + done.stderr[-5000:]
    assert int(done.stdout.split()[-2]) >= 20
