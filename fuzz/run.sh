#!/bin/sh
# Runs every libFuzzer target of a fuzz build (configured with
# -DWEBAPI_BUILD_FUZZERS=ON and built) for SECONDS each, seeded from the
# checked-in corpus. New inputs go to BUILD_DIR/fuzz-corpus/<name>/ and
# crashers to BUILD_DIR/fuzz-artifacts/<name>-*; the source tree is only read.
#   usage: fuzz/run.sh BUILD_DIR [SECONDS]    (SECONDS defaults to 20)
# Exits non-zero when any target fails or is missing.
set -u

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "usage: $0 BUILD_DIR [SECONDS]" >&2
  exit 2
fi
build=$(cd "$1" && pwd) || exit 2
seconds=${2:-20}
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$build/fuzz-artifacts" "$build/fuzz-logs" || exit 2

failed=0
for corpus in "$here"/corpus/*/; do  # one corpus folder per fuzz target
  name=$(basename "$corpus")
  binary="$build/fuzz/fuzz_$name"
  log="$build/fuzz-logs/$name.log"
  if [ ! -x "$binary" ]; then
    echo "$name: FAILED, $binary not built"
    failed=1
    continue
  fi
  mkdir -p "$build/fuzz-corpus/$name"
  "$binary" -max_total_time="$seconds" -print_final_stats=1 \
    -dict="$here/corpus/$name/$name.dict" \
    -artifact_prefix="$build/fuzz-artifacts/$name-" \
    "$build/fuzz-corpus/$name" "$here/corpus/$name" >"$log" 2>&1
  status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  if [ "$status" -eq 0 ]; then
    echo "$name: ok, ${runs:-?} runs, ${rate:-?} exec/s in ${seconds}s"
  else
    echo "$name: FAILED (exit $status), ${runs:-?} runs; log $log, inputs $build/fuzz-artifacts/$name-*"
    tail -n 40 "$log"
    failed=1
  fi
done
exit "$failed"
