"""Want of memory, at each request in turn; see allocation_walk.py."""

import os
import subprocess
import sys

import pytest

WALK = os.path.join(os.path.dirname(__file__), "allocation_walk.py")


@pytest.mark.parametrize("failing", ["one", "rest"])
def test_want_of_memory_changes_nothing(failing):
    build, preloaded = os.environ["VORDA_BUILD"], os.environ.get("LD_PRELOAD", "")
    allocator = os.path.join(build, "faults", "libfailing_allocator.so")
    # Freed memory is overwritten, so that a use of it shows; a sanitizer sees that by itself.
    environment = dict(
        os.environ, LD_PRELOAD=(allocator + " " + preloaded).strip(), PYTHONMALLOC="malloc",
        MALLOC_PERTURB_="165", ASAN_OPTIONS="detect_leaks=0:verify_asan_link_order=0"
        ":alloc_dealloc_mismatch=0:allocator_may_return_null=1")
    done = subprocess.run([sys.executable, WALK, failing], env=environment, capture_output=True,
                          text=True)
    assert done.returncode == 0, done.stdout[-5000:] + done.stderr[-5000:]
    assert int(done.stdout.split()[-2]) >= 20
