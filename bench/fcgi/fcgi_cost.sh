#!/bin/bash
# Requests per second and latency of one request through one lighttpd, from
# a process per request to one process for all of them. Five endpoints on a
# free loopback port answer the same bytes:
#
#   floor    floor_cgi, a dynamic C program, as a CGI program
#   static   the same program linked statically, as a CGI program
#   cgi      bench_api as a CGI program, with its session check
#   fork     bench_api as a FastCGI server that lighttpd spawns with the
#            listening socket on descriptor 0 ("bin-path", one process);
#            it forks a child per request
#   ceiling  fcgi_ceiling, one FastCGI process answering every request
#            itself: what no design forking per request can pass
#
#   bench/fcgi/fcgi_cost.sh BUILD_DIR [SECONDS]
#
# BUILD_DIR  a configured and built tree (release preset: build-release)
# SECONDS    length of each wrk run (default 10); the endpoints are loaded
#            one after the other, ROUNDS times each (env, default 2)
#
# Environment:
#   ROUNDS           interleaved rounds (default 2)
#   WRK_THREADS      wrk threads (default 2)
#   WRK_CONNECTIONS  wrk connections (default 8)
#   SKIP_FORK=1      leave the fork endpoint out (a bench_api that is only
#                    a CGI program exits at once when spawned)
#   FORK_ARGS        options given to bench_api when lighttpd spawns it
#                    (e.g. "--max-children 8"; default none)
#
# Every endpoint is asked once before the load: each answer must be a
# success and the same body, byte for byte, as the floor's. Under load,
# every answer is checked to be a success; any other answer, socket error
# or timeout fails the run, and each wrk run is killed if it outlasts
# SECONDS by a minute. Figures are means over the rounds; ratios are to
# the floor (requests/s above 1: faster; latency below 1: faster). The
# server's files live under BUILD_DIR and are removed at the end; lighttpd
# (and the FastCGI processes it spawned) is stopped by its pid whatever
# happens. wrk is installed from Debian when missing (through sudo when
# not root).
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/../common.sh"

