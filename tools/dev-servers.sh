# The suite that runs on every engine, with PostgreSQL, MariaDB and SQLite behind the ODBC driver manager, and on clusters
# of them. What cannot be installed is skipped, and said. An argument, as "cluster", chooses tests by their names.

# want PACKAGE... for FILE (a pattern): the packages, unless the file is there.
want() {
    packages=
    while [ "$1" != for ]; do packages="$packages $1"; shift; done
    # shellcheck disable=SC2086
    [ -n "$(find /usr/lib /usr/sbin /usr/bin -path "$2" 2>/dev/null | head -n 1)" ] || echo $packages
}

# Debian's postgresql makes a database cluster and starts it, which nobody asked for: not while this file is there.
no_cluster=/etc/postgresql-common/createcluster.d/vorda.conf

# get PACKAGE...: all, else what can be had of them; a failure is not the end.
get() {
    if [ "$(id -u)" != 0 ] || ! command -v apt-get >/dev/null; then
        say "NOT INSTALLED, please do it yourself: $*"
        return
    fi
    say "installing $*"
    (install_packages "$@") 2>/dev/null && return
    for package in "$@"; do (install_packages "$package") || say "CANNOT BE INSTALLED: $package"; done
}

provide_servers() {
    # shellcheck disable=SC2046
    set -- $(
        want postgresql for '/usr/lib/postgresql/*/bin/postgres'
        want odbc-postgresql for '*/odbc/psqlodbcw.so'
        # The server's program without its service.
        want mariadb-server-core mariadb-client-core for '*/mariadbd'
        # Several of it in one cluster.
        want galera-4 for '*/libgalera_smm.so'
        want rsync for '/usr/bin/rsync'
        want odbc-mariadb for '*/odbc/libmaodbc.so'
        want libsqliteodbc for '*/odbc/libsqlite3odbc.so')
    [ $# -gt 0 ] || return 0
    if [ "$(id -u)" = 0 ]; then
        mkdir -p "${no_cluster%/*}"
        echo "create_main_cluster = false" >"$no_cluster"
    fi
    get "$@"
    rm -f "$no_cluster"
}

# A bare Debian has Python without it.
provide_pip() {
    "$python" -m pip --version >/dev/null 2>&1 || ! is_debian_python || get python3-pip
}

# For the tests of both in one program.
provide_pyodbc() {
    PYTHONPATH=$pytest_folder "$python" -c 'import pyodbc' 2>/dev/null && return
    if is_debian_python; then get python3-pyodbc; return; fi
    say "providing pyodbc for $python"
    "$python" -m pip install --quiet --disable-pip-version-check --retries 0 --timeout 20 \
        --target "$pytest_folder" pyodbc 2>/dev/null || say "NO PYODBC for $python"
}

# The public suite of DB-API tests, run from its package.
provide_public_suite() {
    PYTHONPATH=$pytest_folder "$python" -c 'import dbapi20' 2>/dev/null && return
    "$python" -m pip install --quiet --disable-pip-version-check --retries 0 --timeout 20 \
        --target "$pytest_folder" dbapi-compliance 2>/dev/null || say "NO PUBLIC SUITE OF TESTS for $python"
}

# SQLAlchemy, what is used with it, and its suite for dialects, whose requirements come with the source alone.
provide_sqlalchemy() {
    if PYTHONPATH=$pytest_folder "$python" -c 'import sqlalchemy, alembic, pandas' 2>/dev/null; then :
    elif is_debian_python; then get python3-sqlalchemy python3-alembic python3-pandas; else
        say "providing SQLAlchemy for $python"
        "$python" -m pip install --quiet --disable-pip-version-check --retries 0 --timeout 20 \
            --target "$pytest_folder" 'sqlalchemy<2.1' alembic pandas 2>/dev/null || say "NO SQLALCHEMY for $python"
    fi
    version=$(PYTHONPATH=$pytest_folder "$python" -c 'import sqlalchemy; print(sqlalchemy.__version__)') || return 0
    source=$PWD/build/sqlalchemy-$version
    if [ ! -s "$source/requirements.py" ]; then
        "$python" -m pip download --quiet --disable-pip-version-check --retries 0 --timeout 20 --no-deps \
            --no-binary sqlalchemy --dest "$source" "sqlalchemy==$version" 2>/dev/null &&
            tar -xzf "$source"/*.tar.gz -O --wildcards '*/test/requirements.py' >"$source/requirements.py" ||
            { say "NO SUITE OF SQLALCHEMY for $python"; return 0; }
    fi
    export VORDA_SQLALCHEMY_SUITE="$source/requirements.py"
}

# select_tests NAME: a name that nothing bears is a mistake, not a run without a failure.
select_tests() {
    PYTHONPATH=$folder/python:$pytest_folder VORDA_BUILD=$folder "$python" -m pytest -q --collect-only \
        -p no:cacheprovider -k "$1" tests/python/servers >build/selection.log 2>&1 ||
        { tail -n 3 build/selection.log; fail "no test that can be run here has \"$1\" in its name"; }
    export PYTEST_ADDOPTS="-k '$1'"
}

setup
provide_servers
provide_pip
provide_pyodbc
provide_public_suite
provide_sqlalchemy
say "building for $python"
build release $package_targets
start_tests
[ $# = 0 ] || select_tests "$1"
# Clusters' tests wait for their servers most of the time.
run_tests servers servers -j $((jobs + 1))
finish_tests
