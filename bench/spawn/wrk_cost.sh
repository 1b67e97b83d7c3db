#!/bin/bash
# Requests per second through a real web server: lighttpd runs floor_cgi and
# a WebAPI program as CGI programs (a fresh process per request) on a free
# loopback port, and wrk loads each in turn for a bounded time.
#
#   bench/spawn/wrk_cost.sh BUILD_DIR [SECONDS] [PROGRAM]
#
# BUILD_DIR  a configured and built tree (release preset: build-release)
# SECONDS    length of each wrk run (default 10); the floor and the program
#            are loaded alternately, ROUNDS times each (env, default 2)
# PROGRAM    the WebAPI program (default BUILD_DIR/bench/spawn/bench_api);
#            it must answer the bench request as bench_api does (the floor's
#            bytes): both answers are compared before the load starts
#
# wrk runs with WRK_THREADS (default 2) and WRK_CONNECTIONS (default 8).
# Every answer under load is checked to be a success; any other answer fails
# the run. The server's files live under BUILD_DIR and are removed at the
# end; lighttpd is stopped by its pid whatever happens. wrk is installed
# from Debian when missing (through sudo when not root).
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/../common.sh"

usage() { echo "usage: $0 BUILD_DIR [SECONDS] [PROGRAM]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd) || usage
seconds=${2:-10}
program=${3:-$build/bench/spawn/bench_api}
rounds=${ROUNDS:-2}
[[ $seconds =~ ^[0-9]+$ && $rounds =~ ^[0-9]+$ && $seconds -gt 0 && $rounds -gt 0 ]] || usage
program=$(realpath "$program")
floor=$build/bench/spawn/floor_cgi
session_tool=$build/tools/webapi-session
require_built "$floor" "$session_tool" "$program"
lighttpd=$(command -v lighttpd || echo /usr/sbin/lighttpd)
[ -x "$lighttpd" ] || { echo "lighttpd is not installed" >&2; exit 2; }

work=$(mktemp -d "$build/wrk-cost.XXXXXX")
server_pid=
stop_server() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap stop_server EXIT
trap 'exit 130' INT TERM

root=$work/root
mkdir -p "$work/cgi" "$work/www"
session=$(bench_root_and_session "$session_tool" "$root")
prepare_wrk "$work/check.lua"
ln -s "$floor" "$work/cgi/floor"
ln -s "$program" "$work/cgi/api"

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
cat >"$work/lighttpd.conf" <<CONF
server.modules        = ( "mod_alias", "mod_setenv", "mod_cgi" )
server.bind           = "127.0.0.1"
server.port           = $port
server.document-root  = "$work/www"
server.errorlog       = "$work/error.log"
server.breakagelog    = "$work/cgi-stderr.log"
server.pid-file       = "$work/lighttpd.pid"
server.upload-dirs    = ( "$work" )
alias.url             = ( "/cgi/" => "$work/cgi/" )
\$HTTP["url"] =~ "^/cgi/" {
  cgi.assign          = ( "" => "" )
  cgi.execute-x-only  = "enable"
  static-file.exclude-extensions = ( "" )
}
setenv.add-environment = ( "MERO_APPLIANCE_ROOT" => "$root" )
CONF
"$lighttpd" -tt -f "$work/lighttpd.conf" >/dev/null
"$lighttpd" -D -f "$work/lighttpd.conf" >"$work/stdout.log" 2>&1 &
server_pid=$!
query='api=Bench.Item&method=get&version=1'
for _ in $(seq 100); do
  curl -s -o /dev/null "http://127.0.0.1:$port/" && break
  kill -0 "$server_pid" 2>/dev/null || { cat "$work/stdout.log" "$work/error.log" >&2; exit 1; }
  sleep 0.05
done

fetch() { curl -sS --fail -H "Cookie: id=$session" "http://127.0.0.1:$port/cgi/$1?$query"; }
floor_answer=$(fetch floor)
api_answer=$(fetch api)
if [[ $floor_answer != *'"success":true}' ]]; then
  echo "the floor's answer is not a success: $floor_answer" >&2; exit 1
fi
if [ "$floor_answer" != "$api_answer" ]; then
  printf 'the program does not answer what the floor answers:\n%s\n%s\n' "$floor_answer" "$api_answer" >&2
  exit 1
fi

threads=${WRK_THREADS:-2}
connections=${WRK_CONNECTIONS:-8}
echo "# $(uname -r), $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg); wrk -t$threads -c$connections -d${seconds}s, $rounds rounds"
declare -A total=([floor]=0 [api]=0)
for round in $(seq "$rounds"); do
  for name in floor api; do
    out=$(wrk -t"$threads" -c"$connections" -d"${seconds}s" -s "$work/check.lua" \
      -H "Cookie: id=$session" "http://127.0.0.1:$port/cgi/$name?$query")
    rps=$(awk '/^Requests\/sec:/ { print $2 }' <<<"$out")
    bad=$(awk '/^bad answers:/ { print $3 }' <<<"$out")
    errors=$(grep -E 'Socket errors|Non-2xx' <<<"$out" || true)
    printf 'round %d  %-5s %10s requests/s  %s\n' "$round" "$name" "$rps" "$errors"
    if [ -z "$rps" ] || [ "${bad:-1}" != 0 ] || [ -n "$errors" ]; then
      echo "wrk run failed or got bad answers:" >&2; echo "$out" >&2; exit 1
    fi
    total[$name]=$(awk -v a="${total[$name]}" -v b="$rps" 'BEGIN { print a + b }')
  done
done
awk -v f="${total[floor]}" -v a="${total[api]}" -v n="$rounds" -v p="$program" 'BEGIN {
  printf "floor_cgi %.1f requests/s, %s %.1f requests/s (means of %d runs)\n", f / n, p, a / n, n
  printf "floor/program throughput ratio: %.3f (cost per request relative to the floor)\n", f / a
}'
