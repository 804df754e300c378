#!/usr/bin/env bash
# The reliability suite: fault injection at every write, sync, truncate and
# open; SIGKILL crashes in the middle of swaps; several processes on one file;
# a thread stress under ThreadSanitizer; bad staging files; fuzzing of the
# parsers. Prints its figures at the end.
#
#   scripts/reliability.sh           the long run (hundreds of crashes, long stress and fuzzing)
#   scripts/reliability.sh --quick   the short run that CI does
set -euo pipefail
cd "$(dirname "$0")/.."

scale=full
fuzz_seconds=300
case "${1:-}" in
  --quick) scale=quick; fuzz_seconds=10 ;;
  ""|--full) ;;
  *) echo "usage: scripts/reliability.sh [--quick|--full]" >&2; exit 2 ;;
esac

report="$(mktemp -d)/reliability.tsv"
: >"$report"
export QUORVI_RELIABILITY_REPORT="$report"
export QUORVI_RELIABILITY_SCALE="$scale"
status=0

echo "== reliability suite ($scale): faults, crashes, processes, bad staging files" >&2
scripts/setup.sh release marsk_quorvi_reliability_tests quorvi_test_peer >&2
ctest --preset release --no-tests=error -L reliability -E 'Stress' || status=1

echo "== thread stress under ThreadSanitizer" >&2
scripts/setup.sh tsan marsk_quorvi_reliability_tests quorvi_test_peer >&2
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest --preset tsan --no-tests=error -L reliability -R 'Stress' || status=1

if [ -x scripts/fuzz.sh ]; then
  echo "== fuzzing, ${fuzz_seconds} s per target" >&2
  scripts/fuzz.sh "$fuzz_seconds" || status=1
fi

figure() {
  awk -F'\t' -v k="$1" '$1 == k { s += $2 } END { print s + 0 }' "$report"
}
lost=$(figure states_lost)
echo
echo "reliability figures ($scale)"
printf '  %-28s %s\n' \
  "fault points injected" "$(figure fault_points)" \
  "crashes survived" "$(figure crashes_survived)" \
  "processes" "$(figure processes)" \
  "generations seen" "$(figure generations_seen)" \
  "bad staging files" "$(figure bad_staging_files)" \
  "stress operations" "$(figure stress_operations)" \
  "inputs fuzzed" "$(figure inputs_fuzzed)" \
  "states checked" "$(figure states_checked)"
if [ "$status" -ne 0 ] || [ "$lost" -ne 0 ]; then
  printf '  %-28s %s\n' "states lost or corrupted" "$lost (and failures above)"
  exit 1
fi
printf '  %-28s %s\n' "states lost or corrupted" "0"
