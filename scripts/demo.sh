#!/usr/bin/env bash
# Builds the library and runs the demonstration: the library's families at
# work in a temporary directory, then processes contending for a directory
# through the korvel-lock tool.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build/normal -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/normal -j "$(nproc)"
work=$(mktemp -d /tmp/korvel_demo.XXXXXX)
trap 'rm -rf "$work"' EXIT
build/normal/examples/korvel_demo "$work"
echo
scripts/demo-contention.sh build/normal/tools/korvel-lock
