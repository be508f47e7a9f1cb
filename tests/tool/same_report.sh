#!/usr/bin/env bash
# Developer check (not run by CI): two builds of torvex.exe and Torvex.dll give the same bytes. Compares, between
# BEFORE and AFTER, the DLL's exported and imported names, the live report on Wine (JSON and text), the list of every
# system call the live report made (`torvex trace report`), and the report (JSON and text) replayed over every
# profile of MACHINES. Prints one line per comparison and the first lines of each difference; exits 1 when anything
# differs.
#   same_report.sh BEFORE_BIN AFTER_BIN [MACHINES]     (WINEPREFIX as for the tests)
set -uo pipefail
BEFORE=$1 AFTER=$2
MACHINES=${3:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../machines" && pwd)}
export WINEDEBUG=-all
OUT=$(mktemp -d)
trap 'rm -rf "$OUT"' EXIT
same=0 differ=0
compare() { # name, torvex arguments...
  local name=$1; shift
  for side in BEFORE AFTER; do
    wine "${!side}/torvex.exe" "$@" >"$OUT/$side.out" 2>"$OUT/$side.err"
    echo "exit $?" >>"$OUT/$side.out"
  done
  # the trace goes to standard error; other commands leave it empty
  if cmp -s "$OUT/BEFORE.out" "$OUT/AFTER.out" && cmp -s "$OUT/BEFORE.err" "$OUT/AFTER.err"; then
    echo "same:    $name ($(wc -c <"$OUT/AFTER.out") bytes)"; same=$((same + 1))
  else
    echo "DIFFERS: $name"; differ=$((differ + 1))
    diff "$OUT/BEFORE.out" "$OUT/AFTER.out" | head -20
    diff "$OUT/BEFORE.err" "$OUT/AFTER.err" | head -20
  fi
}
names() { # the DLL's export table by ordinal and name, then every imported function by DLL
  x86_64-w64-mingw32-objdump -p "$1/Torvex.dll" |
    awk '/Ordinal\/Name Pointer/ { exports = 1 } /^$/ { exports = 0 } exports || /DLL Name/ { print; next }
         /^\t[0-9a-f]+\t +[0-9]+  [A-Za-z_]/ { print "  " $3 }'
}
if cmp -s <(names "$BEFORE") <(names "$AFTER"); then
  echo "same:    exported and imported names ($(names "$AFTER" | wc -l) lines)"; same=$((same + 1))
else
  echo "DIFFERS: exported and imported names"; differ=$((differ + 1)); diff <(names "$BEFORE") <(names "$AFTER") | head -20
fi
compare "live report --json" report --json
compare "live report" report
compare "live trace report --json" trace report --json
for machine in "$MACHINES"/*.json; do
  compare "replay $(basename "$machine") report --json" replay "$machine" report --json
  compare "replay $(basename "$machine") report" replay "$machine" report
done
echo "$same identical, $differ different"
[ "$differ" = 0 ]
