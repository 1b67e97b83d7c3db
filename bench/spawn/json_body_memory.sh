#!/bin/bash
# Peak memory of a CGI process reading a JSON request body, against the same
# program reading "{}": the bodies an attacker would pick, at the limits of
# MERO::JsonValue::MaxJsonParamValues (include/webapi/JsonValue.h).
#
#   bench/spawn/json_body_memory.sh BUILD_DIR
#
# BUILD_DIR  a configured and built tree (bench_api and peak_rss built)
#
# Each body is the POST body of bench_api under an empty appliance root:
# the parameters are read when the request context is built, before any
# session check, which then refuses the request. The last column is the
# peak above the baseline as a multiple of the body's size.
#   zeros-1MiB          [0,0,...,0] filling the 1 MiB line limit
#   densest-<size>      as many zeros as a line of that size may hold,
#                       padded with blanks to the size: the dearest body
#                       that is accepted
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
program=$build/bench/spawn/bench_api
peak_rss=$build/bench/spawn/peak_rss
for tool in "$program" "$peak_rss"; do
  [ -x "$tool" ] || { echo "not built: $tool" >&2; exit 2; }
done
header=$here/../../include/webapi/JsonValue.h
bytes_per_value=$(sed -n 's/.*kJsonParamBytesPerValue = \([0-9]*\);.*/\1/p' "$header")
min_values=$(sed -n 's/.*kJsonParamMinValues = \([0-9]*\);.*/\1/p' "$header")

work=$(mktemp -d "$build/json-body-memory.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/root"

# A JSON array of $1 zeros, padded with blanks to $2 bytes.
zeros() {
  { printf '['; head -c $((2 * ($1 - 1))) < <(yes '0,' | tr -d '\n'); printf '0]'; } >"$work/body"
  local size
  size=$(stat -c %s "$work/body")
  [ "$size" -le "$2" ] || { echo "$1 zeros do not fit in $2 bytes" >&2; exit 1; }
  head -c $(($2 - size)) /dev/zero | tr '\0' ' ' >>"$work/body"
  cat "$work/body"
}
# The most values a line of $1 bytes may hold, less the array itself.
densest() {
  local values=$(($1 / bytes_per_value))
  [ "$values" -ge "$min_values" ] || values=$min_values
  zeros $((values - 1)) "$1"
}

line_limit=$((1024 * 1024))
printf '{}' >"$work/baseline"
zeros $((line_limit / 2 - 1)) "$line_limit" >"$work/zeros-1MiB"
for size in 16384 65536 262144 "$line_limit"; do
  densest "$size" >"$work/densest-$((size / 1024))KiB"
done

echo "# $(uname -r), $(nproc) cores; $program"
env -i "MERO_APPLIANCE_ROOT=$work/root" "QUERY_STRING=api=Bench.Item&method=get&version=1" \
  "$peak_rss" "$program" "$work/baseline" "$work/zeros-1MiB" "$work"/densest-16KiB \
  "$work"/densest-64KiB "$work"/densest-256KiB "$work"/densest-1024KiB
