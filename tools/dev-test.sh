. tools/suites.sh

setup
say "building for $python"
build release
start_suites
suite "C++" cpp_tests "$folder" cpp
python_tests "$folder" python
server_tests "$folder" python-servers
finish_suites
