#!/bin/bash
# Fails when libwebapi.so exports a symbol outside its declared API: the
# MERO namespace, the platform's C operations, and the weak template
# instantiations of the standard library that every C++ shared object
# carries.
set -euo pipefail
lib=$1
symbols=$(nm -DC --defined-only "$lib" | awk '{ $1 = ""; print }' | sed 's/^ //')
unexpected=$(printf '%s\n' "$symbols" | grep -v -E \
  '^[TBDRVW] (MERO::|(typeinfo|typeinfo name|vtable) for MERO::|MLIBC[A-Za-z]+$|MeroCgi[A-Za-z]+$|MeroAppliance[A-Za-z]+$)' \
  | grep -v -E '^[WVu] .*std::' || true)
if [ -n "$unexpected" ]; then
  echo "libwebapi.so exports symbols outside its API:"
  printf '%s\n' "$unexpected"
  exit 1
fi
for required in 'MERO::WebCGI::WebCGI(char const*, bool)' 'MERO::JsonValue::fromString' MeroCgiParseCGIParam MLIBCSzHashSetValue; do
  printf '%s\n' "$symbols" | grep -q -F "$required" || { echo "missing export: $required"; exit 1; }
done
echo "exports: $(printf '%s\n' "$symbols" | wc -l) symbols, all declared"
