#!/usr/bin/env bash
# Runs every test of the project: the suite (Debug), the suite again under
# AddressSanitizer + UBSan, the fuzz targets' smoke runs, and the demo under
# valgrind memcheck. Stops at the first stage that fails.
set -euo pipefail
cd "$(dirname "$0")/.."

passed=0
stage() {
  echo
  echo "==== $1 ===="
  shift
  "$@"
  passed=$((passed + 1))
}

stage "test suite" cmake --workflow --preset test
stage "test suite under AddressSanitizer and UBSan" cmake --workflow --preset asan
if command -v clang++ >/dev/null && compgen -G "/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a" >/dev/null; then
  stage "fuzz smoke runs" cmake --workflow --preset fuzz
else
  echo "clang with libFuzzer not found: fuzz smoke runs skipped" >&2
fi
if [[ -f tools/valgrind-demo.sh ]] && command -v valgrind >/dev/null; then
  stage "demo under valgrind memcheck" bash tools/valgrind-demo.sh build/dev
fi
echo
echo "stages: ${passed} passed, 0 failed"
