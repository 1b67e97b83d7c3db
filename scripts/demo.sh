#!/bin/bash
# The main job, for now: builds the library and runs the example CGI program
# once on a sample request (a POST form with a query string and cookies),
# printing what the request context parsed. Everything it writes stays under
# build-release/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

cmake --preset release >/dev/null
cmake --build --preset release --target context_dump

root=$PWD/build-release/demo-root
rm -rf "$root"
mkdir -p "$root/usr/mero/meroman/webapi" "$root/etc"
printf '{"timeout": 30, "ip_checking": true, "privilege": "demo_admin"}\n' \
  >"$root/usr/mero/meroman/webapi/demo.auth"
printf 'skip_checksrcip="no"\n' >"$root/etc/meroinfo.conf"

body='api=Demo.Info&method=get&version=1&note=caf%C3%A9+au+lait'
echo "== request: POST /cgi-bin/context_dump?lang=de with body: $body"
printf '%s' "$body" | env -i PATH=/usr/bin:/bin \
  MERO_APPLIANCE_ROOT="$root" \
  REQUEST_METHOD=POST QUERY_STRING='lang=de&version=9' \
  CONTENT_TYPE=application/x-www-form-urlencoded CONTENT_LENGTH=${#body} \
  HTTP_COOKIE='id=demo-session; theme=dark' HTTP_ACCEPT_LANGUAGE='fr;q=0.8, en' \
  DUMP_SESSION=demo DUMP_PARAMS=api,method,version,note,lang DUMP_COOKIES=id,theme \
  build-release/examples/context_dump
echo
echo "== (the body wins over the query string for version; lang comes from the query string)"
