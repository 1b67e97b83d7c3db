#!/bin/bash
# Stages an install of the build in $1 under $2, then builds the outside
# program against it with CMake and with pkg-config, and runs both builds.
set -euo pipefail
build=$1
work=$2
cxx=${3:-c++}
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/stage" >/dev/null

cmake -S "$here/outside" -B "$work/cmake-build" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
      -DCMAKE_PREFIX_PATH="$work/stage" >/dev/null
cmake --build "$work/cmake-build" >/dev/null

libdir=$(dirname "$(find "$work/stage" -name 'libwebapi.so' | head -n 1)")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
"$cxx" -std=c++17 -o "$work/pkgconfig-build" "$here/outside/main.cpp" $(pkg-config --cflags --libs webapi merocore)

expected="api=Demo.Info version=3 numeric=1 id=s1 error=0"
for program in "$work/cmake-build/outside_cgi" "$work/pkgconfig-build"; do
  got=$(env -i LD_LIBRARY_PATH="$libdir" MERO_APPLIANCE_ROOT="$work" REQUEST_METHOD=GET \
        QUERY_STRING='api=Demo.Info&version=3' HTTP_COOKIE='id=s1' "$program")
  if [ "$got" != "$expected" ]; then
    echo "$program printed: $got"
    echo "expected:          $expected"
    exit 1
  fi
done
echo "outside program built with CMake and pkg-config against $work/stage and ran"
