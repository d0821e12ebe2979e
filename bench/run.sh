#!/usr/bin/env bash
# Builds the library for speed in its own folder (build/bench) and prints, as
# markdown: the library against its anchors, each pair measured in the same
# run, round by round; then the system calls of one uncontended exclusive
# lock cycle against the prescribed sequence. Takes a few minutes. Reported,
# never asserted: on a shared machine expect noise and read the ranges.
#
#   bench/run.sh [RW_SECONDS [RW_RUNS]]   (read-write contention: 8 s, 3 runs)
#   KORVEL_BENCH_ONLY=threads,canonical bench/run.sh   (some rows only: exclusive,
#   rw, tool, threads, dirsize, canonical, contention)
#   KORVEL_BENCH_ONLY=contention bench/run.sh   (8 and 32 processes on one exclusive
#   lock against flock(2), the same-host dead holder, the pooled thread on one CPU
#   and on two, korvel-lock against flock(1); about a minute.
#   KORVEL_BENCH_CONTENTION_SECONDS: each contention run, 6 s;
#   KORVEL_BENCH_DEAD_HOLDER=0 skips the dead holder, which takes 15-20 s today)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test
if ! command -v strace >/dev/null; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends strace \
    || { $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive \
         $sudo apt-get install -y -qq --no-install-recommends strace; }
fi

build=build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKORVEL_BUILD_TESTS=OFF \
  -DKORVEL_BUILD_FUZZ=OFF -DKORVEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j 2 --target korvel_bench korvel-lock >/dev/null
bench="$build/bench/korvel_bench"

"$bench" table "$build/tools/korvel-lock" "${1:-8}" "${2:-3}"

# System calls per cycle: the difference between 1100 and 100 cycles, so the
# start-up and the first cycle's set-up (the refresh loop's pooled thread)
# drop out.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for kind in ours prescribed; do
  for n in 100 1100; do
    mkdir "$scratch/$kind.$n"
    strace -f -c -o "$scratch/$kind.$n.txt" "$bench" cycles "$kind" "$scratch/$kind.$n" "$n"
  done
done
echo
echo "System calls per exclusive cycle (strace -f -c; failed calls in brackets):"
echo
for f in "$scratch"/*.txt; do
  tag=$(basename "$f" .txt)
  awk -v tag="$tag" '$1 ~ /^[0-9.]+$/ && NF >= 5 && $NF != "total" {
    print tag, $NF, $4, (NF == 6 ? $5 : 0) }' "$f"
done | awk '
  { split($1, t, "."); kind = t[1]; sign = (t[2] == 1100) ? 1 : -1
    calls[kind, $2] += sign * $3; errors[kind, $2] += sign * $4; names[$2] = 1 }
  function cell(kind, name,   c, e) {
    c = calls[kind, name] / 1000; e = errors[kind, name] / 1000
    if (c < 0.005 && c > -0.005) return "0"
    return sprintf("%.2f", c) (e >= 0.005 ? sprintf(" [%.2f]", e) : "")
  }
  END {
    print "| system call | ours | prescribed |"
    print "|---|---|---|"
    n = 0
    for (name in names) list[++n] = name
    for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (list[j] < list[i]) {
      s = list[i]; list[i] = list[j]; list[j] = s }
    for (i = 1; i <= n; i++) {
      o = cell("ours", list[i]); p = cell("prescribed", list[i])
      if (o != "0" || p != "0") print "| " list[i] " | " o " | " p " |"
      to += calls["ours", list[i]]; tp += calls["prescribed", list[i]]
    }
    printf "| all | %.2f | %.2f |\n", to / 1000, tp / 1000
  }'
