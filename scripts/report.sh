#!/usr/bin/env bash
# Main job: build Torvex.dll and torvex.exe (not the tests), then print
# torvex's report of this machine under Wine. Extra arguments go to the
# report, e.g. --json.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${TORVEX_BUILD_DIR:-$ROOT/build}
bash "$ROOT/scripts/setup.sh" torvex >&2
export WINEPREFIX="$BUILD/wineprefix" WINEDEBUG=-all
exec wine "$BUILD/bin/torvex.exe" report "$@"
