#!/usr/bin/env bash
# Builds everything and runs every test under Wine.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${TORVEX_BUILD_DIR:-$ROOT/build}
bash "$ROOT/scripts/setup.sh"
export WINEPREFIX="$BUILD/wineprefix" WINEDEBUG=-all
ctest --test-dir "$BUILD" --output-on-failure --no-tests=error -j "$(nproc)"
