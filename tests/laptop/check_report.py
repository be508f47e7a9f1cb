"""The JSON report of the faked laptop: it parses, has every class, and the
facts arrive with the types the schema documents (numbers as numbers)."""
import json
import sys

text = open(sys.argv[1], encoding="utf-8").read()
report = json.loads(text)
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


check(report.get("schema") == "torvex-report/1", "schema tag")
classes = ["wifi", "cpu", "mainboard", "memory", "battery", "disks", "gpu", "display", "audio", "drivers", "enclave"]
for name in classes:
    check(isinstance(report.get(name, {}).get("available"), bool), f"{name} present with its availability")
for name in classes[:-1]:
    check(report.get(name, {}).get("available") is True, f"{name} available on the laptop")

memory, disks, gpu = report["memory"], report["disks"], report["gpu"]
check(memory["modules"] == 2 and len(memory["items"]) == 2, "two memory modules")
check(memory["total_size"] == 16384 and all(m["size"] == 8192 for m in memory["items"]), "module sizes in MiB")
check(disks["drives"] == 2 and len(disks["items"]) == 2, "two disks")
check([d["solid_state_storage_wmi"] for d in disks["items"]] == ["yes", "no"], "SSD then hard disk")
check(gpu["adapters"] == 2 and len(gpu["items"]) == 2, "integrated and discrete GPU")
kinds = {item["kind"]: item["name"] for item in gpu["items"]}
check(kinds == {"discrete": "NVIDIA GeForce RTX 3050 Laptop GPU", "integrated": "Intel(R) Iris(R) Xe Graphics"},
      "the discrete and the integrated GPU, each named")
check(report["battery"]["present"] == "yes" and report["battery"]["wear"] == 15, "battery present, 15 % worn")
check(isinstance(report["battery"]["voltage"], (int, float)), "voltage is a number")
check(report["battery"]["discharge_rate"] is None, "an absent fact is null")
check(report["wifi"]["radio"] == "on", "Wi-Fi radio on")
check(report["audio"]["codecs"] == 1, "one audio codec")
check(report["drivers"]["items"][0]["error_code"] == 28, "problem device with its code")
check(report["mainboard"]["bios_release_date"] == "2023-04-12", "BIOS date")
check(report["enclave"]["available"] is False and "note" in report["enclave"], "enclave explains itself")

for fact in ["SAMSUNG MZVLB512HBJQ-000L7", "ST1000LM035-1RK172", "M471A1K43DB1-CWE", "LNVNB161216",
             "Realtek(R) Audio", "Unknown Sensor", "Intel(R) Wi-Fi 6 AX201 160MHz", "L20M3PF0"]:
    check(f'"{fact}"' in text, f"the report names {fact}")

for failure in failures:
    print("FAIL:", failure)
if not failures:
    print("ok: the laptop's JSON report parses and has every class")
sys.exit(1 if failures else 0)
