# Every option of the build, and the one Python interpreter, in one place.
#
# A bare configure (cmake -S . -B build) needs only a C++17 compiler and CMake:
# it builds the library, tarn and the examples, and every other program and
# binding whose Debian packages are present, naming the packages of those it
# leaves out. Tests are off. The presets in CMakePresets.json turn on the test
# groups (dev turns on all of them); an enabled group whose prerequisites are
# missing fails the configuration with the package names: nothing enabled is
# ever dropped silently.

# --- The control server -------------------------------------------------------
# Compiled into the library: there is no run-time option, file or environment
# variable for it. Loopback by default so that the bundled simulator and the
# tests work out of the box. The port, 6868, is fixed.
set(TARN_SERVER_ADDRESS "127.0.0.1" CACHE STRING "IPv4 address of the control server, compiled into the library")

# --- What is built ------------------------------------------------------------
option(TARN_BUILD_TOOLS "Build tarn, and tarn-sim / tarn-vda5050 / tarn-fleet-view where their packages are present" ON)
option(TARN_BUILD_EXAMPLES "Build the demo and the examples" ON)
option(TARN_BUILD_PYTHON "Build the Python bindings where pybind11 and python3-dev are present" ON)
option(TARN_BUILD_DOCS "Build the API reference with Doxygen (the docs target)" OFF)
option(TARN_BUILD_BENCH "Build the benchmarks (Google Benchmark)" OFF)
option(TARN_BUILD_FUZZ "Build the libFuzzer targets (needs clang)" OFF)
option(TARN_BUILD_TESTS "Build the unit and end-to-end tests (GoogleTest)" OFF)

# --- Test groups that need more than GoogleTest -------------------------------
# Each is on in the dev preset; off, its tests are not registered.
option(TARN_TEST_FORMAT "Check the formatting of every C++ source (clang-format)" OFF)
option(TARN_TEST_PYTHON "Test the Python bindings (pybind11-dev, python3-dev, python3-pytest)" OFF)
option(TARN_TEST_DISSECTOR "Test the wire dissector (tshark, python3-pytest)" OFF)
option(TARN_TEST_PACKAGES "Test the install tree and the Debian packages (dpkg-dev, file, binutils, pkg-config)" OFF)
option(TARN_TEST_BROWSER "Test the live view in headless Chromium (chromium, chromium-driver, python3-selenium)" OFF)
option(TARN_TEST_VDA5050 "Test the VDA 5050 bridge against a broker (mosquitto, python3-paho-mqtt; root)" OFF)

# --- Packaging ----------------------------------------------------------------
set(TARN_PACKAGE_MAINTAINER "TarnSDK maintainers <maintainers@tarnsdk.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")

# --- The Python interpreter -----------------------------------------------------
# One interpreter for the bindings and for every test script: Debian's
# /usr/bin/python3, the one Debian's pybind11, pytest, selenium and paho-mqtt
# belong to. A python3 found first on PATH (a pyenv shim, a virtualenv) would
# build a module for an interpreter that has none of them. Give
# -DPython3_EXECUTABLE=... to choose another.
if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "The Python interpreter of the bindings and the tests")
endif()
find_package(Python3 COMPONENTS Interpreter OPTIONAL_COMPONENTS Development.Module)
# Where the tarnsdk module is installed: where Debian's interpreter looks,
# lib/python3/dist-packages under /usr (the distribution's layout) and
# lib/python3.X/dist-packages under any other prefix (/usr/local by default).
# Elsewhere, point PYTHONPATH at it.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(tarn_python_dir lib/python3/dist-packages)
else()
  set(tarn_python_dir lib/python${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}/dist-packages)
endif()
set(TARN_PYTHON_INSTALL_DIR ${tarn_python_dir} CACHE STRING "Where the tarnsdk module is installed, relative to the prefix")

# tarn_require(<what> <condition> <packages> <switch>): fails the configuration
# when an enabled part lacks what it needs, naming the Debian packages and the
# option that turns the part off.
function(tarn_require what condition packages switch)
  if(NOT ${condition})
    message(FATAL_ERROR "${what} needs the Debian packages ${packages}: install them, or configure with "
                        "-D${switch}=OFF")
  endif()
endfunction()
