#!/usr/bin/env bash
# Old and new lock code exclude each other: lock_child built from a commit
# that predates lock-file ownership and leases runs against the current one,
# two processes of each, on the exclusive lock and on the read-write lock.
#   tests/interop/run.sh NEW_LOCK_CHILD [SCRATCH]
# Builds the old lock_child from git history (commit below) in SCRATCH.
set -euo pipefail
old_commit=fcfebeb   # the lock code as it was before holders tracked their files
new_child=$(realpath "$1")
cd "$(dirname "$0")/../.."
scratch=${2:-build/interop}
rounds=200

if ! git cat-file -e "${old_commit}^{commit}" 2>/dev/null; then
  echo "interop: skipped, commit ${old_commit} is not in this clone's history"
  exit 0
fi
mkdir -p "$scratch"
scratch=$(realpath "$scratch")
if [ ! -x "$scratch/old-build/tests/lock_child" ]; then
  rm -rf "$scratch/old-src"
  mkdir -p "$scratch/old-src"
  git archive "$old_commit" | tar -x -C "$scratch/old-src"
  cmake -S "$scratch/old-src" -B "$scratch/old-build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKORVEL_BUILD_BENCH=OFF -DKORVEL_BUILD_EXAMPLES=OFF -DKORVEL_BUILD_FUZZ=OFF >/dev/null
  cmake --build "$scratch/old-build" --target lock_child >/dev/null
fi
old_child=$scratch/old-build/tests/lock_child

run=$(mktemp -d "$scratch/run.XXXXXX")
trap 'rm -rf "$run"' EXIT
mkdir -p "$run/excl" "$run/rw" "$run/work"
status=0
pids=()
for child in "$old_child" "$new_child" "$old_child" "$new_child"; do
  "$child" count "$run/excl" "$rounds" >/dev/null & pids+=($!)  # the new one lists its holds
done
for i in 0 1 2 3; do
  child=$([ $((i % 2)) -eq 0 ] && echo "$old_child" || echo "$new_child")
  "$child" rw-mix "$run/rw" "$run/work" "$rounds" $((i + 1)) >"$run/mix.$i" & pids+=($!)
done
for pid in "${pids[@]}"; do
  wait "$pid" || { echo "interop: a process saw overlaps or failed (status $?)"; status=1; }
done

writes=0
for i in 0 1 2 3; do
  w=$(sed -n 's/^writes \([0-9]*\) reads.*/\1/p' "$run/mix.$i")
  writes=$((writes + ${w:-0}))
done
count=$(cat "$run/excl/counter")
counted=$(cat "$run/work/counter")
left=$(find "$run/excl" "$run/rw" -name '.deploy_*' | wc -l)
echo "interop: exclusive ${count} of $((4 * rounds)) holds counted; read-write $((4 * rounds))" \
  "acquisitions, ${counted} of ${writes} writes counted; ${left} lock files left"
[ "$count" -eq $((4 * rounds)) ] && [ "$counted" -eq "$writes" ] && [ "$left" -eq 0 ] || status=1
[ "$status" -eq 0 ] && echo "interop: old (${old_commit}) and new lock code excluded each other"
exit "$status"
