"""Writes large machine profiles for the loader and replay timings of
scripts/bench.sh (docs/benchmark.md says what each one measures).

  make_profiles.py objects N OUT      N empty objects as the rows of one query
  make_profiles.py keys N OUT         N empty registry keys
  make_profiles.py devices N BASE OUT BASE with N more devices in the media class
  make_profiles.py large MB BASE OUT  BASE grown to about MB megabytes with devices,
                                      registry keys and WMI queries of real shape
"""
import json
import sys

MEDIA = "{4D36E96C-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT"


def empty_rows(count):
    rows = [{} for _ in range(count)]
    return {"schema": "torvex-machine/1", "wmi": {"ROOT\\CIMV2": {"queries": {"SELECT Name FROM Win32_Processor": {"rows": rows}}}}}


def empty_keys(count):
    return {"schema": "torvex-machine/1", "registry": {f"SOFTWARE\\Bench\\Key{i}": {} for i in range(count)}}


def device(i):
    """A USB-attached audio function that is no codec the library lists."""
    instance = f"USB\\VID_{0x1000 + i % 0xE000:04X}&PID_{i % 0xFFFF:04X}&MI_00\\7&{i:08X}&0&0000"
    node = {"properties": {
        "DEVPKEY_Device_DeviceDesc": {"string": f"USB Audio Device {i}"},
        "DEVPKEY_Device_HardwareIds": {"string_list": [instance.rsplit("\\", 1)[0], "USB\\Class_01&SubClass_01"]},
        "DEVPKEY_Device_Manufacturer": {"string": "(Generic USB Audio)"},
        "DEVPKEY_Device_DriverVersion": {"string": "10.0.22621.1"},
        "DEVPKEY_Device_ProblemCode": {"uint32": 0},
    }, "status": {"flags": 25174026, "problem": 0}}
    return instance, node


def add_devices(profile, count):
    devices = profile.setdefault("devices", {})
    media = devices.setdefault("sets", {}).setdefault(MEDIA, [])
    nodes = devices.setdefault("nodes", {})
    for i in range(count):
        instance, node = device(i)
        media.append(instance)
        nodes[instance] = node
    return profile


def grow(profile, megabytes):
    """Devices, registry keys and WMI queries in batches until the text is about large enough."""
    queries = profile.setdefault("wmi", {}).setdefault("ROOT\\CIMV2", {}).setdefault("queries", {})
    registry = profile.setdefault("registry", {})

    def batch(first):
        for j in range(first, first + 1000):
            add_devices_at(profile, j)
            registry[f"SYSTEM\\CurrentControlSet\\Services\\Bench{j}"] = {
                "DisplayName": {"sz": f"Bench service {j}"}, "Start": {"dword": 3}, "Type": {"dword": 1}}
            queries[f"SELECT Status FROM Win32_PnPEntity WHERE Caption='USB Audio Device {j}'"] = {"rows": [{"Status": "OK"}]}

    before = len(json.dumps(profile, indent=2))
    batch(0)
    per_batch = len(json.dumps(profile, indent=2)) - before
    for first in range(1000, 1000 * max(1, (megabytes * 1_000_000 - before) // per_batch), 1000):
        batch(first)
    return profile


def add_devices_at(profile, i):
    devices = profile.setdefault("devices", {})
    instance, node = device(i)
    devices.setdefault("sets", {}).setdefault(MEDIA, []).append(instance)
    devices.setdefault("nodes", {})[instance] = node


def main(argv):
    if len(argv) < 3:
        sys.exit(__doc__)
    kind, amount = argv[0], int(argv[1])
    if kind == "objects" and len(argv) == 3:
        profile, out = empty_rows(amount), argv[2]
    elif kind == "keys" and len(argv) == 3:
        profile, out = empty_keys(amount), argv[2]
    elif kind in ("devices", "large") and len(argv) == 4:
        base = json.load(open(argv[2], encoding="utf-8"))
        profile = add_devices(base, amount) if kind == "devices" else grow(base, amount)
        out = argv[3]
    else:
        sys.exit(__doc__)
    # The small hostile shapes are written compact, as an attacker would; the others as a capture writes them.
    compact = kind in ("objects", "keys")
    with open(out, "w", encoding="utf-8") as file:
        json.dump(profile, file, sort_keys=True, **({"separators": (",", ":")} if compact else {"indent": 2}))


if __name__ == "__main__":
    main(sys.argv[1:])
