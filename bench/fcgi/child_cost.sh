#!/bin/bash
# What one request costs in a fork server's child, part by part: fork,
# request context, session store, pipeline, FastCGI output, each as an
# increment over the previous step, and fork + exec of the floor for
# reference. ChildCost.cpp says what each step does and how it is checked.
#
#   bench/fcgi/child_cost.sh BUILD_DIR [ROUNDS]
#
# BUILD_DIR  a configured and built tree (release preset: build-release)
#            with child_cost, floor_cgi and webapi-session built
# ROUNDS     interleaved rounds (default 1000; use at least 1000)
#
# A temporary appliance root is laid out under BUILD_DIR (and removed at
# the end) as request_cost.sh lays it out: the description and auth files
# and one session of alice's, created with webapi-session. child_cost runs
# with nothing of the caller's environment but the root (the request's
# variables are its own); RAW=FILE keeps every run's time there.
set -euo pipefail
# shellcheck source=bench/common.sh
. "$(dirname "$0")/../common.sh"

usage() { echo "usage: $0 BUILD_DIR [ROUNDS]" >&2; exit 2; }
[ $# -ge 1 ] || usage
build=$(cd "$1" && pwd) || usage
rounds=${2:-1000}
[[ $rounds =~ ^[0-9]+$ && $rounds -gt 0 ]] || usage

child_cost=$build/bench/fcgi/child_cost
floor=$build/bench/spawn/floor_cgi
session_tool=$build/tools/webapi-session
require_built "$child_cost" "$floor" "$session_tool"

root=$(mktemp -d "$build/child-cost.XXXXXX")
trap 'rm -rf "$root"' EXIT
session=$(bench_root_and_session "$session_tool" "$root")

raw_args=()
[ -n "${RAW:-}" ] && raw_args=(-o "$RAW")
echo "# $(uname -r), $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
env -i "MERO_APPLIANCE_ROOT=$root" "$child_cost" -n "$rounds" "${raw_args[@]}" "$floor" "$root" "$session"
