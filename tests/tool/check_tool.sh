#!/usr/bin/env bash
# torvex.exe as a support engineer uses it, under Wine with no fakes: the JSON
# report parses and names every class; usage errors exit 1 with a message.
set -uo pipefail
BIN=$1
fail=0
check() { # description, expected status, command...
  local what=$1 want=$2; shift 2
  "$@" >/tmp/torvex-out.$$ 2>/tmp/torvex-err.$$
  local got=$?
  if [ "$got" != "$want" ]; then
    echo "FAIL: $what: exit $got, expected $want"; cat /tmp/torvex-err.$$; fail=1
  else
    echo "ok: $what"
  fi
}
T="wine $BIN/torvex.exe"

$T report --json >/tmp/torvex-report.$$ 2>/dev/null
python3 - /tmp/torvex-report.$$ <<'PY' || fail=1
import json, sys
report = json.load(open(sys.argv[1], encoding="utf-8"))
classes = ["wifi", "cpu", "mainboard", "memory", "battery", "disks", "gpu", "display", "audio", "drivers", "enclave"]
missing = [c for c in classes if c not in report]
assert not missing, f"classes missing from the report: {missing}"
for c in classes:
    assert isinstance(report[c].get("available"), bool), f"{c} has no availability"
print("ok: the JSON report parses and has every class")
PY
check "text report" 0 $T report
check "help" 0 $T --help
check "help of one command" 0 $T help report
check "unknown command" 1 $T frobnicate
check "unknown report option" 1 $T report --xml
check "wifi without argument" 1 $T wifi
check "firmware without command" 1 $T firmware
check "malformed firmware word" 1 $T firmware word 0xZZ
# Wine has no wireless interface, no OEM firmware method and no display back end:
# the set commands are refused by the library (exit 2) after a usage check.
check "charge-control above 100" 1 $T battery charge-control 101 80
check "charge-control refused" 2 $T battery charge-control 60 80
check "wifi switch refused" 2 $T wifi off
check "brightness above 100" 1 $T display brightness 150
check "brightness refused" 2 $T display brightness 50
check "power limit refused" 2 $T firmware pl1
check "one disk" 0 $T disk 0
check "malformed disk number" 1 $T disk x1
rm -f /tmp/torvex-out.$$ /tmp/torvex-err.$$ /tmp/torvex-report.$$
exit $fail
