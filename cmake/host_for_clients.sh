#!/usr/bin/env bash
# What the tests of a client driver take from this tree, built here where it is stale: host_for_clients.sh PRESET
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
# The builds of two clients would build in one folder.
mkdir -p build
exec 9> build/clients.lock
flock 9
grep -qsxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "build/$1/CMakeCache.txt" || cmake --preset "$1" --fresh
cmake --build --preset "$1" --target host zepn-play zepn-test-client
