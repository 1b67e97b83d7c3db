#!/bin/bash
# The main job: builds the library and its example CGI programs, lays out a
# demo appliance under build-release/demo/ (never outside it) with a demo
# user who logs in through PAM, and serves the example API through lighttpd on
# http://127.0.0.1:PORT/ in the foreground until Ctrl-C. Each program runs
# as a fork server lighttpd starts (one process per request, forked from a
# process that has loaded everything once).
#   DEMO_PORT  the port (default 8080)
#   DEMO_MODE  fork (default) or cgi: lighttpd runs each request's program
#              as a CGI program instead
set -euo pipefail
cd "$(dirname "$0")/.."
port=${DEMO_PORT:-8080}
mode=${DEMO_MODE:-fork}
case $mode in fork | cgi) ;; *) echo "demo: DEMO_MODE is fork or cgi, not $mode" >&2; exit 2;; esac
echo "demo: building; the admin page will be at http://127.0.0.1:$port/"
bash scripts/deps.sh

if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
  echo "demo: port $port on 127.0.0.1 is taken; choose another: DEMO_PORT=8081 bash scripts/demo.sh" >&2
  exit 1
fi

cmake --preset release >/dev/null
cmake --build --preset release --target sysinfo settings maintenance auth preferences share files \
  webapi-session webapi-share merosharingchecker
work=$PWD/build-release/demo
bash examples/deploy/layout.sh build-release "$work" "$port" lighttpd "$mode"
lighttpd=$(command -v lighttpd || echo /usr/sbin/lighttpd)  # sbin is not on every PATH
"$lighttpd" -tt -f "$work/lighttpd.conf" >/dev/null

password=$(cat "$work/demo-password")
base="http://127.0.0.1:$port/api"
jar=$work/cookies.txt
# Two sharing links on the demo's folder /docs: one anybody with it may
# use, one that wants its password first, good for 50 accesses.
share="build-release/tools/webapi-share --root $work/root"
open_link=$($share create --item /docs --api Demo.Share --owner demo --host 127.0.0.1 --port "$port")
link_password=$(openssl rand -base64 9 | tr -d '/+=\n')
locked_link=$(printf '%s\n' "$link_password" | $share create --item /docs --api Demo.Share:list \
  --api Demo.Share:download --owner demo --limit 50 --password-stdin --host 127.0.0.1 --port "$port")
open_id=${open_link#*#}
locked_id=${locked_link#*#}
visitor=$work/visitor-cookies.txt
cat <<TEXT

Open http://127.0.0.1:$port/ in a browser (Ctrl-C here stops the server).
The programs run as $( [ "$mode" = fork ] && echo "fork servers (DEMO_MODE=cgi: as CGI programs)" || echo "CGI programs (DEMO_MODE=fork: as fork servers)").
Demo user: demo   password: $password   (PAM service: $work/root/etc/pam.d/webui)

The API behind the page is under /api/; try it from another terminal (the
cookie jar keeps the session):

  # log in: the answer holds the session's CSRF token, the jar its cookie
  token=\$(curl -s -c $jar -d 'api=Demo.Auth&method=login&version=1&user=demo&password=$password' '$base/auth' | sed -n 's/.*"token":"\([^"]*\)".*/\1/p'); echo \$token
  curl -s -b $jar '$base/auth?api=Demo.Auth&method=whoami&version=1'
  curl -s -b $jar '$base/sysinfo?api=Demo.SystemInfo&method=get&version=1'
  curl -s -b $jar '$base/settings?api=Demo.Settings&method=get&version=1'
  curl -s -b $jar -H "X-Mero-Token: \$token" -d 'api=Demo.Settings&method=set&version=1&theme=dark&refresh_seconds=60' '$base/settings'
  curl -s -b $jar -d 'api=Demo.Settings&method=set&version=1&theme=dark' '$base/settings'      # 105: no CSRF token
  curl -s -b $jar -H "X-Mero-Token: \$token" -d 'api=Demo.Settings&method=set&version=1&theme=blue' '$base/settings'
  curl -s -b $jar -OJ '$base/settings?api=Demo.Settings&method=export&version=1'
  curl -s -b $jar -H "X-Mero-Token: \$token" -F file=@/etc/os-release '$base/files?api=Demo.Files&method=upload&version=1'   # streamed to disk
  curl -s -b $jar '$base/files?api=Demo.Files&method=list&version=1'
  curl -s -b $jar '$base/maintenance?api=Demo.Maintenance&method=status&version=1'    # 105: demo is no administrator
  curl -s -b $jar -c $jar -H "X-Mero-Token: \$token" -d 'api=Demo.Auth&method=logout&version=1' '$base/auth'
  curl -s -b $jar '$base/sysinfo?api=Demo.SystemInfo&method=get&version=1'             # 105: logged out
  curl -s -d 'api=Demo.Auth&method=login&version=1&user=demo&password=wrong' '$base/auth'   # 401; 429 after 5 tries

Sharing links (the id is the part after '#' of each link's address):
  open:   $open_link
  locked: $locked_link   password: $link_password

  # anybody with the open link lists /docs and downloads below it, without an account
  curl -s '$base/share?api=Demo.Share&method=list&version=1&path=/docs&_sharing_id=$open_id'
  curl -s -OJ '$base/share?api=Demo.Share&method=download&version=1&path=/docs/readme.txt&_sharing_id=$open_id'
  curl -s '$base/share?api=Demo.Share&method=list&version=1&path=/&_sharing_id=$open_id'          # 127: outside the shared item
  # the locked link answers 125 until its password is proven; the proof sets the sharing cookie
  curl -s -H 'X-Mero-Sharing: $locked_id' '$base/share?api=Demo.Share&method=list&version=1&path=/docs'
  curl -s -c $visitor -H 'X-Mero-Sharing: $locked_id' -d 'api=Demo.ShareAuth&method=unlock&version=1&password=$link_password' '$base/share'
  curl -s -b $visitor -H 'X-Mero-Sharing: $locked_id' '$base/share?api=Demo.Share&method=list&version=1&path=/docs/reports'
  $share list      # refs, accesses used; then: $share disable|revoke --ref REF

Uploads:  $work/root/var/lib/webapi-demo/files/ (progress lines in syslog)
Sessions: build-release/tools/webapi-session --root $work/root list
Logs:     $work/logs/

TEXT
exec "$lighttpd" -D -f "$work/lighttpd.conf"
