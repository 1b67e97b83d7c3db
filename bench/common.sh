# Shared by the bench scripts (sourced, never run): the checks of what they
# need, the appliance root with the bench API and a session, and wrk with
# its check that every answer under load is a success.

# Fails the script unless every named program is built.
require_built() {
  local tool
  for tool in "$@"; do
    [ -x "$tool" ] || { echo "not built: $tool" >&2; exit 2; }
  done
}

# Lays out ROOT with the "bench" description and auth files (Bench.Item,
# get; a 30-minute session tied to its address) and prints the id of a new
# session of alice's from 127.0.0.1 under REGISTRY (default bench).
bench_root_and_session() { # SESSION_TOOL ROOT [REGISTRY]
  local webapi_dir=$2/usr/mero/meroman/webapi session
  mkdir -p "$webapi_dir"
  printf '%s' '{"Bench.Item": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["get"]}}}' \
    >"$webapi_dir/bench.api"
  printf '%s' '{"timeout": 30, "ip_checking": true}' >"$webapi_dir/bench.auth"
  session=$("$1" --root "$2" create --user alice --client 127.0.0.1 --registry "${3:-bench}")
  [ -n "$session" ] || { echo "no session created" >&2; exit 1; }
  printf '%s\n' "$session"
}

# Installs wrk from Debian when missing (through sudo when not root), and
# writes to FILE the wrk script that counts the answers that are not a
# success, over all of wrk's threads ("bad answers: N").
prepare_wrk() { # FILE
  if ! command -v wrk >/dev/null; then
    local sudo=
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    echo "installing wrk" >&2
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends wrk >/dev/null ||
      { $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive \
          $sudo apt-get install -y -qq --no-install-recommends wrk >/dev/null; }
  fi
  cat >"$1" <<'LUA'
local threads = {}
function setup(thread) table.insert(threads, thread) end
function init(args) bad = 0 end
function response(status, headers, body)
  if status ~= 200 or not string.find(body, '"success":true}', 1, true) then bad = bad + 1 end
end
function done(summary, latency, requests)
  local total = 0
  for _, thread in ipairs(threads) do total = total + thread:get("bad") end
  io.write(string.format("bad answers: %d\n", total))
end
LUA
}
