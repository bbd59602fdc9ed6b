# Arguments go to bench/bench.py; behind "counts" as the first one to bench/counts.py, which counts instructions, and
# behind "growth" to bench/growth.py.
if [ "${1:-}" = counts ]; then
    shift
    wanted="valgrind=valgrind"
    setup
    has_header valgrind/callgrind.h || install_packages valgrind
    cmake_options=-DVORDA_BENCH=ON
    build release $package_targets null_runtime probe
    LD_LIBRARY_PATH=$folder/null PYTHONPATH=$folder/python:$folder/null "$python" bench/counts.py "$@"
else
    program=bench/bench.py
    if [ "${1:-}" = growth ]; then
        shift
        program=bench/growth.py
    fi
    setup
    build release $package_targets
    # The peers that this machine lacks, where an index has them.
    peers=$PWD/build/peers-${folder##*/}
    for peer in pyodbc:pyodbc psycopg:'psycopg[binary]'; do
        PYTHONPATH=$peers "$python" -c "import ${peer%%:*}" 2>/dev/null ||
            "$python" -m pip install --quiet --disable-pip-version-check --retries 0 --timeout 20 \
                --target "$peers" "${peer#*:}" 2>/dev/null || say "NO ${peer%%:*} for $python"
    done
    PYTHONPATH=$folder/python:$peers "$python" $program "$@"
fi
