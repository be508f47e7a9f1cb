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
# Every word and range is checked before the back end is opened, so these are
# usage errors even where no back end exists.
check "unknown display word" 1 $T display bogus
check "brightness of 101" 1 $T display brightness 101
check "two gains of three" 1 $T display gains 1 2
check "temperature range beyond 32 bits" 1 $T display temperature 10 4294967296
check "firmware packet of no hex" 1 $T firmware packet ZZ
check "empty firmware packet" 1 $T firmware packet ""
check "firmware packet of 200 digits" 1 $T firmware packet "$(printf '1%.0s' $(seq 200))"
check "help with an extra word" 1 $T help report extra
check "a firmware read with an extra word" 1 $T firmware pl1 extra
check "a WMI query that answers nothing" 2 $T wmi 'ROOT\CIMV2' "SELECT Name FROM Win32_NoSuchClass" Name
grep -q 'no rows' /tmp/torvex-err.$$ || { echo "FAIL: the failing query does not say why:"; cat /tmp/torvex-err.$$; fail=1; }
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
check "capture over the replayed profile" 1 $T replay $P.json capture $P.json --force
check "capture over an existing file" 1 $T capture $P-again.json
cmp -s $P.json $P-again.json || { echo "FAIL: a refused capture wrote its file"; fail=1; }
check "capture over an existing file with --force" 0 $T replay $P.json capture $P-again.json --force
check "redacted capture of a replay" 0 $T replay "$MACHINES/intel-laptop.json" capture $P-redacted.json --redact
check "replay of a redacted profile" 0 $T replay $P-redacted.json report --json
cat >$P-bad.json <<'JSON'
{"schema": "torvex-machine/1", "wmi": {"ROOT\\CIMV2": {"queries": {"Q": {"rows": [{"A": {"vt": "VT_I9"}}]}}}}}
JSON
check "a profile of the wrong shape" 1 $T replay $P-bad.json report
grep -qF "$P-bad.json: at /wmi/ROOT\\CIMV2/queries/Q/rows/0/A/vt: expected" /tmp/torvex-err.$$ && [ "$(wc -l </tmp/torvex-err.$$)" = 1 ] ||
  { echo "FAIL: the refusal does not name the file and the place in one line:"; cat /tmp/torvex-err.$$; fail=1; }
# Hostile profiles: each refused in one printable line naming the place.
hostile() { # description, expected text, profile
  printf '%s' "$3" >$P-hostile.json
  check "$1" 1 $T replay $P-hostile.json report
  { grep -qF -- "$2" /tmp/torvex-err.$$ && [ "$(tr -d '\r' </tmp/torvex-err.$$ | wc -l)" = 1 ] &&
    ! tr -d '\r\n' </tmp/torvex-err.$$ | grep -q '[[:cntrl:]]'; } ||
    { echo "FAIL: $1: not one printable line holding '$2':"; cat -A /tmp/torvex-err.$$; fail=1; }
}
hostile "a number out of range" "line 1, column 70: the number 1e400 is out of range" \
  '{"schema": "torvex-machine/1", "audio": {"render": {"volume_scalar": 1e400}}}'
hostile "a member named twice" "at /schema: expected each member name once" '{"schema": "evil", "schema": "torvex-machine/1"}'
hostile "a member name holding NUL" 'at /registry/K\u0000x: expected a member name without control characters' \
  '{"schema": "torvex-machine/1", "registry": {"K\u0000x": null}}'
hostile "a member name holding ESC" 'at /registry/\u001B[31mred: expected a member name without control characters' \
  '{"schema": "torvex-machine/1", "registry": {"\u001b[31mred": null}}'
hostile "an IOCTL key of no hex" 'ioctls/0xZZZZZZZZ: expected an answer named by a known IOCTL_ name' \
  '{"schema": "torvex-machine/1", "files": {"paths": {"D": {"ioctls": {"0xZZZZZZZZ": {"out": "00"}}}}}}'
# A machine that answers nothing but a processor name in the ANSI code page:
# still one complete JSON document, valid UTF-8, that the schema admits.
cat >$P-nothing.json <<'JSON'
{"schema": "torvex-machine/1", "registry": {"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0": {"ProcessorNameString": {"sz": "Intel® Core™"}}}}
JSON
check "a machine that answers nothing" 0 $T replay $P-nothing.json report --json
cp /tmp/torvex-out.$$ "$P-report-nothing.json"
# Every machine, replayed, and captured redacted then replayed: the two
# reports differ only where a placeholder stands.
pairs=()
for machine in "$MACHINES"/*.json; do
  name=$(basename "$machine")
  check "replay of $name" 0 $T replay "$machine" report --json
  cp /tmp/torvex-out.$$ "$P-report-$name"
  check "redacted capture of $name" 0 $T replay "$machine" capture "$P-redacted-$name" --redact
  check "replay of redacted $name" 0 $T replay "$P-redacted-$name" report --json
  cp /tmp/torvex-out.$$ "$P-report-redacted-$name"
  pairs+=("$P-report-$name" "$P-report-redacted-$name")
done
/usr/bin/python3 "$HERE/compare_reports.py" "${pairs[@]}" || fail=1
/usr/bin/python3 "$HERE/check_schema.py" "$SCHEMA" "$P"-report-*.json || fail=1
/usr/bin/python3 "$HERE/check_profiles.py" "$PROFILE_SCHEMA" "$MACHINES/intel-laptop.json" $P-redacted.json \
  "$MACHINES"/*.json $P.json || fail=1
rm -f /tmp/torvex-out.$$ /tmp/torvex-err.$$ /tmp/torvex-report.$$ $P*
exit $fail
