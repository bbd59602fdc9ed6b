setup
say "building for $python"
build release
start_tests
# The clusters' tests wait for their servers most of the time.
run_tests tests release -j $((jobs + 1))
finish_tests
