"""Holds the report of a redacted profile to the report of its original:
the same facts in the same places, and wherever a fact differs the redacted
one holds a placeholder ("REDACTED-" and hex digits) that stands for what
redaction hid. Usage: compare_reports.py ORIGINAL REDACTED [ORIGINAL REDACTED]..."""
import json
import re
import sys

from verdict import verdict

PLACEHOLDER = re.compile(r"REDACTED-[0-9A-F]{16}")


def differences(original, redacted, path="report"):
    if isinstance(original, dict) and isinstance(redacted, dict):
        found = [f"{path}: {key} is in one report only" for key in sorted(original.keys() ^ redacted.keys())]
        for key in sorted(original.keys() & redacted.keys()):
            found += differences(original[key], redacted[key], f"{path}.{key}")
        return found
    if isinstance(original, list) and isinstance(redacted, list):
        if len(original) != len(redacted):
            return [f"{path}: {len(original)} items against {len(redacted)}"]
        return [f for i, (a, b) in enumerate(zip(original, redacted)) for f in differences(a, b, f"{path}[{i}]")]
    if original == redacted or (isinstance(redacted, str) and PLACEHOLDER.search(redacted)):
        return []
    return [f"{path}: {original!r} became {redacted!r}, which is no placeholder"]


def main(paths):
    if not paths or len(paths) % 2:
        sys.exit(__doc__)
    found, hidden = [], 0
    for original_path, redacted_path in zip(paths[::2], paths[1::2]):
        original = json.load(open(original_path, encoding="utf-8"))
        text = open(redacted_path, encoding="utf-8").read()
        hidden += len(PLACEHOLDER.findall(text))
        found += [f"{redacted_path}: {d}" for d in differences(original, json.loads(text))]
    return verdict(found, f"{len(paths) // 2} redacted replays report what their originals do ({hidden} facts hidden)")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
