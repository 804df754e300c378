#!/usr/bin/env bash
# Builds and runs the tests under a sanitizer preset: scripts/sanitize.sh asan|tsan
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-asan}"
scripts/setup.sh "$preset"
ctest --preset "$preset"
