# Replays all kept inputs, then lets each fuzzer look for new ones, two side by side.

# The sanitizers' libraries of clang have no command to look for.
rt_missing=clang-fuzzer-libraries
[ -n "$(find /usr/lib/llvm-14/lib/clang -name 'libclang_rt.fuzzer-*.a' 2>/dev/null)" ] && rt_missing=true
wanted="clang++-14=clang-14 $rt_missing=libclang-rt-14-dev"

seconds=${1:-60}
seed=${2:-}
found=$PWD/build/fuzz-found
flags="-timeout=10 -rss_limit_mb=2048 -verbosity=1 -print_final_stats=1 -dict=tests/fuzz/sql.dict"

# fuzz TARGET: one fuzzer for $seconds; what it learns stays in build/ for the next run.
fuzz() {
    mkdir -p "$found/corpus/$1"
    "$folder/tests/fuzz/fuzz_$1" $flags -max_total_time="$seconds" -artifact_prefix="$found/$1-" \
        "$found/corpus/$1" "tests/fuzz/corpus/$1"
}

# fuzz_again TARGET: the inputs that $seed leads to, the same ones on every machine. A gate should
# fail for what a change does, not for what the fuzzers happen to think of today. So neither the
# clock, nor the order of a folder, nor an address may decide.
fuzz_again() {
    rm -rf "$found/seeded/$1"
    mkdir -p "$found/seeded/$1"
    case $1 in
        numbers) rate=30000 ;;
        unicode | procedure) rate=12000 ;;
        sql) rate=4000 ;;
        *) rate=1200 ;;
    esac
    $fixed_addresses "$folder/tests/fuzz/fuzz_$1" $flags -seed="$seed" -reload=0 \
        -runs=$((seconds * rate)) -artifact_prefix="$found/$1-" \
        -seed_inputs="$(LC_ALL=C ls tests/fuzz/corpus/"$1"/* | paste -sd,)" "$found/seeded/$1"
}
fixed_addresses="setarch -R"
$fixed_addresses true 2>/dev/null || fixed_addresses=

# report TARGET: one line, or what went wrong and how to see it again.
report() {
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$found/$1.log")
    edges=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$found/$1.log" | tail -n 1)
    printf '%-12s %9s runs %6s edges\n' "$1" "${runs:--}" "${edges:--}"
    [ -e "$found/$1.passed" ] && return
    failed="$failed $1"
    grep -aE 'does not hold|^seen|^expected|ERROR|runtime error' "$found/$1.log" || tail -n 20 "$found/$1.log"
    for input in $(sed -n 's/.*Test unit written to //p' "$found/$1.log"); do
        echo "replay with: $folder/tests/fuzz/fuzz_$1 $input"
        echo "and once mended keep it in tests/fuzz/corpus/$1"
    done
}

setup
say "building the fuzzers"
build fuzz fuzzers
targets=$(cd tests/fuzz/corpus && echo *)
rm -rf "$found"/*.passed "$found"/*.log
mkdir -p "$found"
start_tests
run_tests "kept-inputs" fuzz
[ -z "$failed" ] || fail "kept inputs fail"
say "fuzzing, ${seed:+about }$seconds seconds each"
failed=
set -- $targets
while [ $# -gt 0 ]; do
    # With one core only, one at a time.
    pair=$1; shift
    if [ "$jobs" -gt 1 ] && [ $# -gt 0 ]; then pair="$pair $1"; shift; fi
    for target in $pair; do
        { "fuzz${seed:+_again}" "$target" >"$found/$target.log" 2>&1 && touch "$found/$target.passed"; } &
    done
    wait
    for target in $pair; do report "$target"; done
done
[ -z "$failed" ] || fail "found something:$failed"
