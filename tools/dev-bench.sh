# Arguments go to bench/bench.py; behind "counts" as the first one to bench/counts.py, which counts instructions, and
# behind "growth" to bench/growth.py.
if [ "${1:-}" = counts ]; then
    shift
    wanted="valgrind=valgrind"
    setup
    has_header valgrind/callgrind.h || install_packages valgrind
    cmake_options=-DVORDA_BENCH=ON
    build release zelqa null_runtime probe
    LD_LIBRARY_PATH=$folder/null PYTHONPATH=$folder/python:$folder/null "$python" bench/counts.py "$@"
else
    program=bench/bench.py
    if [ "${1:-}" = growth ]; then
        shift
        program=bench/growth.py
    fi
    setup
    build release $package_targets
    PYTHONPATH=$folder/python "$python" $program "$@"
fi
