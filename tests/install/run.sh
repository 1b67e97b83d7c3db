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
"$cxx" -std=c++17 -o "$work/pkgconfig-build" "$here/outside/main.cpp" $(pkg-config --cflags --libs webapi)

# The README's walk-through: description and auth file, a session from the
# installed tool, one request by hand.
mkdir -p "$work/usr/mero/meroman/webapi"
echo '{"Demo.Hello": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["get"]}}}' \
  >"$work/usr/mero/meroman/webapi/hello.api"
echo '{"timeout": 60, "ip_checking": true}' >"$work/usr/mero/meroman/webapi/hello.auth"
sid=$(env LD_LIBRARY_PATH="$libdir" "$work/stage/bin/webapi-session" --root "$work" \
      create --user alice --client 127.0.0.1 --registry hello)
expected='{"data":{"greeting":"hello, alice"},"success":true}'
for program in "$work/cmake-build/outside_cgi" "$work/pkgconfig-build"; do
  got=$(env -i LD_LIBRARY_PATH="$libdir" MERO_APPLIANCE_ROOT="$work" REQUEST_METHOD=GET \
        QUERY_STRING='api=Demo.Hello&method=get&version=1' HTTP_COOKIE="id=$sid" \
        REMOTE_ADDR=127.0.0.1 "$program" | tail -n 1)
  if [ "$got" != "$expected" ]; then
    echo "$program printed: $got"
    echo "expected:          $expected"
    exit 1
  fi
done
echo "outside program built with CMake and pkg-config against $work/stage and ran"
