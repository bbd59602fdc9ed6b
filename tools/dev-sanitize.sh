. tools/suites.sh

# The sanitizer's library has to be in the process before the interpreter, which is built without it.
sanitizer_library() { c++ -print-file-name="$1"; }

sanitized_tests() {
    asan=$(sanitizer_library libasan.so)
    if [ "$asan" = libasan.so ]; then
        say "SKIPPED: the compiler has no address sanitizer library"
        return
    fi
    build asan
    suite "sanitized: C++" cpp_tests "$folder" sanitized-cpp
    # Leaks are left to the C++ tests: the interpreter itself keeps memory to its end.
    python_tests "$folder" sanitized-python LD_PRELOAD="$asan $(sanitizer_library libubsan.so)" \
        ASAN_OPTIONS=detect_leaks=0 PYTHONMALLOC=malloc
}

setup
start_suites
sanitized_tests
finish_suites
