#!/usr/bin/env bash
# torvex.exe as a support engineer uses it, under Wine with no fakes: the JSON
# report is one document that matches the published schema; usage errors exit
# 1 and refusals 2, with a message on stderr and nothing on stdout.
set -uo pipefail
BIN=$1 SCHEMA=$2 MACHINES=$3 PROFILE_SCHEMA=$4
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

# Machine profiles: what Wine answers, captured and replayed, gives the same
# report; capturing the replay gives back the same profile.
P=/tmp/torvex-profile.$$
check "capture" 0 $T capture $P.json
check "replay report" 0 $T replay $P.json report --json
cmp -s /tmp/torvex-out.$$ /tmp/torvex-report.$$ || { echo "FAIL: the replayed report differs from the live one"; diff /tmp/torvex-report.$$ /tmp/torvex-out.$$ | head; fail=1; }
check "capture of a replay" 0 $T replay $P.json capture $P-again.json
cmp -s $P.json $P-again.json || { echo "FAIL: capturing the replay changed the profile"; diff $P.json $P-again.json | head; fail=1; }
check "redacted capture of a replay" 0 $T replay "$MACHINES/intel-laptop.json" capture $P-redacted.json --redact
check "replay of a redacted profile" 0 $T replay $P-redacted.json report --json
cat >$P-bad.json <<'JSON'
{"schema": "torvex-machine/1", "wmi": {"ROOT\\CIMV2": {"queries": {"Q": {"rows": [{"A": {"vt": "VT_I9"}}]}}}}}
JSON
check "a profile of the wrong shape" 1 $T replay $P-bad.json report
grep -qF "$P-bad.json: at /wmi/ROOT\\CIMV2/queries/Q/rows/0/A/vt: expected" /tmp/torvex-err.$$ && [ "$(wc -l </tmp/torvex-err.$$)" = 1 ] ||
  { echo "FAIL: the refusal does not name the file and the place in one line:"; cat /tmp/torvex-err.$$; fail=1; }
# A machine that answers nothing but a processor name in the ANSI code page:
# still one complete JSON document, valid UTF-8, that the schema admits.
cat >$P-nothing.json <<'JSON'
{"schema": "torvex-machine/1", "registry": {"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0": {"ProcessorNameString": {"sz": "Intel® Core™"}}}}
JSON
check "a machine that answers nothing" 0 $T replay $P-nothing.json report --json
cp /tmp/torvex-out.$$ "$P-report-nothing.json"
for machine in "$MACHINES"/*.json; do
  check "replay of $(basename "$machine")" 0 $T replay "$machine" report --json
  cp /tmp/torvex-out.$$ "$P-report-$(basename "$machine")"
done
/usr/bin/python3 "$HERE/check_schema.py" "$SCHEMA" "$P"-report-*.json || fail=1
/usr/bin/python3 "$HERE/check_profiles.py" "$PROFILE_SCHEMA" "$MACHINES/intel-laptop.json" $P-redacted.json \
  "$MACHINES"/*.json $P.json || fail=1
rm -f /tmp/torvex-out.$$ /tmp/torvex-err.$$ /tmp/torvex-report.$$ $P*
exit $fail
