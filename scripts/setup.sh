#!/usr/bin/env bash
# Prepares everything on a fresh Debian 12 machine (as root): installs what is
# missing, configures the build, builds, and initialises the private Wine
# prefix in the build tree.
#   setup.sh             everything: Torvex.dll, torvex.exe and every test
#                        (installs the test framework, the schema checker and
#                        clang, lld and llvm for the Microsoft-ABI host too)
#   setup.sh TARGET...   only those targets and what they need, e.g. `torvex`
#                        for Torvex.dll and torvex.exe
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${TORVEX_BUILD_DIR:-$ROOT/build}
targets=("$@")

missing=()
command -v x86_64-w64-mingw32-g++-posix >/dev/null 2>&1 || missing+=(mingw-w64)
[ -x /usr/lib/wine/wine64 ] || missing+=(wine64 wine)
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v ninja >/dev/null 2>&1 || missing+=(ninja-build)
[ -f /usr/include/nlohmann/json.hpp ] || missing+=(nlohmann-json3-dev)
if [ ${#targets[@]} -eq 0 ]; then
  [ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
  [ -x /usr/bin/python3 ] || missing+=(python3)
  /usr/bin/python3 -c 'import jsonschema' >/dev/null 2>&1 || missing+=(python3-jsonschema)
  # The Microsoft-ABI host of the tests: clang in Microsoft mode, lld-link, llvm-dlltool.
  command -v clang >/dev/null 2>&1 || missing+=(clang)
  command -v lld-link >/dev/null 2>&1 || missing+=(lld)
  command -v llvm-dlltool >/dev/null 2>&1 || missing+=(llvm)
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi

cmake -S "$ROOT" -B "$BUILD" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
if [ ${#targets[@]} -eq 0 ]; then
  cmake --build "$BUILD" -j "$(nproc)"
else
  cmake --build "$BUILD" -j "$(nproc)" --target "${targets[@]}"
fi

export WINEPREFIX="$BUILD/wineprefix" WINEDEBUG=-all
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "setup: initialising the Wine prefix in $WINEPREFIX"
  WINEDLLOVERRIDES="mscoree,mshtml=" wine wineboot -i >/dev/null 2>&1
  wineserver -w
fi
