# Every CPython that is supported and on this machine: the module is built for it and tested by it.

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
