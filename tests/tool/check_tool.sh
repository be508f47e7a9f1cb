#!/usr/bin/env bash
# torvex.exe as a support engineer uses it, under Wine with no fakes: the JSON
# report is one document that matches the published schema; usage errors exit
# 1 and refusals 2, with a message on stderr and nothing on stdout.
set -uo pipefail
BIN=$1 SCHEMA=$2
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
fail=0
check() { # description, expected status, command...
  local what=$1 want=$2; shift 2
  "$@" >/tmp/torvex-out.$$ 2>/tmp/torvex-err.$$
  local got=$?
  if [ "$got" != "$want" ]; then
    echo "FAIL: $what: exit $got, expected $want"; cat /tmp/torvex-err.$$; fail=1
  elif [ "$want" != 0 ] && { [ -s /tmp/torvex-out.$$ ] || [ ! -s /tmp/torvex-err.$$ ]; }; then
    echo "FAIL: $what: exit $got, but the message is not on stderr alone"; fail=1
  else
    echo "ok: $what"
  fi
}
T="wine $BIN/torvex.exe"

check "JSON report" 0 $T report --json
cp /tmp/torvex-out.$$ /tmp/torvex-report.$$
/usr/bin/python3 "$HERE/check_schema.py" "$SCHEMA" /tmp/torvex-report.$$ || fail=1
check "text report" 0 $T report
check "help" 0 $T --help
check "help of one command" 0 $T help report
check "unknown command" 1 $T frobnicate
check "unknown report option" 1 $T report --json --xml
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
