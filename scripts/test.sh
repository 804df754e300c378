#!/usr/bin/env bash
# Builds everything and runs the test suite (GoogleTest under ctest), then the
# quick reliability suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh release
ctest --preset release --no-tests=error -LE reliability
scripts/reliability.sh --quick
