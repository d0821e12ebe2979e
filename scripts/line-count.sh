#!/usr/bin/env bash
# Counts the C++ lines of the tree by kind: tests (everything under tests/,
# support code and helper programs included), library and tools, and bench,
# fuzz, the fault explorer and examples; then the share of tests in all of
# them. The fuzzer and the explorer are programs that search for failures,
# not lists of cases: they count with the bench. A line counts
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
other=$(files | grep -E '^(bench|fuzz|explorer|examples)/' | count)
library=$(files | grep -vE '^(tests|bench|fuzz|explorer|examples)/' | count)
all=$((tests + library + other))
printf '%-34s%s\n' "tests:" "$tests" "library and tools:" "$library" \
  "bench, fuzz, explorer, examples:" "$other" "all:" "$all"
awk -v t="$tests" -v a="$all" 'BEGIN { printf "%-34s%.1f %%\n", "tests share:", a ? 100 * t / a : 0 }'
