# Running suites of tests, and the summary of a whole run; for the commands in this folder.

start_suites() {
    results=$PWD/build/results; failed=
    rm -rf "$results"; mkdir -p "$results"
}

finish_suites() {
    say "summary"
    "$python" tests/summary.py "$results"
    [ -z "$failed" ] || fail "failed: ${failed#, }"
}

# Runs a suite; what fails is noted, and the next one runs all the same.
suite() {
    name=$1; shift
    say "$name"
    "$@" || failed="$failed, $name"
}

# skip_suite NAME REASON: counted in the summary, and not to be overlooked.
skip_suite() {
    say "SKIPPED: $1: $2"
    printf '<testsuite><testcase name="%s"><skipped message="%s"/></testcase></testsuite>\n' \
        "$1" "$2" >"$results/$1.xml"
}

# one_case NAME COMMAND...: a suite of one case, which passes when the command does.
one_case() {
    case_name=$1; shift
    outcome=
    "$@" || outcome="<failure/>"
    printf '<testsuite><testcase name="%s">%s</testcase></testsuite>\n' \
        "$case_name" "$outcome" >"$results/$case_name.xml"
    [ -z "$outcome" ]
}

cpp_tests() {
    ctest --test-dir "$1" --output-junit "$results/$2.xml" --output-on-failure >"build/$2.log" 2>&1 ||
        { cat "build/$2.log"; return 1; }
    tail -n 3 "build/$2.log"
}

# python_tests FOLDER NAME [ENV=...]...: both Python suites on what FOLDER holds.
python_tests() {
    built=$1; label=$2; shift 2
    suite "$label: embedded runtime" env "$@" PYTHONPATH="$built/python:$pytest_folder" \
        VORDA_BUILD="$built" "$python" -m pytest -q -p no:cacheprovider \
        --junitxml "$results/$label-embedded.xml" tests/python/embedded
    suite "$label: scripted runtime" env "$@" PYTHONPATH="$built/python:$pytest_folder" \
        VORDA_BUILD="$built" LD_LIBRARY_PATH="$built/scripted" "$python" -m pytest -q \
        -p no:cacheprovider --junitxml "$results/$label-scripted.xml" tests/python/scripted \
        tests/python/hostile
}

# server_tests FOLDER NAME [ENV=...]...: the suite for every engine, on those that are on this machine; it says which
# are not.
server_tests() {
    built=$1; label=$2; shift 2
    suite "$label: every engine" env "$@" PYTHONPATH="$built/python:$pytest_folder" "$python" -m pytest -q -rs \
        -p no:cacheprovider --junitxml "$results/$label.xml" tests/python/servers
}

# hostile_seeds FOLDER COUNT [ENV=...]...: random programs on the scripted runtime that answers from seeds.
hostile_seeds() {
    built=$1; count=$2; shift 2
    env "$@" PYTHONPATH="$built/python" VORDA_BUILD="$built" LD_LIBRARY_PATH="$built/scripted" \
        "$python" tests/python/hostile/driver.py --first 1000 --count "$count" --jobs "$jobs"
}
