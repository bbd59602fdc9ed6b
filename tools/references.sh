# Tests on CPython's debug build, which counts every reference; for the commands in this folder, as
#     suite "references" reference_tests
# with the functions of suites.sh, and python3-dbg=python3-dbg in $wanted.

reference_tests() (
    python=$(command -v python3-dbg) || { skip_suite references "there is no python3-dbg"; return 0; }
    pytest_folder=$PWD/build/pytest-$(python_tag)
    has_pytest || provide_pytest || return 1
    # By its canonical name Debian's Python.h finds the configuration of the release build beside it.
    export CXXFLAGS=-fno-canonical-system-headers
    build release zelqa vorda_embedded vorda_embedded_compat vorda_scripted_runtime vorda_scripted_compat ||
        return 1
    PYTHONPATH="$folder/python:$pytest_folder" VORDA_BUILD="$folder" LD_LIBRARY_PATH="$folder/scripted" \
        "$python" -m pytest -q -p no:cacheprovider --junitxml "$results/references.xml" \
        tests/python/scripted/test_references.py tests/python/scripted/test_reentrancy.py
)
