# Debian packages of the two jobs, and the one function that installs what is
# missing. Sourced by tools/demo.sh (the simulator and the demo) and by
# tools/run-tests.sh (every test); not meant to be run on its own.

# The library needs a C++17 compiler and CMake; the simulator's live view
# needs cpp-httplib and nlohmann-json.
TARN_DEMO_PACKAGES=(cmake g++ make libcpp-httplib-dev nlohmann-json3-dev)

TARN_TEST_PACKAGES=(
  "${TARN_DEMO_PACKAGES[@]}"
  pkg-config clang-format                       # consumers of the install tree; the format test
  googletest libgtest-dev libgmock-dev          # the unit suites
  clang libclang-rt-14-dev                      # libFuzzer targets, their smoke runs
  valgrind                                      # the demo under memcheck
  python3 pybind11-dev python3-dev python3-pytest  # end-to-end peers; the Python module, its tests
  tshark                                        # the dissector's test
  dpkg-dev file binutils                        # Debian packages: shlibdeps, unpacking; nm, readelf
  libmosquitto-dev mosquitto mosquitto-clients  # the VDA 5050 bridge, its broker
  python3-paho-mqtt                             # the bridge tests' scripted master
  chromium chromium-driver python3-selenium     # the live view's browser test
  iproute2 util-linux                           # loopback inside private network namespaces
  doxygen graphviz                              # the API reference and its docs test
)

# require_packages NAME...: installs the missing ones with apt-get, saying
# which, or fails when that is not possible. Never skips.
require_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  if [[ $(id -u) -ne 0 ]]; then
    echo "missing Debian packages: ${missing[*]}" >&2
    echo "install them as root: apt-get install ${missing[*]}" >&2
    exit 1
  fi
  echo "installing with apt-get: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q >/dev/null
  apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
  echo "installed: ${missing[*]}"
}
