#!/usr/bin/env bash
# Builds the library and runs the demonstration: the library's families at
# work in a temporary directory, then processes contending for a directory
# through the korvel-lock tool.
set -euo pipefail
cd "$(dirname "$0")/.."
# Only what it builds and runs with: the tests' packages are test.sh's.
scripts/install-deps.sh
cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVEL_BUILD_TESTS=OFF \
  -DKORVEL_BUILD_BENCH=OFF -DKORVEL_BUILD_FUZZ=OFF >/dev/null
cmake --build build/demo -j "$(nproc)"
work=$(mktemp -d /tmp/korvel_demo.XXXXXX)
trap 'rm -rf "$work"' EXIT
build/demo/examples/korvel_demo "$work"
echo
scripts/demo-contention.sh build/demo/tools/korvel-lock
