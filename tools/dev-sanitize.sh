wanted="valgrind=valgrind python3-dbg=python3-dbg"
. tools/suites.sh
. tools/references.sh

# The sanitizers of GCC 12 cannot lay out their memory where addresses are random beyond 28 bits.
random_bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 32)
if [ "$random_bits" -gt 28 ] && [ -z "${VORDA_FIXED_ADDRESSES:-}" ] &&
    setarch "$(uname -m)" -R true 2>/dev/null; then
    export VORDA_FIXED_ADDRESSES=1
    exec setarch "$(uname -m)" -R ./dev sanitize
fi

# What stays to a forked child's end is told to LeakSanitizer by an absolute path: tests change folders.
export LSAN_OPTIONS="print_suppressions=0:suppressions='$PWD/tests/suppressions/lsan.txt'"
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
        skip_suite sanitized "the compiler's AddressSanitizer does not work here"
        return
    fi
    leaks=1
    if ! starts_with address,undefined; then
        skip_suite sanitized-leaks "LeakSanitizer does not work here (it traces its own process)"
        leaks=0
    fi
    export ASAN_OPTIONS="detect_leaks=$leaks"
    build asan
    suite "sanitized: C++" cpp_tests "$folder" sanitized-cpp

    # The sanitizers' libraries have to be in the process before the interpreter, which is built without.
    preload="$(c++ -print-file-name=libasan.so) $(c++ -print-file-name=libubsan.so)"
    if [ $leaks = 1 ] && ! LD_PRELOAD=$preload PYTHONMALLOC=malloc "$python" -c "$control"; then
        skip_suite sanitized-python-leaks "$python leaks by itself; Debian's does not"
        leaks=0
    fi
    python_tests "$folder" sanitized-python LD_PRELOAD="$preload" PYTHONMALLOC=malloc \
        ASAN_OPTIONS="detect_leaks=$leaks"
    # Drivers keep some of their memory to the end.
    server_tests "$folder" sanitized-servers LD_PRELOAD="$preload" PYTHONMALLOC=malloc ASAN_OPTIONS=detect_leaks=0
    # A length that the runtime invents must not become an allocation.
    suite "sanitized: hostile runtime" one_case hostile hostile_seeds "$folder" 4000 \
        LD_PRELOAD="$preload" PYTHONMALLOC=malloc \
        ASAN_OPTIONS="detect_leaks=$leaks:max_allocation_size_mb=64" UBSAN_OPTIONS=halt_on_error=1
}

# No suppressions: SQLite, which is not built for it, is never seen to race.
threads() {
    if ! starts_with thread; then
        skip_suite threads "the compiler's ThreadSanitizer does not work here"
        return
    fi
    build tsan embedded_tests
    suite "ThreadSanitizer" race_tests "$folder/tests/embedded/embedded_tests"
}

race_tests() {
    "$1" --gtest_brief=1 --gtest_output=xml:"$results/threads.xml"
}

# Errors and blocks that nothing points to. No suppressions, either: the interpreter must be clean itself.
memcheck() {
    PYTHONMALLOC=malloc valgrind --quiet --error-exitcode=99 --num-callers=40 --leak-check=full \
        --show-leak-kinds=definite --errors-for-leak-kinds=definite "$@"
}

second_opinion() {
    for candidate in "$python" /usr/bin/python3; do
        if [ -x "$candidate" ] && memcheck "$candidate" -c "$control" >build/control.log 2>&1; then
            suite "valgrind, $candidate" one_case valgrind session "$candidate"
            return
        fi
        say "valgrind: $candidate is not clean itself"
    done
    skip_suite valgrind "no interpreter here is clean itself"
}

session() (
    python=$1
    python_has_headers || [ "$(id -u)" != 0 ] || install_packages python3-dev
    build release $package_targets && PYTHONPATH=$folder/python memcheck "$python" tests/python/session.py
)

setup
start_suites
addresses_and_leaks
threads
second_opinion
suite "references" reference_tests
finish_suites
