wanted="clang++-14=clang-14 clang-format-14=clang-format-14"
setup
say "format"
# shellcheck disable=SC2046
clang-format-14 --dry-run -Werror $(sources)
say "building with clang"
build clang
