# ./dev soak [MINUTES] [--seed N]

setup
say "building for $python"
build release $package_targets
say "soak"
PYTHONPATH=$folder/python "$python" tests/soak/soak.py "$@"
