wanted="clang++-14=clang-14 clang-format-14=clang-format-14 clang-tidy-14=clang-tidy-14 cppcheck=cppcheck shellcheck=shellcheck flake8=flake8"
setup

say "format"
# shellcheck disable=SC2046
clang-format-14 --dry-run -Werror $(sources)

say "Python"
flake8 bench examples python tests tools

say "includes"
"$python" tools/includes.py

say "shell scripts"
# Not: variables that one file sets and another reads, and files that are found when they run.
shellcheck -s sh -S warning -e SC2034,SC2154,SC1090,SC1091 dev tools/*.sh .ci/run

say "cppcheck"
cppcheck --quiet -j "$jobs" --std=c++20 --enable=warning,performance,portability \
    --error-exitcode=1 --suppressions-list=tests/suppressions/cppcheck.txt \
    --template='{file}:{line}: {id}: {message}' -I src -I embedded src embedded

# Warnings are errors in both builds.
say "building with GCC"
build release
say "reference"
PYTHONPATH=$folder/python "$python" tools/reference.py --check
say "building with clang"
build clang

say "clang-tidy"
# Its counts of suppressed warnings are noise; what it finds is printed to the standard output.
sed -n 's/^  "file": "\(.*\)",\{0,1\}$/\1/p' "$folder/compile_commands.json" | sort -u |
    grep -v /tests/ |
    xargs -P "$jobs" -n 4 clang-tidy-14 -p "$folder" --quiet 2>build/tidy.log ||
    fail "clang-tidy found something (build/tidy.log has what else it said)"
