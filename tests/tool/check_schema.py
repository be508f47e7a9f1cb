"""Holds torvex report --json documents to docs/report.schema.json: the schema
admits no key it does not describe, each document validates, and every null
fact has its reason while no reason stands for a fact that has a value.
Usage: check_schema.py SCHEMA REPORT..."""
import json
import sys

from jsonschema import Draft202012Validator
from verdict import verdict


def loose_objects(schema, path="#"):
    """Object schemas that describe properties but let other keys through."""
    found = []
    if isinstance(schema, dict):
        if "properties" in schema and schema.get("additionalProperties") is not False:
            found.append(f"{path} admits keys it does not describe")
        for key, value in schema.items():
            if key != "if":  # the availability test only looks at one key
                found += loose_objects(value, f"{path}/{key}")
    elif isinstance(schema, list):
        for i, value in enumerate(schema):
            found += loose_objects(value, f"{path}/{i}")
    return found


def reason_problems(node, path="report"):
    found = []
    if isinstance(node, dict):
        reasons = node.get("reasons") if isinstance(node.get("reasons"), dict) else {}
        nulls = {key for key, value in node.items() if value is None}
        found += [f"{path}.{key} is null without a reason" for key in sorted(nulls - reasons.keys())]
        found += [f"{path}.reasons.{key} but {key} is not null" for key in sorted(reasons.keys() - nulls)]
        for key, value in node.items():
            if key != "reasons":
                found += reason_problems(value, f"{path}.{key}")
    elif isinstance(node, list):
        for i, value in enumerate(node):
            found += reason_problems(value, f"{path}[{i}]")
    return found


def problems(schema, report):
    validator = Draft202012Validator(schema)
    found = [f"{'/'.join(map(str, e.absolute_path)) or '(document)'}: {e.message}"
             for e in validator.iter_errors(report)]
    return found + reason_problems(report)


def main(schema_path, report_paths):
    schema = json.load(open(schema_path, encoding="utf-8"))
    Draft202012Validator.check_schema(schema)
    found = loose_objects(schema)
    for path in report_paths:
        try:
            report = json.load(open(path, encoding="utf-8"))  # exactly one document, nothing after it
        except ValueError as error:
            found.append(f"{path}: not one JSON document: {error}")
            continue
        found += [f"{path}: {problem}" for problem in problems(schema, report)]
    return verdict(found, f"{len(report_paths)} report(s) match {schema_path}")


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit("usage: check_schema.py SCHEMA REPORT...")
    sys.exit(main(sys.argv[1], sys.argv[2:]))
