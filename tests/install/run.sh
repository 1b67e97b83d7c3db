#!/bin/bash
# Stages the build in $1 under $2, then builds the outside program against
# the staged tree with CMake and with pkg-config, and runs both builds with
# a session made by the staged webapi-session.
#   $4 = install (default)  the stage is `cmake --install`
#   $4 = deb                the stage is the Debian packages that cpack
#                           writes, unpacked with dpkg -x; their fields are
#                           checked first and lintian must pass them
set -euo pipefail
build=$1
work=$2
cxx=${3:-c++}
how=${4:-install}
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
mkdir -p "$work"

fail() { echo "$*" >&2; exit 1; }

if [ "$how" = deb ]; then
  cpack --config "$build/CPackConfig.cmake" -B "$work/debs" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; exit 1; }
  version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
  runtime=$(ls "$work"/debs/libwebapi_*.deb)
  dev=$(ls "$work"/debs/libwebapi-dev_*.deb)
  field() { dpkg-deb -f "$1" "$2"; }
  for deb in "$runtime" "$dev"; do
    [ "$(field "$deb" Version)" = "$version" ] || fail "$deb: version $(field "$deb" Version), not $version"
    echo "$(basename "$deb"): $(stat -c %s "$deb") bytes, Installed-Size $(field "$deb" Installed-Size) KiB"
    echo "  Depends: $(field "$deb" Depends)"
  done
  # What the library and the tool load, as dpkg-shlibdeps found it.
  for needed in libc6 libjsoncpp25 libpam0g libcrypt1 libstdc++6; do
    field "$runtime" Depends | grep -q "\b$needed\b" || fail "libwebapi does not depend on $needed"
  done
  field "$dev" Depends | grep -q "libwebapi (= $version)" || fail "libwebapi-dev does not pin libwebapi $version"
  # Programs built against the library depend on it through its shlibs file.
  dpkg-deb --ctrl-tarfile "$runtime" | tar -xO ./shlibs | grep -q "^libwebapi 0 libwebapi (>= $version)" ||
    fail "libwebapi has no shlibs entry for libwebapi.so.0"
  # The runtime package holds no development files, the dev package no
  # library a program loads.
  paths() { dpkg-deb -c "$1" | awk '{print $6}'; }
  paths "$runtime" | grep -E '\.h$|\.pc$|/libwebapi\.so$|/cmake/' && fail "development files in libwebapi"
  paths "$dev" | grep -E '\.so\.[0-9]|/bin/' && fail "runtime files in libwebapi-dev"
  # Overrides inside the packages explain what is left.
  lintian --fail-on error,warning --info "$runtime" "$dev" || fail "lintian found the above"
  for deb in "$runtime" "$dev"; do dpkg -x "$deb" "$work/tree"; done
  stage=$work/tree/usr
else
  cmake --install "$build" --prefix "$work/stage" >/dev/null
  stage=$work/stage
fi

cmake -S "$here/outside" -B "$work/cmake-build" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
      -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/cmake-build" >/dev/null

libdir=$(dirname "$(find "$stage" -name 'libwebapi.so' | head -n 1)")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
"$cxx" -std=c++17 -o "$work/pkgconfig-build" "$here/outside/main.cpp" $(pkg-config --cflags --libs webapi)
[ -s "$stage/share/man/man1/webapi-session.1.gz" ] || fail "no manual page for webapi-session"

# The README's walk-through: description and auth file, a session from the
# staged tool, one request by hand.
mkdir -p "$work/usr/mero/meroman/webapi"
echo '{"Demo.Hello": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["get"]}}}' \
  >"$work/usr/mero/meroman/webapi/hello.api"
echo '{"timeout": 60, "ip_checking": true}' >"$work/usr/mero/meroman/webapi/hello.auth"
sid=$(env LD_LIBRARY_PATH="$libdir" "$stage/bin/webapi-session" --root "$work" \
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
echo "outside program built with CMake and pkg-config against $stage ($how) and ran"