usage() { echo "usage: $0 BUILD_DIR [SECONDS]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd) || usage
seconds=${2:-10}
rounds=${ROUNDS:-2}
threads=${WRK_THREADS:-2}
connections=${WRK_CONNECTIONS:-8}
for number in "$seconds" "$rounds" "$threads" "$connections"; do
  [[ $number =~ ^[0-9]+$ && $number -gt 0 ]] || usage
done
floor=$build/bench/spawn/floor_cgi
static=$build/bench/fcgi/floor_cgi_static
program=$build/bench/spawn/bench_api
ceiling=$build/bench/fcgi/fcgi_ceiling
session_tool=$build/tools/webapi-session
require_built "$floor" "$static" "$program" "$ceiling" "$session_tool"
lighttpd=$(command -v lighttpd || echo /usr/sbin/lighttpd)
[ -x "$lighttpd" ] || { echo "lighttpd is not installed" >&2; exit 2; }

names=(floor static cgi fork ceiling)
[ "${SKIP_FORK:-0}" = 1 ] && names=(floor static cgi ceiling)

work=$(mktemp -d "$build/fcgi-cost.XXXXXX")
# A socket path has room for 107 bytes; a deep build tree puts them in /tmp.
sockets=$work
[ ${#work} -le 90 ] || sockets=$(mktemp -d "${TMPDIR:-/tmp}/fcgi-cost.XXXXXX")
server_pid=
stop_server() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
  [ "$sockets" = "$work" ] || rm -rf "$sockets"
}
trap stop_server EXIT
trap 'exit 130' INT TERM

root=$work/root
mkdir -p "$work/cgi" "$work/www"
session=$(bench_root_and_session "$session_tool" "$root")
prepare_wrk "$work/check.lua"
ln -s "$floor" "$work/cgi/floor"
ln -s "$static" "$work/cgi/static"
ln -s "$program" "$work/cgi/api"

# Both FastCGI endpoints are spawned by lighttpd alike: the listening
# socket on descriptor 0, one process, the appliance root in the process's
# environment as well as in each request's.
fastcgi_host() { # URL-PREFIX SOCKET BIN-PATH
  cat <<HOST
  "$1" => ( (
    "socket"          => "$2",
    "bin-path"        => "$3",
    "max-procs"       => 1,
    "check-local"     => "disable",
    "bin-environment" => ( "MERO_APPLIANCE_ROOT" => "$root" ),
  ) ),
HOST
}
fastcgi_hosts=$(fastcgi_host /fcgi/ceiling "$sockets/ceiling.sock" "$ceiling")
if [[ " ${names[*]} " == *" fork "* ]]; then
  fastcgi_hosts+=$'\n'$(fastcgi_host /fcgi/fork "$sockets/fork.sock" "$program${FORK_ARGS:+ $FORK_ARGS}")
fi

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
cat >"$work/lighttpd.conf" <<CONF
server.modules        = ( "mod_alias", "mod_setenv", "mod_cgi", "mod_fastcgi" )
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
fastcgi.server = (
$fastcgi_hosts
)
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

declare -A url=(
  [floor]=/cgi/floor [static]=/cgi/static [cgi]=/cgi/api
  [fork]=/fcgi/fork [ceiling]=/fcgi/ceiling
)
declare -A what=(
  [floor]='floor_cgi, CGI'
  [static]='floor_cgi_static, CGI'
  [cgi]='bench_api, CGI'
  [fork]='bench_api, FastCGI, a child per request'
  [ceiling]='fcgi_ceiling, FastCGI, one process'
)
declare -A hint=(
  [fork]=' (a bench_api that only runs as a CGI program exits when spawned: SKIP_FORK=1 leaves it out)'
)
server_logs() { cat "$work/stdout.log" "$work/error.log" "$work/cgi-stderr.log" >&2 2>/dev/null || true; }
fetch() {
  curl -sS --fail --max-time 10 -H "Cookie: id=$session" "http://127.0.0.1:$port${url[$1]}?$query" ||
    { echo "$1: no answer${hint[$1]:-}" >&2; server_logs; exit 1; }
}
floor_answer=$(fetch floor)
if [[ $floor_answer != *'"success":true}' ]]; then
  echo "the floor's answer is not a success: $floor_answer" >&2; exit 1
fi
for name in "${names[@]}"; do
  answer=$(fetch "$name")
  if [ "$answer" != "$floor_answer" ]; then
    printf '%s does not answer what the floor answers:\n%s\n%s\n' "$name" "$floor_answer" "$answer" >&2
    exit 1
  fi
done

# wrk prints a latency as a number and a unit (us, ms, s, m, h): in ms.
percentile() { # PERCENT WRK-OUTPUT
  awk -v p="$1%" '
    $1 == p {
      v = $2; n = v + 0; unit = v; sub(/^[0-9.]+/, "", unit)
      f = unit == "us" ? 0.001 : unit == "ms" ? 1 : unit == "s" ? 1000 : unit == "m" ? 60000 : unit == "h" ? 3600000 : -1
      if (f < 0) exit 1
      printf "%.3f\n", n * f; found = 1
    }
    END { if (!found) exit 1 }' <<<"$2"
}

echo "# $(uname -r), $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg); wrk -t$threads -c$connections -d${seconds}s --latency, $rounds rounds"
declare -A rps_sum p50_sum p99_sum
for name in "${names[@]}"; do rps_sum[$name]=0; p50_sum[$name]=0; p99_sum[$name]=0; done
for round in $(seq "$rounds"); do
  for name in "${names[@]}"; do
    out=$(timeout --kill-after=5 $((seconds + 60)) \
      wrk -t"$threads" -c"$connections" -d"${seconds}s" --latency -s "$work/check.lua" \
        -H "Cookie: id=$session" "http://127.0.0.1:$port${url[$name]}?$query") ||
      { echo "wrk failed or did not finish on $name:" >&2; echo "${out:-}" >&2; server_logs; exit 1; }
    rps=$(awk '/^Requests\/sec:/ { print $2 }' <<<"$out")
    bad=$(awk '/^bad answers:/ { print $3 }' <<<"$out")
    errors=$(grep -E 'Socket errors|Non-2xx' <<<"$out" || true)
    p50=$(percentile 50 "$out" || true)
    p99=$(percentile 99 "$out" || true)
    printf 'round %d  %-7s %10s requests/s  median %8s ms  p99 %8s ms  %s\n' \
      "$round" "$name" "$rps" "$p50" "$p99" "$errors"
    if [ -z "$rps" ] || [ -z "$p50" ] || [ -z "$p99" ] || [ "${bad:-1}" != 0 ] || [ -n "$errors" ]; then
      echo "wrk run failed or got bad answers:" >&2; echo "$out" >&2; exit 1
    fi
    rps_sum[$name]=$(awk -v a="${rps_sum[$name]}" -v b="$rps" 'BEGIN { print a + b }')
    p50_sum[$name]=$(awk -v a="${p50_sum[$name]}" -v b="$p50" 'BEGIN { print a + b }')
    p99_sum[$name]=$(awk -v a="${p99_sum[$name]}" -v b="$p99" 'BEGIN { print a + b }')
  done
done

echo
echo "| endpoint | program | requests/s | vs floor | median ms | vs floor | p99 ms | vs floor |"
echo "|---|---|---:|---:|---:|---:|---:|---:|"
for name in "${names[@]}"; do
  awk -v name="$name" -v what="${what[$name]}" -v n="$rounds" \
    -v r="${rps_sum[$name]}" -v m="${p50_sum[$name]}" -v p="${p99_sum[$name]}" \
    -v fr="${rps_sum[floor]}" -v fm="${p50_sum[floor]}" -v fp="${p99_sum[floor]}" '
    # Small ratios (latency of the ceiling) keep three digits.
    function x(v) { return sprintf(v >= 10 ? "%.0fx" : v >= 0.1 ? "%.2fx" : "%.4fx", v) }
    BEGIN {
      printf "| `%s` | %s | %.1f | %s | %.3f | %s | %.3f | %s |\n",
        name, what, r / n, x(r / fr), m / n, x(m / fm), p / n, x(p / fp)
    }'
done
echo
echo "Means of $rounds runs of ${seconds}s each; requests/s above 1x the floor and latency below 1x are faster."
