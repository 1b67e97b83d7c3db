#!/bin/bash
# The main job: builds the library and its example CGI programs, lays out a
# demo appliance under build-release/demo/ (never outside it), creates a demo
# session, and serves the example API through lighttpd on
# http://127.0.0.1:PORT/ in the foreground until Ctrl-C.
#   DEMO_PORT  the port (default 8080)
set -euo pipefail
cd "$(dirname "$0")/.."
port=${DEMO_PORT:-8080}
bash scripts/deps.sh

if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
  echo "demo: port $port on 127.0.0.1 is taken; choose another: DEMO_PORT=8081 bash scripts/demo.sh" >&2
  exit 1
fi

cmake --preset release >/dev/null
cmake --build --preset release --target sysinfo settings maintenance webapi-session
work=$PWD/build-release/demo
bash examples/deploy/layout.sh build-release "$work" "$port"
lighttpd=$(command -v lighttpd || echo /usr/sbin/lighttpd)  # sbin is not on every PATH
"$lighttpd" -tt -f "$work/lighttpd.conf" >/dev/null

sid=$(cat "$work/session")
base="http://127.0.0.1:$port/api"
cat <<TEXT

Serving the example API on http://127.0.0.1:$port/ (Ctrl-C stops it).
The demo user's session is $sid
Try, in another terminal:

  curl -s -b 'id=$sid' '$base/sysinfo?api=Demo.SystemInfo&method=get&version=1'
  curl -s -b 'id=$sid' '$base/settings?api=Demo.Settings&method=get&version=1'
  curl -s -b 'id=$sid' -d 'api=Demo.Settings&method=set&version=1&theme=dark&refresh_seconds=60' '$base/settings'
  curl -s -b 'id=$sid' -d 'api=Demo.Settings&method=set&version=1&theme=blue' '$base/settings'
  curl -s -b 'id=$sid' -H 'Content-Type: application/json' -d '{"title":"Lab NAS"}' '$base/settings?api=Demo.Settings&method=set&version=1'
  curl -s -b 'id=$sid' -OJ '$base/settings?api=Demo.Settings&method=export&version=1'
  curl -s -b 'id=$sid' '$base/maintenance?api=Demo.Maintenance&method=status&version=1'    # 105: demo lacks "admin"
  curl -s '$base/sysinfo?api=Demo.SystemInfo&method=get&version=1'                         # 105: no session
  curl -s '$base/sysinfo?api=Demo.SystemInfo&method=get&version=9'                         # 104: no such version

Sessions: build-release/tools/webapi-session --root $work/root list
Logs:     $work/logs/

TEXT
exec "$lighttpd" -D -f "$work/lighttpd.conf"
