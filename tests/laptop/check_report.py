"""The JSON reports laptop_test leaves behind: each matches docs/report.schema.json
(see tests/tool/check_schema.py); the faked laptop's names what the laptop has,
with numbers as numbers in the units their keys name; over a library that
refuses everything nothing is made up; invalid UTF-8 arrives as U+FFFD.
Usage: check_report.py SCHEMA LAPTOP_REPORT REFUSING_REPORT GARBAGE_REPORT"""
import json
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tool"))
from check_schema import problems  # noqa: E402

schema_path, laptop_path, refusing_path, garbage_path = sys.argv[1:5]
schema = json.load(open(schema_path, encoding="utf-8"))
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


reports = {}
for path in (laptop_path, refusing_path, garbage_path):
    reports[path] = json.load(open(path, encoding="utf-8"))
    failures += [f"{os.path.basename(path)}: {problem}" for problem in problems(schema, reports[path])]
report, refusing, garbage = reports[laptop_path], reports[refusing_path], reports[garbage_path]
text = open(laptop_path, encoding="utf-8").read()

classes = ["wifi", "cpu", "mainboard", "memory", "battery", "disks", "gpu", "display", "audio", "drivers"]
for name in classes:
    check(report.get(name, {}).get("available") is True, f"{name} available on the laptop")

memory, disks, gpu, battery = report["memory"], report["disks"], report["gpu"], report["battery"]
check(memory["modules"] == 2 and len(memory["items"]) == 2, "two memory modules")
check(memory["total_size_mib"] == 16384 and all(m["size_mib"] == 8192 for m in memory["items"]),
      "module sizes in MiB")
check(all(m["clock_mhz"] == 3200 for m in memory["items"]), "module clocks in MHz")
check(disks["drives"] == 2 and len(disks["items"]) == 2, "two disks")
check([d["solid_state_storage_wmi"] for d in disks["items"]] == ["yes", "no"], "SSD then hard disk")
for disk in disks["items"]:
    if disk["capacity_mib"] is not None:  # the three capacities name their units rightly
        check(abs(disk["capacity_mb"] - disk["capacity_mib"] * 1.048576) < 1, "capacity in MB and in MiB agree")
        check(disk["capacity_gb"] == disk["capacity_mb"] // 1000, "capacity in GB and in MB agree")
check(gpu["adapters"] == 2 and len(gpu["items"]) == 2, "integrated and discrete GPU")
kinds = {item["kind"]: item["name"] for item in gpu["items"]}
check(kinds == {"discrete": "NVIDIA GeForce RTX 3050 Laptop GPU", "integrated": "Intel(R) Iris(R) Xe Graphics"},
      "the discrete and the integrated GPU, each named")
check(battery["present"] == "yes" and battery["wear_percent"] == 15, "battery present, 15 % worn")
check(battery["full_charged_capacity_mwh"] == 42500 and battery["voltage_mv"] == 12600, "battery in mWh and mV")
check(battery["discharge_rate_mw"] is None and battery["reasons"]["discharge_rate_mw"], "on AC, no discharge rate")
check(report["wifi"]["radio"] == "on", "Wi-Fi radio on")
check(report["audio"]["codecs"] == 1, "one audio codec")
check(report["drivers"]["items"][0]["error_code"] == 28, "problem device with its code")
check(report["mainboard"]["bios_release_date"] == "2023-04-12", "BIOS date")
check(report["enclave"]["available"] is False and "note" in report["enclave"], "enclave explains itself")
for fact in ["SAMSUNG MZVLB512HBJQ-000L7", "ST1000LM035-1RK172", "M471A1K43DB1-CWE", "LNVNB161216",
             "Realtek(R) Audio", "Unknown Sensor", "Intel(R) Wi-Fi 6 AX201 160MHz", "L20M3PF0"]:
    check(f'"{fact}"' in text, f"the report names {fact}")


def numbers(node):
    if isinstance(node, dict):
        return [n for value in node.values() for n in numbers(value)]
    if isinstance(node, list):
        return [n for value in node for n in numbers(value)]
    return [node] if isinstance(node, (int, float)) and not isinstance(node, bool) else []


check(numbers(refusing) == [], "a library that answers nothing gives no number")
check(sorted(c for c in classes if refusing[c]["available"]) == ["battery", "mainboard"],
      "a library that answers nothing: only battery and mainboard, which do not need HalInit, stay available")
check("\ufffd" in garbage["battery"]["manufacturer"], "invalid UTF-8 becomes U+FFFD")
check(garbage["battery"]["oem_reading"] is None, "a NaN reading is null")

for failure in failures:
    print("FAIL:", failure)
if not failures:
    print("ok: the laptop's JSON reports match the schema and name what the laptop has")
sys.exit(1 if failures else 0)
