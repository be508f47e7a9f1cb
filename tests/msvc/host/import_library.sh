#!/usr/bin/env bash
# Makes an import library for the Microsoft-ABI host from a DLL's export
# table (not from a .def kept beside it), so that a name the DLL does not
# really export fails the host's link.
#   import_library.sh OBJDUMP LLVM_DLLTOOL DLL LIB
set -euo pipefail
objdump=$1 dlltool=$2 dll=$3 lib=$4
def=${lib%.lib}.def
{
  echo "LIBRARY $(basename "$dll")"
  echo "EXPORTS"
  "$objdump" -p "$dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^\s*\[ *[0-9]*\] \(.*\)$/    \1/p'
} >"$def"
grep -q '^    ' "$def" || { echo "import_library.sh: no exports found in $dll" >&2; exit 1; }
"$dlltool" -m i386:x86-64 -d "$def" -l "$lib"
