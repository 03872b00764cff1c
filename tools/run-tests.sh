#!/usr/bin/env bash
# Runs every test of the project, after installing the Debian packages it
# lacks:
#   1. the suite (the dev preset, Debug): every test group (unit, fault,
#      end-to-end, install and packaging, Python, dissector, browser,
#      VDA 5050 broker and fleet, format) and the API reference;
#   2. the suite again under AddressSanitizer and UBSan (the asan preset);
#   3. the fuzz targets' smoke runs;
#   4. the demo under valgrind memcheck.
# A missing prerequisite fails its stage (or the configuration) with a
# message; it is never skipped. Opting out is explicit and is reported:
#   bash tools/run-tests.sh [--skip-asan] [--skip-fuzz] [--skip-valgrind]
set -uo pipefail
cd "$(dirname "$0")/.."
source tools/prerequisites.sh

declare -A skip=()
for arg in "$@"; do
  case $arg in
  --skip-asan | --skip-fuzz | --skip-valgrind) skip[${arg#--skip-}]=1 ;;
  -h | --help)
    sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//'
    exit 0
    ;;
  *)
    echo "run-tests: unknown option '$arg' (try --help)" >&2
    exit 2
    ;;
  esac
done

require_packages "${TARN_TEST_PACKAGES[@]}"

# As root, the stages that use the compiled-in port 6868 run in a private
# network namespace with only loopback, so that a simulator or another test
# run on this machine cannot collide with them.
isolated() {
  if [[ $(id -u) -eq 0 ]] && unshare -n true 2>/dev/null; then
    unshare -n bash -c 'ip link set lo up && exec "$@"' isolated "$@"
  else
    "$@"
  fi
}

names=() results=()
passed=0 failed=0 skipped=0
stage() {
  local key=$1 name=$2 start status
  shift 2
  names+=("$name")
  if [[ -n ${skip[$key]:-} ]]; then
    results+=("skipped (--skip-$key)")
    skipped=$((skipped + 1))
    return
  fi
  echo
  echo "==== $name ===="
  start=$SECONDS
  "$@"
  status=$?
  if ((status == 0)); then
    results+=("passed in $((SECONDS - start)) s")
    passed=$((passed + 1))
  else
    results+=("FAILED (status $status) after $((SECONDS - start)) s")
    failed=$((failed + 1))
  fi
}

stage suite "test suite (Debug)" isolated cmake --workflow --preset test
stage asan "test suite under AddressSanitizer and UBSan" isolated cmake --workflow --preset asan
stage fuzz "fuzz smoke runs" cmake --workflow --preset fuzz
stage valgrind "demo under valgrind memcheck" isolated bash tools/valgrind-demo.sh build/dev

echo
echo "==== summary ===="
for i in "${!names[@]}"; do
  printf '  %-46s %s\n' "${names[$i]}" "${results[$i]}"
done
echo "stages: $passed passed, $failed failed, $skipped skipped"
((failed == 0))
