#!/bin/bash
# Cost of one whole CGI request as a fresh process (fork + exec to exit),
# against the floor: floor_cgi, a dynamic C program printing the same bytes.
#
#   bench/spawn/request_cost.sh BUILD_DIR [RUNS] [PROGRAM...]
#
# BUILD_DIR  a configured and built tree (release preset: build-release)
# RUNS       interleaved rounds (default 1000; use at least 1000)
# PROGRAM    CGI programs to time after the floor (default:
#            BUILD_DIR/bench/spawn/bench_api); several are interleaved in
#            the same rounds, e.g. bench_api from two build trees
#
# A temporary appliance root is laid out under BUILD_DIR (and removed at
# the end) with the description and auth files and one session of alice's,
# created with webapi-session. Every program runs with the same CGI
# environment: a GET of the bench API with the session cookie. Before the
# timing, each program's answer must be a success and identical, byte for
# byte, to the floor's.
#
# Another request than bench_api's (e.g. for an example program):
#   CGI_QUERY       the query string (default api=Bench.Item&method=get&version=1)
#   CGI_REGISTRY    the session name the program checks (default bench)
#   CGI_FILES       a directory whose files are copied next to bench.api
#   SHARE_LINK_ARGS options of "webapi-share create" (e.g. --item /docs
#                   --api Bench.Item): a sharing link is made with them, its
#                   id replaces @LINK@ in CGI_QUERY, and the sharing checker
#                   is put under the root (bench/spawn/sharing/ has a
#                   description that admits links)
# The floor then prints the first program's whole answer (FLOOR_ANSWER), so
# the byte comparison still holds.
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/../common.sh"

usage() { echo "usage: $0 BUILD_DIR [RUNS] [PROGRAM...]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd) || usage
shift
runs=${1:-1000}
[ $# -ge 1 ] && shift
[[ $runs =~ ^[0-9]+$ ]] || usage
programs=("$@")
[ ${#programs[@]} -gt 0 ] || programs=("$build/bench/spawn/bench_api")

spawn_bench=$build/bench/spawn/spawn_bench
floor=$build/bench/spawn/floor_cgi
session_tool=$build/tools/webapi-session
require_built "$spawn_bench" "$floor" "$session_tool" "${programs[@]}"

root=$(mktemp -d "$build/request-cost.XXXXXX")
trap 'rm -rf "$root"' EXIT
if [ -n "${CGI_FILES:-}" ]; then
  mkdir -p "$root/usr/mero/meroman/webapi"
  cp -R "$CGI_FILES"/. "$root/usr/mero/meroman/webapi"/
fi
session=$(bench_root_and_session "$session_tool" "$root" "${CGI_REGISTRY:-bench}")

query=${CGI_QUERY:-api=Bench.Item&method=get&version=1}
if [ -n "${SHARE_LINK_ARGS:-}" ]; then
  mkdir -p "$root/usr/mero/bin"
  ln -s "$build/tools/merosharingchecker" "$root/usr/mero/bin/merosharingchecker"
  # shellcheck disable=SC2086  # the options are words on purpose
  link=$("$build/tools/webapi-share" --root "$root" create $SHARE_LINK_ARGS)
  [ -n "$link" ] || { echo "no link created" >&2; exit 1; }
  query=${query//@LINK@/$link}
fi

# What a web server hands a CGI program, and nothing else.
cgi_env=(env -i
  "MERO_APPLIANCE_ROOT=$root"
  REQUEST_METHOD=GET
  "QUERY_STRING=$query"
  "HTTP_COOKIE=id=$session"
  REMOTE_ADDR=127.0.0.1
  SERVER_PROTOCOL=HTTP/1.1
  GATEWAY_INTERFACE=CGI/1.1)

answer() { "${cgi_env[@]}" "$1" </dev/null >"$2"; }

answer "${programs[0]}" "$root/first.out" || { echo "${programs[0]} failed" >&2; exit 1; }
if [ -n "${CGI_QUERY:-}" ]; then
  cgi_env+=("FLOOR_ANSWER=$(cat "$root/first.out")")
fi
answer "$floor" "$root/floor.out" || { echo "floor_cgi failed" >&2; exit 1; }
grep -q '"success":true}$' "$root/floor.out" || { echo "the floor's answer is not a success" >&2; exit 1; }
i=0
for program in "${programs[@]}"; do
  answer "$program" "$root/program-$i.out" || { echo "$program exited non-zero" >&2; exit 1; }
  if ! cmp -s "$root/floor.out" "$root/program-$i.out"; then
    echo "$program does not answer what the floor answers:" >&2
    diff <(od -c "$root/floor.out") <(od -c "$root/program-$i.out") >&2 || true
    exit 1
  fi
  i=$((i + 1))
done

echo "# $(uname -r), $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
"${cgi_env[@]}" "$spawn_bench" -n "$runs" -o "$root/raw.tsv" "$floor" "${programs[@]}" | tee "$root/report.txt"
awk 'NR > 3 { printf "ratio to the floor: %s (paired: %s)  %s\n", $5, $7, $9 }' "$root/report.txt"
