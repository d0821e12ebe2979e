#!/usr/bin/env bash
# Counts the C++ lines of the tree by kind: tests (everything under tests/,
# support code and helper programs included), library and tools, and bench,
# fuzz and examples; then the share of tests in all of them. A line counts
# when it is not blank and not only a // comment. Files are *.cpp, *.h and
# *.hpp known to git, untracked new files included (ignored ones are not).
#   scripts/line-count.sh            the figures
#   scripts/line-count.sh tests/ipc  one folder, for a quick look
set -euo pipefail
cd "$(dirname "$0")/.."

files() {
  git ls-files --cached --others --exclude-standard -- "$@" | grep -E '\.(cpp|h|hpp)$' |
    sort -u | while read -r f; do if [ -f "$f" ]; then printf '%s\n' "$f"; fi; done
}

# Lines of the files named on standard input.
count() {
  local total=0 n f
  while read -r f; do
    n=$(grep -cvE '^[[:space:]]*(//.*)?$' "$f" || true)
    total=$((total + n))
  done
  echo "$total"
}

if [ $# -gt 0 ]; then
  files "$@" | count
  exit 0
fi

tests=$(files | grep -E '^tests/' | count)
other=$(files | grep -E '^(bench|fuzz|examples)/' | count)
library=$(files | grep -vE '^(tests|bench|fuzz|examples)/' | count)
all=$((tests + library + other))
echo "tests:                  $tests"
echo "library and tools:      $library"
echo "bench, fuzz, examples:  $other"
echo "all:                    $all"
awk -v t="$tests" -v a="$all" 'BEGIN { printf "tests share:            %.1f %%\n", a ? 100 * t / a : 0 }'
