#!/bin/bash
# Upload throughput and peak memory: a multipart body received to disk by a
# CGI process, against cat of the same bytes to a file, interleaved in the
# same rounds (so a slow phase of a shared machine hits both alike).
#
#   bench/upload/upload_cost.sh BUILD_DIR [ROUNDS] [SIZE...]
#
# BUILD_DIR  a configured and built tree (release preset: build-release)
# ROUNDS     interleaved rounds (default 5); each size's medians are printed
# SIZE       file sizes in the body (default 10M 1G 4G; suffix K, M or G)
#   PAYLOAD=random  the file is random bytes written out; by default it is a
#                   hole (zeros that take no disk), so the body costs only
#                   its few bytes of fields and delimiters
#   FEED=pipe       both read the body from a pipe that a feeder fills, as
#                   a web server hands a CGI program its body (then cat,
#                   too, copies through its own buffer); by default the body
#                   file itself is standard input
#
# The receiver is bench_upload: the library's whole path for one request
# (context, upload hook, LoadIn into a directory, the body's own api, method
# and version validated, the envelope), run as a CGI program with the
# environment a web server gives it and the body on standard input. Every
# run must answer a success and store the file at its full size, or the
# bench stops. Bodies and outputs live in a directory under BUILD_DIR,
# removed at the end; a size whose output would not fit the disk is skipped.
#
# Per size: the median throughput of each (MiB/s of body), their ratio
# (upload / cat: 1.0 is cat's speed), each one's peak resident memory
# (ru_maxrss, the largest over the rounds), the upload's seconds per GiB,
# and the ratio of CPU time (cat's / the upload's), which other programs on
# a shared machine disturb less than wall time.
# Then the cost per GiB between the smallest and the largest size, which
# leaves out each program's start-up (a C++ CGI program's exec and dynamic
# loading against cat's), and that start-up, extrapolated to size 0.
# GNU cat (9.x) copies file to file with copy_file_range, in the kernel;
# the receiver must see the bytes, so it reads them into its buffer.
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/../common.sh"

usage() { echo "usage: $0 BUILD_DIR [ROUNDS] [SIZE...]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd) || usage
shift
rounds=${1:-5}
[ $# -ge 1 ] && shift
[[ $rounds =~ ^[0-9]+$ ]] && [ "$rounds" -ge 1 ] || usage
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(10M 1G 4G)

measure=$build/bench/upload/measure_run
receiver=$build/bench/upload/bench_upload
require_built "$measure" "$receiver"

bytes_of() {
  local number=${1%[KMG]} unit=${1##*[0-9]}
  [[ $number =~ ^[0-9]+$ ]] || { echo "bad size: $1" >&2; exit 2; }
  case $unit in
    K) echo $((number * 1024)) ;; M) echo $((number * 1024 * 1024)) ;;
    G) echo $((number * 1024 * 1024 * 1024)) ;; "$number") echo "$number" ;;
    *) echo "bad size: $1" >&2; exit 2 ;;
  esac
}

