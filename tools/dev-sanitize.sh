wanted="valgrind=valgrind python3-dbg=python3-dbg"

# The sanitizers of GCC 12 cannot lay out their memory where addresses are random beyond 28 bits.
random_bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 32)
if [ "$random_bits" -gt 28 ] && [ -z "${VORDA_FIXED_ADDRESSES:-}" ] &&
    setarch "$(uname -m)" -R true 2>/dev/null; then
    export VORDA_FIXED_ADDRESSES=1
    exec setarch "$(uname -m)" -R ./dev sanitize
fi

# What the session imports besides the module: an interpreter that is not clean on this cannot be judged on more.
control="import datetime, decimal, os, tempfile"

# starts_with SANITIZER [ENV=...]...: whether a program that is built with it can run here.
starts_with() {
    probe=build/probe-$1
    echo 'int main() {}' | c++ -x c++ -fsanitize="$1" -o "$probe" - >/dev/null 2>&1 || return 1
    shift
    env "$@" "$probe" >/dev/null 2>&1
}

addresses_and_leaks() {
    if ! starts_with address,undefined ASAN_OPTIONS=detect_leaks=0; then
        skip_tests sanitized "the compiler's AddressSanitizer does not work here"
        return
    fi
    leaks=1
    if ! starts_with address,undefined; then
        skip_tests sanitized-leaks "LeakSanitizer does not work here (it traces its own process)"
        leaks=0
    fi
    # Its guess where the variables of other threads lie crashes the search for leaks.
    tls=intercept_tls_get_addr=0
    export ASAN_OPTIONS="detect_leaks=$leaks:$tls"
    build asan
    run_tests sanitized-cpp asan-cpp

    preload="$(c++ -print-file-name=libasan.so) $(c++ -print-file-name=libubsan.so)"
    if [ $leaks = 1 ] && ! LD_PRELOAD=$preload PYTHONMALLOC=malloc "$python" -c "$control"; then
        skip_tests sanitized-python-leaks "$python leaks by itself; Debian's does not"
        leaks=0
    fi
    export ASAN_OPTIONS="detect_leaks=$leaks:$tls"
    run_tests sanitized-python asan-python
    # A length that the runtime invents must not become an allocation.
    export ASAN_OPTIONS="detect_leaks=$leaks:$tls:max_allocation_size_mb=64" UBSAN_OPTIONS=halt_on_error=1
    run_tests sanitized-hostile asan-hostile
    # Drivers keep some of their memory to the end.
    export ASAN_OPTIONS=detect_leaks=0
    run_tests sanitized-servers asan-servers
    unset ASAN_OPTIONS UBSAN_OPTIONS
}

# SQLite, which is not built for it, is never seen to race; the C library's loader is.
threads() {
    if ! starts_with thread; then
        skip_tests threads "the compiler's ThreadSanitizer does not work here"
        return
    fi
    # shellcheck disable=SC2086
    build tsan embedded_tests $package_targets
    run_tests threads tsan
}

second_opinion() {
    for candidate in "$python" /usr/bin/python3; do
        if [ -x "$candidate" ] && PYTHONMALLOC=malloc valgrind --quiet --error-exitcode=99 --leak-check=full \
            --errors-for-leak-kinds=definite "$candidate" -c "$control" >build/control.log 2>&1; then
            with "$candidate"
            build release $package_targets
            run_tests valgrind valgrind
            return
        fi
        say "valgrind: $candidate is not clean itself"
    done
    skip_tests valgrind "no interpreter here is clean itself"
}

# On CPython's debug build, which counts every reference.
references() {
    if ! command -v python3-dbg >/dev/null; then
        skip_tests references "there is no python3-dbg"
        return
    fi
    with "$(command -v python3-dbg)"
    build release $package_targets vorda_scripted_runtime vorda_scripted_compat
    export PYTEST_ADDOPTS="-k 'test_references or test_reentrancy or keep_and_lose_no_reference'"
    run_tests references references
}

# with INTERPRETER: from here on.
with() {
    python=$1
    setup
}

setup
start_tests
addresses_and_leaks
threads
second_opinion
references
finish_tests
