#!/usr/bin/env bash
# Latency benchmark: builds (scripts/setup.sh), runs torvex_bench.exe under
# Wine (the helper classes' two C++ boundaries side by side, then Hal API
# queries against hand-written calls), then measures the wall time of the
# whole `torvex report`, of a capture, of replays (vendor libraries
# included) and of `torvex diff`.
# Extra arguments go to torvex_bench.exe, e.g. --iterations 50 or --rounds 41.
# TORVEX_REPORT_RUNS sets how many reports are timed (default 5).
# Then the profile loader and replay on large profiles (benchmarks/make_profiles.py),
# TORVEX_PROFILE_RUNS times each (default 3).
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${TORVEX_BUILD_DIR:-$ROOT/build}
RUNS=${TORVEX_REPORT_RUNS:-5}
PROFILE_RUNS=${TORVEX_PROFILE_RUNS:-3}
for runs in "$RUNS" "$PROFILE_RUNS"; do
  case $runs in
    '' | *[!0-9]* | 0) echo "bench: TORVEX_REPORT_RUNS and TORVEX_PROFILE_RUNS must be positive numbers, not '$runs'" >&2; exit 2 ;;
  esac
done

bash "$ROOT/scripts/setup.sh"
export WINEPREFIX="$BUILD/wineprefix" WINEDEBUG=-all
if [ ! -f "$BUILD/bin/torvex_bench.exe" ]; then
  echo "bench: $BUILD/bin/torvex_bench.exe was not built (configured with TORVEX_BUILD_BENCH=OFF?)" >&2
  exit 1
fi

wine "$BUILD/bin/torvex_bench.exe" "$@"
echo

now_ms() { echo $(( $(date +%s%N) / 1000000 )); }

# Wall time of one torvex command in ms, Wine's process start included.
time_command() {
  local start end
  start=$(now_ms)
  wine "$BUILD/bin/torvex.exe" "$@" >/dev/null || { echo "bench: torvex $* failed" >&2; exit 1; }
  end=$(now_ms)
  echo $(( end - start ))
}

median() { # values...
  mapfile -t sorted < <(printf '%s\n' "$@" | sort -n)
  local n=${#sorted[@]}
  if (( n % 2 == 1 )); then echo "${sorted[n / 2]}"; else echo $(( (sorted[n / 2 - 1] + sorted[n / 2]) / 2 )); fi
}

# The first report may still pay for starting the Wine server and warming
# its caches; it is shown apart and not counted.
first=$(time_command report)

# Live report, a whole capture, and the report replayed from that capture,
# side by side in one series: each round runs the three once.
PROFILE=$(mktemp --suffix=.json)
RECORDED=$(mktemp --suffix=.json)
SHAPES=$(mktemp -d)
trap 'rm -rf "$PROFILE" "$RECORDED" "$SHAPES"' EXIT
live=() capture=() replay=()
for ((i = 0; i < RUNS; i++)); do
  live+=("$(time_command report)")
  capture+=("$(time_command capture "$(winepath -w "$PROFILE")" --force)")
  replay+=("$(time_command replay "$(winepath -w "$PROFILE")" report)")
done
live_median=$(median "${live[@]}") capture_median=$(median "${capture[@]}") replay_median=$(median "${replay[@]}")

echo "torvex report wall time over $RUNS runs: median $live_median ms (runs: ${live[*]} ms)"
echo "torvex capture wall time over $RUNS runs: median $capture_median ms (runs: ${capture[*]} ms)"
echo "torvex replay FILE report wall time over $RUNS runs: median $replay_median ms (runs: ${replay[*]} ms)"
echo "first report of this series (not counted): $first ms"
verdict() { if "$@"; then echo PASS; else echo ABOVE; fi; }
echo "goal: report < 1000 ms: $(verdict test "$live_median" -lt 1000)"
echo "goal: capture < 2000 ms: $(verdict test "$capture_median" -lt 2000)"
echo "goal: replayed report no slower than the live one: $(verdict test "$replay_median" -le "$live_median")"

# The machines of each display back end: their report replayed, and a capture
# of that replay (every answer, vendor libraries included, recorded again);
# then torvex diff of two of them (two torvex.exe processes and the comparison).
MACHINES="$ROOT/tests/machines"
for machine in amd-radeon-desktop hybrid-graphics-laptop intel-igcl-laptop; do
  file=$(winepath -w "$MACHINES/$machine.json")
  report=() recapture=()
  for ((i = 0; i < RUNS; i++)); do
    report+=("$(time_command replay "$file" report)")
    rm -f "$RECORDED"
    recapture+=("$(time_command replay "$file" capture "$(winepath -w "$RECORDED")")")
  done
  echo "$machine: replayed report median $(median "${report[@]}") ms, capture of the replay median $(median "${recapture[@]}") ms"
done
diffs=()
for ((i = 0; i < RUNS; i++)); do
  start=$(now_ms)
  status=0
  wine "$BUILD/bin/torvex.exe" diff "$(winepath -w "$MACHINES/intel-laptop.json")" \
    "$(winepath -w "$MACHINES/amd-desktop.json")" >/dev/null || status=$?
  [ "$status" = 1 ] || { echo "bench: torvex diff ended with $status, not 1" >&2; exit 1; }
  diffs+=("$(( $(now_ms) - start ))")
done
echo "torvex diff of two profiles: median $(median "${diffs[@]}") ms (runs: ${diffs[*]} ms)"

# The profile loader and replay on large profiles: loading alone (`replay FILE
# help` runs no library call) for hostile and real shapes, and the replayed
# report of growing device sets.
make_profile() { /usr/bin/python3 "$ROOT/benchmarks/make_profiles.py" "$@"; }
LAPTOP=$ROOT/tests/machines/intel-laptop.json
make_profile objects 400000 "$SHAPES/objects.json"
make_profile keys 50000 "$SHAPES/keys.json"
make_profile large 60 "$LAPTOP" "$SHAPES/large.json"
for n in 10000 20000 40000; do make_profile devices "$n" "$LAPTOP" "$SHAPES/devices-$n.json"; done
echo
time_series() { # label, torvex arguments...
  local label=$1 times=()
  shift
  for ((i = 0; i < PROFILE_RUNS; i++)); do times+=("$(time_command "$@")"); done
  echo "$label: median $(median "${times[@]}") ms (runs: ${times[*]} ms)"
}
size_mb() { echo "$(( $(stat -c %s "$1") / 1000000 )).$(( $(stat -c %s "$1") / 100000 % 10 )) MB"; }
time_series "load 400,000 empty objects ($(size_mb "$SHAPES/objects.json"))" replay "$(winepath -w "$SHAPES/objects.json")" help
time_series "load 50,000 empty registry keys ($(size_mb "$SHAPES/keys.json"))" replay "$(winepath -w "$SHAPES/keys.json")" help
time_series "load a real-shaped profile ($(size_mb "$SHAPES/large.json"))" replay "$(winepath -w "$SHAPES/large.json")" help
for n in 10000 20000 40000; do
  file=$SHAPES/devices-$n.json
  time_series "load $n devices ($(size_mb "$file"))" replay "$(winepath -w "$file")" help
  time_series "replayed report of $n devices" replay "$(winepath -w "$file")" report
done
