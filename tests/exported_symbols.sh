#!/bin/bash
# Fails when libwebapi.so exports a symbol outside its declared API: the
# MERO namespace, the platform's C operations, and the weak template
# instantiations of the standard library that every C++ shared object
# carries.
# The second argument says whether the platform is bundled into the library
# (its operations must then be exported from it) or split into its own
# shared libraries.
set -euo pipefail
lib=$1
layout=${2:-bundled}
symbols=$(nm -DC --defined-only "$lib" | awk '{ $1 = ""; print }' | sed 's/^ //')
unexpected=$(printf '%s\n' "$symbols" | grep -v -E \
  '^[TBDRVW] (MERO::|(typeinfo|typeinfo name|vtable) for MERO::|MLIBC[A-Za-z]+$|MLIBGroup[A-Za-z]+$|MeroCgi[A-Za-z0-9]+$|MeroPam[A-Za-z]+$|MERO[A-Z][A-Za-z]+$|MeroAppliance[A-Za-z]+$|MeroRequestIsHttps$|MeroSharing[A-Za-z]+$|VolumeAvailGet$)' \
  | grep -v -E '^[WVu] .*std::' || true)
if [ -n "$unexpected" ]; then
  echo "libwebapi.so exports symbols outside its API:"
  printf '%s\n' "$unexpected"
  exit 1
fi
required=('MERO::WebCGI::WebCGI(char const*, bool)' 'MERO::JsonValue::fromString')
[ "$layout" = bundled ] && required+=(MeroCgiParseCGIParam MLIBCSzHashSetValue MEROUserLoginNameConvert VolumeAvailGet MLIBGroupIsAdminGroupMem 'MERO::ZEL::SecurityOptions::GetSecurityHeaders')
for symbol in "${required[@]}"; do
  grep -q -F "$symbol" <<<"$symbols" || { echo "missing export: $symbol"; exit 1; }
done
echo "exports: $(printf '%s\n' "$symbols" | wc -l) symbols, all declared"
