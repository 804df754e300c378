#!/usr/bin/env bash
# The main job, from a fresh machine: installs what is missing and builds
# (scripts/setup.sh release), then indexes this repository with quorvi-db,
# searches the index for an identifier of the code, and prints its stats.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh release
tool=build/release/tools/quorvi-db

"$tool" index .
echo
echo "search: swap_index_from"
hits=$("$tool" search swap_index_from --limit 5)
printf '%s\n' "$hits"
if ! grep -q 'swap_index_from' <<<"$hits"; then
  echo "main.sh: the search found no line naming swap_index_from" >&2
  exit 1
fi
echo
echo "def: swap_index_from"
"$tool" def swap_index_from --limit 3
echo
"$tool" stats
