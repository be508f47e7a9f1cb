#!/usr/bin/env bash
# Installs the build into a staging prefix, builds a consumer project with
# find_package(Torvex) against it, and runs the consumer under Wine.
set -euo pipefail
SOURCE=$1 BUILD=$2
STAGE=$BUILD/install-check/stage
rm -rf "$BUILD/install-check"
cmake --install "$BUILD" --prefix "$STAGE" >/dev/null
for f in bin/Torvex.dll bin/torvex.exe lib/libTorvex.dll.a lib/Torvex.def include/torvex.h \
         lib/cmake/Torvex/TorvexConfig.cmake; do
  [ -f "$STAGE/$f" ] || { echo "missing from the install: $f"; exit 1; }
done
cmake -S "$SOURCE/tests/install/consumer" -B "$BUILD/install-check/consumer" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$SOURCE/cmake/mingw-w64-x86_64.cmake" -DCMAKE_PREFIX_PATH="$STAGE" >/dev/null
cmake --build "$BUILD/install-check/consumer" >/dev/null
cp "$STAGE/bin/Torvex.dll" "$BUILD/install-check/consumer/"
wine "$BUILD/install-check/consumer/consumer.exe"
