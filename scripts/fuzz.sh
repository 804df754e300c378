#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each one for SECONDS, starting from a
# scratch copy of its committed corpus so that the corpus in the tree does not
# grow. Prints the inputs each target ran, appends "inputs_fuzzed<TAB>N" (the
# sum) to $QUORVI_RELIABILITY_REPORT when set, and exits non-zero when any
# target found a crash or a violated property; the input that did it is kept
# in build/fuzz/artifacts/.
#
#   scripts/fuzz.sh [SECONDS]    default 10, the CI smoke run
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-10}"
case "$seconds" in
  ''|*[!0-9]*) echo "usage: scripts/fuzz.sh [SECONDS]" >&2; exit 2 ;;
esac

# clang and its fuzzer runtime are needed here only, not by the other builds.
. scripts/packages.sh
ensure_packages clang libclang-rt-14-dev

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" >&2

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
artifacts="build/fuzz/artifacts"
mkdir -p "$artifacts"

total=0
status=0
for source in tests/fuzz/*_fuzz.cpp; do
  name="$(basename "$source" .cpp)"
  corpus="$scratch/$name"
  mkdir -p "$corpus"
  if [ -d "tests/fuzz/corpus/$name" ]; then
    cp -R "tests/fuzz/corpus/$name/." "$corpus/"
  fi
  args=(-max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=2048
        -max_len=4096 -artifact_prefix="$artifacts/$name-")
  [ -f "tests/fuzz/$name.dict" ] && args+=(-dict="tests/fuzz/$name.dict")
  log="$scratch/$name.log"
  if ! "build/fuzz/tests/fuzz/$name" "${args[@]}" "$corpus" >"$log" 2>&1; then
    status=1
    echo "$name: FAILED" >&2
    grep -E 'property violated|ERROR:|SUMMARY:|Test unit written' "$log" >&2 || tail -n 30 "$log" >&2
  fi
  # libFuzzer's final statistics; "Done N runs" where they are missing.
  runs="$(awk -F': ' '/^stat::number_of_executed_units:/ { n = $2 } END { print n + 0 }' "$log")"
  if [ "$runs" -eq 0 ]; then
    runs="$(sed -n 's/^Done \([0-9][0-9]*\) runs.*/\1/p' "$log" | tail -n 1)"
    runs="${runs:-0}"
  fi
  echo "$name: $runs inputs in ${seconds} s" >&2
  total=$((total + runs))
done

echo "fuzzing: $total inputs" >&2
if [ -n "${QUORVI_RELIABILITY_REPORT:-}" ]; then
  printf 'inputs_fuzzed\t%d\n' "$total" >>"$QUORVI_RELIABILITY_REPORT"
fi
exit "$status"
