"""Holds machine profiles to docs/machine-profile.schema.json, and checks a
redacted capture: no serial number or unique ID of the original is left, and
each became the same placeholder wherever it stood.
Usage: check_profiles.py SCHEMA ORIGINAL REDACTED PROFILE..."""
import json
import re
import sys

from jsonschema import Draft202012Validator
from verdict import verdict

IDENTIFYING = re.compile(r"^(serialnumber|identifyingnumber|uuid|processorid)$", re.I)


def identifying_values(profile):
    """Serial numbers from WMI rows, and the unique last part of instance IDs."""
    found = set()
    for space in profile.get("wmi", {}).values():
        for answer in space.get("queries", {}).values():
            for row in answer.get("rows", []):
                found |= {v.strip() for k, v in row.items() if IDENTIFYING.match(k) and isinstance(v, str) and len(v.strip()) >= 4}
    for instance in profile.get("devices", {}).get("nodes", {}):
        if len(instance.rsplit("\\", 1)[-1]) >= 6:
            found.add(instance.rsplit("\\", 1)[-1])
    return found


def main(schema_path, original_path, redacted_path, profiles):
    validator = Draft202012Validator(json.load(open(schema_path, encoding="utf-8")))
    failures = []
    for path in profiles:
        for error in validator.iter_errors(json.load(open(path, encoding="utf-8"))):
            failures.append(f"{path}: /{'/'.join(map(str, error.absolute_path))}: {error.message}")
    original = json.load(open(original_path, encoding="utf-8"))
    text = open(redacted_path, encoding="utf-8").read()
    secrets = identifying_values(original)
    if not secrets:
        failures.append(f"{original_path} holds nothing to redact: the check would prove nothing")
    failures += [f"{redacted_path} still holds {s!r}" for s in sorted(secrets) if s.lower() in text.lower()]
    redacted = json.loads(text)
    if redacted.get("machine", {}).get("redacted") is not True:
        failures.append(f"{redacted_path} does not say it is redacted")
    # The same input gave the same placeholder: a set still names the node it named.
    before, after = original.get("devices", {}), redacted.get("devices", {})
    for key, kept in after.get("sets", {}).items():
        for position, instance in enumerate(before.get("sets", {}).get(key, [])):
            if instance in before.get("nodes", {}) and (position >= len(kept) or kept[position] not in after.get("nodes", {})):
                failures.append(f"set {key} lost its node {position} in redaction")
    return verdict(failures, f"{len(profiles)} profiles match the schema; {len(secrets)} identifying values redacted")


if __name__ == "__main__":
    if len(sys.argv) < 4:
        sys.exit("usage: check_profiles.py SCHEMA ORIGINAL REDACTED PROFILE...")
    sys.exit(main(sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]))
