"""The replayed report of tests/machines/dell-inspiron-5521.json, a profile written by hand from a real laptop's
public dumps, holds every fact those dumps give, each worked out from its line in the dump.
Usage: check_real_laptop.py REPORT"""
import json
import sys

from verdict import verdict

DXDIAG = "DxDiag"  # the Windows side, from the DxDiag report
SMBIOS = "SMBIOS"  # the firmware side, from the dmidecode output of the probe

# (path in the report, value, where it comes from)
FACTS = [
    ("cpu.name", "Intel(R) Core(TM) i5-3337U CPU @ 1.80GHz", SMBIOS + " type 4 Version"),
    ("cpu.vendor_identifier", "GenuineIntel", SMBIOS + " type 4 Manufacturer Intel"),
    ("cpu.cores", 2, SMBIOS + " type 4 Core Count"),
    ("cpu.logical_processors", 4, SMBIOS + " type 4 Thread Count"),
    ("cpu.current_clock_mhz", 1800, SMBIOS + " type 4 Current Speed"),
    ("cpu.maximum_clock_mhz", 1800, "the nominal speed in the name (type 4's Max Speed 4000 is the socket's)"),
    ("cpu.external_clock_mhz", 100, SMBIOS + " type 4 External Clock"),
    ("cpu.l3_size_kb", 64, SMBIOS + " two type 7 Level 1 entries of 32 kB: WMI level 3, summed"),
    ("cpu.l4_size_kb", 256, SMBIOS + " type 7 Level 2, 256 kB: WMI level 4"),
    ("cpu.l5_size_kb", 3072, SMBIOS + " type 7 Level 3, 3 MB: WMI level 5"),
    ("cpu.l3_associativity", "8-way", SMBIOS + " type 7 Level 1, 8-way set-associative (CIM 7)"),
    ("cpu.l4_associativity", "8-way", SMBIOS + " type 7 Level 2, 8-way set-associative (CIM 7)"),
    ("cpu.l5_associativity", "Unknown ", SMBIOS + " type 7 Level 3, 12-way (CIM 9), outside the library's table"),
    ("cpu.vendor_class", "Intel", "the name begins with Intel(R)"),
    ("cpu.load_percent", None, "no dump gives a load"),
    ("mainboard.board_product", "0N5YWG", SMBIOS + " type 2 Product Name"),
    ("mainboard.board_manufacturer", "Dell Inc.", SMBIOS + " type 2 Manufacturer"),
    ("mainboard.board_version", "A00", SMBIOS + " type 2 Version"),
    ("mainboard.board_serial_number", "REDACTED-6B1D04E2", "type 2 Serial Number, replaced"),
    ("mainboard.bios_version", "A05", SMBIOS + " type 0 Version"),
    ("mainboard.bios_vendor", "Dell Inc.", SMBIOS + " type 0 Vendor"),
    ("mainboard.bios_release_date", "2013-01-03", SMBIOS + " type 0 Release Date 01/03/2013"),
    ("memory.modules", 2, SMBIOS + " two type 17 devices"),
    ("memory.total_size_mib", 8192, SMBIOS + " type 17 Size 4 GB twice"),
    ("memory.items[0].slot", "BANK 0", SMBIOS + " type 17 Bank Locator (Locator DIMM0 names no channel)"),
    ("memory.items[0].maker", "Unknown", SMBIOS + " type 17 Manufacturer"),
    ("memory.items[0].part_number", "Team-Elite-1600   ", SMBIOS + " type 17 Part Number, blanks kept"),
    ("memory.items[0].size_mib", 4096, SMBIOS + " type 17 Size"),
    ("memory.items[0].clock_mhz", 1600, SMBIOS + " type 17 Configured Memory Speed"),
    ("memory.items[1].slot", "BANK 2", SMBIOS + " type 17 Bank Locator"),
    ("memory.items[1].maker", "Hynix/Hyundai", SMBIOS + " type 17 Manufacturer"),
    ("memory.items[1].part_number", "HMT351S6CFR8C-PB  ", SMBIOS + " type 17 Part Number"),
    ("memory.items[1].clock_mhz", 1600, SMBIOS + " type 17 Configured Memory Speed"),
    ("gpu.adapters", 1, DXDIAG + " one display device"),
    ("gpu.resolution", "1536x864", DXDIAG + " 1920 x 1080 at 120 DPI (125 percent), as a DPI-unaware process sees it"),
    ("gpu.monitor", "AUO21ED", DXDIAG + " Monitor Id"),
    ("gpu.refresh_rate_hz", 60, DXDIAG + " Current Mode (60Hz)"),
    ("gpu.colour_depth_bpp", 32, DXDIAG + " Current Mode (32 bit)"),
    ("gpu.items[0].kind", "discrete", DXDIAG + " DAC type Internal: no \"Integrated\" in it"),
    ("gpu.items[0].name", "Intel(R) HD Graphics 4000", DXDIAG + " Card name"),
    ("gpu.items[0].status", "OK", "the device works (DxDiag notes no problem)"),
    ("gpu.items[0].driver_version", "10.18.10.3379", DXDIAG + " Driver Version"),
    ("gpu.items[0].driver_date", "20131221", DXDIAG + " Driver Date 12/21/2013"),
    ("gpu.items[0].dedicated_memory_mib", 2063, DXDIAG + " Dedicated Memory"),
    ("gpu.items[0].problem_code", 0, "no problem"),
    ("gpu.items[1].name", None, "no adapter counts as integrated"),
    ("display.available", False, "a 2013 driver: no Intel Graphics Control Library, and the profile records no server"),
]


def at(report, path):
    node = report
    for part in path.replace("]", "").replace("[", ".").split("."):
        node = node[int(part)] if isinstance(node, list) else node[part]
    return node


def main(path):
    report = json.load(open(path, encoding="utf-8"))
    failures = []
    for fact, value, source in FACTS:
        try:
            actual = at(report, fact)
        except (KeyError, IndexError, TypeError):
            actual = "(missing)"
        if actual != value or type(actual) is not type(value):
            failures.append(f"{fact} is {actual!r}, not {value!r} ({source})")
    return verdict(failures, f"the laptop written from its dumps replays all {len(FACTS)} facts", "dell-inspiron-5521: ")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
