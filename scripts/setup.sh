#!/usr/bin/env bash
# Installs the Debian packages the project needs (only those missing) and
# configures + builds one CMake preset, or only some of its targets:
#   scripts/setup.sh [PRESET [TARGET...]]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"
shift || true

packages=(cmake g++ make libsqlite3-dev nlohmann-json3-dev libspdlog-dev libfmt-dev
          googletest libgtest-dev libgmock-dev libbenchmark-dev universal-ctags pkgconf libcli11-dev
          pybind11-dev python3-dev python3-pytest)
. scripts/packages.sh
ensure_packages "${packages[@]}"

cmake --preset "$preset" >/dev/null
if [ $# -gt 0 ]; then
  cmake --build --preset "$preset" -j "$(nproc)" --target "$@"
else
  cmake --build --preset "$preset" -j "$(nproc)"
fi
