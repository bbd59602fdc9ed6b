setup
say "building for $python"
build release
start_tests
run_tests tests release
finish_tests