work=$(mktemp -d "$build/upload-cost.XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root/usr/mero/meroman/webapi" "$work/received"
printf '%s' '{"Bench.Upload": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["put"]}}}' \
  >"$root/usr/mero/meroman/webapi/bench.api"

boundary=------------------------bench0123456789
# One body per size: the fields a browser form sends, one file part, the
# closing delimiter.
make_body() {
  local body=$1 size=$2
  printf -- '--%s\r\nContent-Disposition: form-data; name="api"\r\n\r\nBench.Upload\r\n' "$boundary" >"$body"
  printf -- '--%s\r\nContent-Disposition: form-data; name="method"\r\n\r\nput\r\n' "$boundary" >>"$body"
  printf -- '--%s\r\nContent-Disposition: form-data; name="version"\r\n\r\n1\r\n' "$boundary" >>"$body"
  printf -- '--%s\r\nContent-Disposition: form-data; name="file"; filename="payload.bin"\r\n' "$boundary" >>"$body"
  printf 'Content-Type: application/octet-stream\r\n\r\n' >>"$body"
  local head
  head=$(stat -c %s "$body")
  if [ "${PAYLOAD:-}" = random ]; then
    head -c "$size" /dev/urandom >>"$body"
  else
    truncate -s $((head + size)) "$body"
  fi
  printf -- '\r\n--%s--\r\n' "$boundary" >>"$body"
}

declare -A body_of
runnable=()
for size in "${sizes[@]}"; do
  n=$(bytes_of "$size")
  available=$(df --output=avail -B1 "$work" | tail -n 1)
  if [ "$available" -lt $((n + n / 10 + 64 * 1024 * 1024)) ]; then
    echo "# skipping $size: $available bytes free under $build" >&2
    continue
  fi
  body_of[$size]=$work/body-$size
  make_body "${body_of[$size]}" "$n"
  runnable+=("$size")
done
[ ${#runnable[@]} -gt 0 ] || { echo "no size fits the disk" >&2; exit 1; }

results=$work/results.tsv
feed=()
[ "${FEED:-}" = pipe ] && feed=(-p)
run_cat() {  # size
  local line
  line=$("$measure" "${feed[@]}" "${body_of[$1]}" "$work/cat.out" cat) || { echo "cat failed" >&2; exit 1; }
  rm -f "$work/cat.out"
  printf '%s\tcat\t%s\n' "$1" "$line" >>"$results"
}
run_upload() {  # size
  local body=${body_of[$1]} line
  line=$(env -i "MERO_APPLIANCE_ROOT=$root" "BENCH_UPLOAD_DIR=$work/received" \
    REQUEST_METHOD=POST "CONTENT_TYPE=multipart/form-data; boundary=$boundary" \
    "CONTENT_LENGTH=$(stat -c %s "$body")" REMOTE_ADDR=127.0.0.1 SERVER_PROTOCOL=HTTP/1.1 \
    GATEWAY_INTERFACE=CGI/1.1 "$measure" "${feed[@]}" "$body" "$work/answer" "$receiver") \
    || { echo "bench_upload failed" >&2; exit 1; }
  grep -q '{"data":{"files":1},"success":true}' "$work/answer" \
    || { echo "bench_upload answered: $(cat "$work/answer")" >&2; exit 1; }
  [ "$(stat -c %s "$work/received/payload.bin")" -eq "$(bytes_of "$1")" ] \
    || { echo "bench_upload stored a file of the wrong size" >&2; exit 1; }
  rm -f "$work/received/payload.bin"
  printf '%s\tupload\t%s\n' "$1" "$line" >>"$results"
}

echo "# $(uname -r), $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg), payload ${PAYLOAD:-hole}, standard input ${FEED:-file}"
run_cat "${runnable[0]}"  # warm-up: the programs and the first body in the page cache
run_upload "${runnable[0]}"
: >"$results"
for round in $(seq 1 "$rounds"); do
  for size in "${runnable[@]}"; do
    if [ $((round % 2)) -eq 1 ]; then run_cat "$size"; run_upload "$size"; else run_upload "$size"; run_cat "$size"; fi
  done
done

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
seconds_of() { awk -v s="$1" -v p="$2" '$1 == s && $2 == p { print $3 }' "$results" | median; }
cpu_of() { awk -v s="$1" -v p="$2" '$1 == s && $2 == p { print $6 }' "$results" | median; }
peak_of() { awk -v s="$1" -v p="$2" '$1 == s && $2 == p && $4 > m { m = $4 } END { print m }' "$results"; }
printf '%-6s %12s %12s %7s %14s %15s %12s %10s\n' size 'cat MiB/s' 'upload MiB/s' ratio \
  'cat peak KiB' 'upload peak KiB' 'upload s/GiB' 'CPU ratio'
for size in "${runnable[@]}"; do
  awk -v n="$(stat -c %s "${body_of[$size]}")" -v c="$(seconds_of "$size" cat)" \
    -v u="$(seconds_of "$size" upload)" -v cr="$(peak_of "$size" cat)" \
    -v ur="$(peak_of "$size" upload)" -v cc="$(cpu_of "$size" cat)" \
    -v uc="$(cpu_of "$size" upload)" -v s="$size" 'BEGIN {
    mib = n / 1048576
    printf "%-6s %12.0f %12.0f %7.2f %14d %15d %12.3f %10.2f\n", s, mib / c, mib / u, c / u, cr, ur,
      u / (n / 1073741824), cc / uc
  }'
done
# The cost per byte once the process runs: the slope between the smallest
# and the largest size, which leaves out each program's start-up.
if [ ${#runnable[@]} -ge 2 ]; then
  small=${runnable[0]} large=${runnable[${#runnable[@]} - 1]}
  awk -v a="$(stat -c %s "${body_of[$small]}")" -v b="$(stat -c %s "${body_of[$large]}")" \
    -v ca="$(seconds_of "$small" cat)" -v cb="$(seconds_of "$large" cat)" \
    -v ua="$(seconds_of "$small" upload)" -v ub="$(seconds_of "$large" upload)" \
    -v range="$small..$large" 'BEGIN {
    gib = (b - a) / 1073741824
    printf "per GiB from %s: cat %.3f s, upload %.3f s, ratio %.2f; start-up: cat %.1f ms, upload %.1f ms\n",
      range, (cb - ca) / gib, (ub - ua) / gib, (cb - ca) / (ub - ua),
      1000 * (ca - (cb - ca) / (b - a) * a), 1000 * (ua - (ub - ua) / (b - a) * a)
  }'
fi
