#!/usr/bin/env bash
# Latency benchmark: builds (scripts/setup.sh), runs torvex_bench.exe under
# Wine, then measures the wall time of the whole `torvex report`.
# Extra arguments go to torvex_bench.exe, e.g. --iterations 50.
# TORVEX_REPORT_RUNS sets how many reports are timed (default 5).
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${TORVEX_BUILD_DIR:-$ROOT/build}
RUNS=${TORVEX_REPORT_RUNS:-5}
case $RUNS in
  '' | *[!0-9]* | 0) echo "bench: TORVEX_REPORT_RUNS must be a positive number, not '$RUNS'" >&2; exit 2 ;;
esac

bash "$ROOT/scripts/setup.sh"
export WINEPREFIX="$BUILD/wineprefix" WINEDEBUG=-all
if [ ! -f "$BUILD/bin/torvex_bench.exe" ]; then
  echo "bench: $BUILD/bin/torvex_bench.exe was not built (configured with TORVEX_BUILD_BENCH=OFF?)" >&2
  exit 1
fi

wine "$BUILD/bin/torvex_bench.exe" "$@"
echo

now_ms() { echo $(( $(date +%s%N) / 1000000 )); }

# Wall time of one report in ms, Wine's process start included.
time_report() {
  local start end
  start=$(now_ms)
  wine "$BUILD/bin/torvex.exe" report >/dev/null || { echo "bench: torvex report failed" >&2; exit 1; }
  end=$(now_ms)
  echo $(( end - start ))
}

# The first report may still pay for starting the Wine server and warming
# its caches; it is shown apart and not counted.
first=$(time_report)

times=()
for ((i = 0; i < RUNS; i++)); do times+=("$(time_report)"); done
mapfile -t sorted < <(printf '%s\n' "${times[@]}" | sort -n)
n=${#sorted[@]}
if (( n % 2 == 1 )); then median=${sorted[n / 2]}; else median=$(( (sorted[n / 2 - 1] + sorted[n / 2]) / 2 )); fi

echo "torvex report wall time over $RUNS runs: median $median ms, min ${sorted[0]} ms (runs: ${times[*]} ms)"
echo "first report of this series (not counted): $first ms"
if (( median < 1000 )); then verdict=PASS; else verdict=ABOVE; fi
echo "goal: report < 1000 ms: $verdict"
