# Arguments go to bench/bench.py; behind "counts" as the first one to bench/counts.py, which counts instructions, and
# behind "growth", "shell", "frames", "load" or "--cluster" to the program of that name, with the peers that an index has.
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
    wanted_peers="pyodbc:pyodbc psycopg:psycopg[binary]"
    case "${1:-}" in growth|shell|frames|load|--cluster)
        program=bench/${1#--}.py
        case "$1" in
        frames)
            wanted_peers="pyarrow:pyarrow pandas:pandas adbc_driver_sqlite:adbc-driver-sqlite
                adbc_driver_postgresql:adbc-driver-postgresql arrow_odbc:arrow-odbc" ;;
        --cluster) wanted_peers="pyodbc:pyodbc pymysql:pymysql" ;;
        esac
        shift
    esac
    setup
    build release $package_targets
    # The peers that this machine lacks, where an index has them.
    peers=$PWD/build/peers-${folder##*/}
    for peer in $wanted_peers; do
        PYTHONPATH=$peers "$python" -c "import ${peer%%:*}" 2>/dev/null ||
            "$python" -m pip install --quiet --disable-pip-version-check --retries 0 --timeout 20 \
                --target "$peers" "${peer#*:}" 2>/dev/null || say "NO ${peer%%:*} for $python"
    done
    PYTHONPATH=$folder/python:$peers "$python" $program "$@"
fi
