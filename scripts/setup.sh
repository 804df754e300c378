#!/usr/bin/env bash
# Installs the Debian packages the project needs (only those missing) and
# configures + builds one CMake preset, or only some of its targets:
#   scripts/setup.sh [PRESET [TARGET...]]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"
shift || true

packages=(cmake g++ make libsqlite3-dev nlohmann-json3-dev libspdlog-dev libfmt-dev
          googletest libgtest-dev libgmock-dev libbenchmark-dev universal-ctags)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}" >&2
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
fi

cmake --preset "$preset" >/dev/null
if [ $# -gt 0 ]; then
  cmake --build --preset "$preset" -j "$(nproc)" --target "$@"
else
  cmake --build --preset "$preset" -j "$(nproc)"
fi
