# What takes longest of the static checks.
wanted="clang++-14=clang-14 clang-tidy-14=clang-tidy-14"
setup
build clang

say "clang-tidy"
# Its counts of suppressed warnings are noise; what it finds is printed to the standard output.
sed -n 's/^  "file": "\(.*\)",\{0,1\}$/\1/p' "$folder/compile_commands.json" | sort -u |
    xargs -P "$jobs" -n 4 clang-tidy-14 -p "$folder" --quiet 2>build/tidy.log ||
    fail "clang-tidy found something (build/tidy.log has what else it said)"
