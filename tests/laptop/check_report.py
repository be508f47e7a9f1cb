"""The JSON reports laptop_test leaves beside the program match docs/report.schema.json (tests/tool/check_schema.py),
and the replayed Intel laptop and AMD desktop give every value, JSON type and availability that
expected-{laptop,desktop}-report.json hold, worked out by hand from their profiles in tests/machines. Notes and
reasons are the trace's words and are not held. Usage: check_report.py SCHEMA LAPTOP_REPORT DESKTOP_REPORT"""
import json
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tool"))
from check_schema import problems  # noqa: E402

schema = json.load(open(sys.argv[1], encoding="utf-8"))
reports = [json.load(open(path, encoding="utf-8")) for path in sys.argv[2:4]]
failures = [f"{os.path.basename(path)}: {problem}" for path, report in zip(sys.argv[2:4], reports)
            for problem in problems(schema, report)]
laptop, desktop = reports


def flat(node, path=""):
    """Every value by its path ("disks.items[1].capacity_mib"), and the length of every list."""
    if isinstance(node, dict):
        return {p: v for key, value in node.items() for p, v in flat(value, f"{path}.{key}".lstrip(".")).items()}
    if isinstance(node, list):
        return {f"{path}.length": len(node), **{p: v for i, value in enumerate(node) for p, v in flat(value, f"{path}[{i}]").items()}}
    return {path: node}


# These /1 profiles record only whether the vendor display libraries and the graphics driver's server exist, so "display" is not
# available on either machine, nor is the enclave service; the desktop has no device with a problem ("drivers").
for name, report in (("laptop", laptop), ("desktop", desktop)):
    actual = flat(report)
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), f"expected-{name}-report.json"), encoding="utf-8") as f:
        for path, value in flat(json.load(f)).items():
            if path not in actual or actual[path] != value or type(actual[path]) is not type(value):
                failures.append(f"{name}: {path} is {actual.get(path, '(missing)')!r}, not {value!r}")

print("\n".join(f"FAIL: {failure}" for failure in failures) or "ok: the replayed machines' reports hold what their profiles do")
sys.exit(1 if failures else 0)
