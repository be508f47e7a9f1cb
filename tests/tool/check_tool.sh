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
# Every profile of the tree replays; a torvex-machine/1 one is also written as /2 by `upgrade`, and the two
# replay to the same report (the profiles are held to the schema in their current form). Every machine is also
# captured redacted then replayed: the two reports differ only where a placeholder stands.
current=()
pairs=()
for machine in "$MACHINES"/*.json; do
  name=$(basename "$machine")
  check "replay of $name" 0 $T replay "$machine" report --json
  cp /tmp/torvex-out.$$ "$P-report-$name"
  check "redacted capture of $name" 0 $T replay "$machine" capture "$P-redacted-$name" --redact
  check "replay of redacted $name" 0 $T replay "$P-redacted-$name" report --json
  cp /tmp/torvex-out.$$ "$P-report-redacted-$name"
  pairs+=("$P-report-$name" "$P-report-redacted-$name")
  if grep -q '"schema": "torvex-machine/1"' "$machine"; then
    check "upgrade of $name" 0 $T upgrade "$machine" "$P-upgraded-$name"
    check "replay of $name upgraded" 0 $T replay "$P-upgraded-$name" report --json
    cmp -s /tmp/torvex-out.$$ "$P-report-$name" || { echo "FAIL: $name replays differently once upgraded"; fail=1; }
    current+=("$P-upgraded-$name")
  else
    current+=("$machine")
  fi
done
/usr/bin/python3 "$HERE/compare_reports.py" "${pairs[@]}" || fail=1
# Each display back end, and the enclave service beside the host, as their profiles replay them (a process each:
# the library chooses its back end once per process).
/usr/bin/python3 - "$P" <<'PY' || fail=1
import json, sys
expected = {
    "amd-radeon-desktop": {"back_end": "AMD Display Library", "colour_temperature_k": 6500, "brightness_adjustment": 0,
                           "brightness_percent": None},
    "hybrid-graphics-laptop": {"back_end": "graphics driver's COM server", "brightness_percent": 70},
    "intel-igcl-laptop": {"back_end": "Intel Graphics Control Library", "brightness_percent": None},
}
failures = []
for name, facts in expected.items():
    report = json.load(open(f"{sys.argv[1]}-report-{name}.json", encoding="utf-8"))
    display = report["display"]
    failures += [f"{name}: display {key} is {display.get(key, '(absent)')!r}, not {value!r}"
                 for key, value in facts.items() if display.get(key, "(absent)") != value]
    if not display["available"]:
        failures.append(f"{name}: display not available")
    service = "yes" if name == "intel-igcl-laptop" else "no"
    if not report["enclave"]["note"].endswith(f"Vaultrun.dll beside the host: {service})"):
        failures.append(f"{name}: enclave note {report['enclave']['note']!r}")
print("\n".join(f"FAIL: {f}" for f in failures) or "ok: every display back end and the enclave service replayed")
sys.exit(1 if failures else 0)
PY
/usr/bin/python3 "$HERE/check_real_laptop.py" "$P-report-dell-inspiron-5521.json" || fail=1
check "upgrade over an existing file" 1 $T upgrade "$MACHINES/wine.json" "$P.json"
/usr/bin/python3 "$HERE/check_schema.py" "$SCHEMA" "$P"-report-*.json || fail=1
/usr/bin/python3 "$HERE/check_profiles.py" "$PROFILE_SCHEMA" "$MACHINES/intel-laptop.json" $P-redacted.json \
  "${current[@]}" $P.json || fail=1

# torvex diff: the same machine twice, and live against its own capture, differ in nothing (exit 0); one changed
# fact is that fact (exit 1), in text and in JSON; a profile that cannot be read is trouble (exit 2).
check "diff of a profile with itself" 0 $T diff "$MACHINES/intel-laptop.json" "$MACHINES/intel-laptop.json"
tr -d '\r' </tmp/torvex-out.$$ | grep -qx "no fact differs" || { echo "FAIL: diff of a profile with itself says:"; cat /tmp/torvex-out.$$; fail=1; }
check "diff of live with its capture" 0 $T diff live $P.json
check "diff of a profile with its redacted capture" 0 $T diff "$MACHINES/intel-laptop.json" $P-redacted.json
/usr/bin/python3 - "$P.json" "$P-changed.json" <<'PY'
import json, sys
profile = json.load(open(sys.argv[1], encoding="utf-8"))
profile["wmi"]["ROOT\\CIMV2"]["queries"]["SELECT Product FROM Win32_BaseBoard"]["rows"][0]["Product"] = "Changed Board"
json.dump(profile, open(sys.argv[2], "w", encoding="utf-8"))
PY
code=0; $T diff $P.json $P-changed.json >/tmp/torvex-out.$$ 2>/tmp/torvex-err.$$ || code=$?
tr -d '\r' </tmp/torvex-out.$$ >/tmp/torvex-diff.$$
if [ "$code" != 1 ] || ! grep -qx '== mainboard ==' /tmp/torvex-diff.$$ || ! grep -q '^  board_product .*|  Changed Board$' /tmp/torvex-diff.$$ ||
   ! grep -qx "1 fact differs in 1 section" /tmp/torvex-diff.$$; then
  echo "FAIL: diff of one changed fact: exit $code"; cat /tmp/torvex-out.$$ /tmp/torvex-err.$$; fail=1
else
  echo "ok: diff of one changed fact"
fi
code=0; $T diff live $P-changed.json --json >/tmp/torvex-out.$$ 2>/tmp/torvex-err.$$ || code=$?
/usr/bin/python3 - /tmp/torvex-out.$$ "$code" <<'PY' || fail=1
import json, sys
diff = json.load(open(sys.argv[1], encoding="utf-8"))
expected = {"mainboard": [{"fact": "board_product", "a": "Base Board", "b": "Changed Board"}]}
ok = sys.argv[2] == "1" and diff["schema"] == "torvex-diff/1" and diff["differ"] is True and diff["sections"] == expected
print("ok: diff --json of one changed fact" if ok else f"FAIL: diff --json of one changed fact (exit {sys.argv[2]}): {diff}")
sys.exit(0 if ok else 1)
PY
check "diff of a profile that cannot be read" 2 $T diff $P.json $P-bad.json
check "diff without a second side" 2 $T diff $P.json
rm -f /tmp/torvex-out.$$ /tmp/torvex-err.$$ /tmp/torvex-diff.$$ /tmp/torvex-report.$$ $P*
exit $fail
