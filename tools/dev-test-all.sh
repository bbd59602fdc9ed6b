# Every CPython that is supported and on this machine: the module is built for it and tested by it.

# Prints the interpreter's version and path, or nothing where it is not one for us: a debug build or one
# without the global lock has another binary interface.
probe='
import os, sys, sysconfig
plain = not (sysconfig.get_config_var("Py_DEBUG") or sysconfig.get_config_var("Py_GIL_DISABLED"))
if sys.implementation.name == "cpython" and (3, 8) <= sys.version_info[:2] <= (3, 13) and plain:
    print("%d.%d.%d" % sys.version_info[:3], os.path.realpath(sys.executable))
'

# Those on PATH and in the usual folders, each once, by version.
interpreters() {
    { echo "$PATH" | tr : '\n'
      printf '%s\n' /usr/bin /usr/local/bin "${PYENV_ROOT:-$HOME/.pyenv}"/versions/*/bin
    } | while read -r place; do
        for candidate in "$place"/python3.[0-9] "$place"/python3.[0-9][0-9]; do
            [ ! -x "$candidate" ] || "$candidate" -c "$probe" 2>/dev/null </dev/null || true
        done
    done | sort -V -u
}

# test_with VERSION PATH
test_with() {
    python=$2
    label=python-$1
    while [ -e "$results/$label.xml" ]; do label=$label+; done
    if ! python_has_headers; then
        skip_tests "$label" "no header files (Python.h) for $python"
        return
    fi
    setup
    say "building for $python"
    # The walk through all memory requests is long, and one interpreter is enough for it.
    walk=
    [ "$version" != "$main_version" ] || walk=vorda_failing_allocator
    # shellcheck disable=SC2086
    if (build release $package_targets vorda_scripted_runtime $walk); then
        use_build release
        run_tests "$label" python
    else
        failed="$failed, $label: build"
    fi
}

# What the interpreters have in common is then compiled once.
if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then wanted="ccache=ccache"; fi
setup
main=$python
main_version=$("$main" -c 'import platform; print(platform.python_version())')
say "building for $main"
build release
start_tests
run_tests cpp cpp
interpreters >build/interpreters
[ -s build/interpreters ] || fail "no CPython 3.8 to 3.13 found"
while read -r version path; do
    test_with "$version" "$path" </dev/null
done <build/interpreters
python=$main
say "interpreters"
cat build/interpreters
finish_tests
