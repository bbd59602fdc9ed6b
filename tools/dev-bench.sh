# Arguments go to bench/bench.py; "counts" as the first one counts instructions instead, and its arguments go to
# bench/counts.py.
if [ "${1:-}" = counts ]; then
    shift
    wanted="valgrind=valgrind"
    setup
    has_header valgrind/callgrind.h || install_packages valgrind
    cmake_options=-DVORDA_BENCH=ON
    build release zelqa null_runtime probe
    LD_LIBRARY_PATH=$folder/null PYTHONPATH=$folder/python:$folder/null "$python" bench/counts.py "$@"
else
    setup
    build release $package_targets
    PYTHONPATH=$folder/python "$python" bench/bench.py "$@"
fi
