#!/usr/bin/env bash
# The filter library exports its four entry points and nothing else.
set -euo pipefail
library=$1
expected="DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer"
# Sanitizers add symbols of their own, which start with underscores.
found=$(nm -D --defined-only "$library" | awk '$3 !~ /^_/ {print $3}' | sort | tr '\n' ' ')
[ "${found% }" = "$expected" ] || {
  echo "$library exports: $found" >&2
  echo "expected:         $expected" >&2
  exit 1
}
echo "$library exports $expected"
