#!/usr/bin/env bash
# Checks of the installed tree and of the Debian packages, one per CTest test:
#   install-checks.sh tree      <cmake> <build dir> <config> <prefix>
#   install-checks.sh layout    <prefix> <libdir> <readelf> <public header>...
#   install-checks.sh exports   <prefix> <libdir> <nm> <expected list>
#   install-checks.sh unload    <prefix> <libdir> <unload program>
#   install-checks.sh cmake     <prefix> <libdir> <cmake> <generator> <c++> <minimal src> <work dir> <status>
#   install-checks.sh pkgconfig <prefix> <libdir> <cmake> <generator> <c++> <minimal src> <work dir> <status>
#   install-checks.sh deb       <cpack> <build dir> <config> <package>... -- <libdir> <cmake> <generator> <c++>
#                               <minimal src> <work dir> <status>
# <status> is the exit status the minimal program documents for "no server".
set -uo pipefail

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# Runs the minimal program with nobody listening on the control port (the
# test holds the port lock) and checks that it loaded, tried to connect and
# gave up the documented way.
run_minimal() {
  local program=$1 out status
  # The port lock keeps this CTest run's own servers away; a server started
  # by some other run on this machine is waited out (passively: connecting to
  # it would disturb whoever uses it).
  for _ in $(seq 120); do [[ -z $(ss -Hltn 'sport = :6868' 2>/dev/null) ]] && break || sleep 0.5; done
  out=$(timeout 30 "$program" 2>&1)
  status=$?
  grep -qxF 'Can Not Connect Server !' <<<"$out" || fail "$program did not print the connection failure line: $out"
  [[ $status -eq $no_server_status ]] || fail "$program exited with $status, expected $no_server_status"
}

# Copies the minimal example to <dir>, with its events.h include rewritten to
# <form>: "tree" ("robot/events.h" and the other public headers, as inside
# this project) or "conventional" (<TarnSDK/robot/events.h> and the others).
example_in_form() {
  local form=$1 dir=$2 includes
  includes='#include "msg/msg.h"\n#include "net/Socket.h"\n#include "robot/robot.h"\n#include "robot/events.h"'
  [[ $form == conventional ]] && includes='#include <TarnSDK/msg/msg.h>\n#include <TarnSDK/net/Socket.h>\n#include <TarnSDK/robot/robot.h>\n#include <TarnSDK/robot/events.h>'
  mkdir -p "$dir"
  cp -r "$src/." "$dir/"
  sed -E "s|^#include [<\"](TarnSDK/)?robot/events\.h[>\"]$|$includes|" "$src/main.cpp" >"$dir/main.cpp"
  grep -qF "${includes##*\\n}" "$dir/main.cpp" || fail "$src/main.cpp has no events.h include to rewrite"
}

# Builds the example in both include forms through the CMake package found
# under <prefix path>, and runs each.
through_cmake() {
  for form in tree conventional; do
    local dir=$work/cmake-$form
    example_in_form $form "$dir"
    { timeout 120 "$cmake" -S "$dir" -B "$dir/build" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
      -DCMAKE_PREFIX_PATH="$1" -DCMAKE_BUILD_TYPE=Release && timeout 180 "$cmake" --build "$dir/build"; } \
      >"$dir.log" 2>&1 || fail "$form form through the CMake package: $(cat "$dir.log")"
    run_minimal "$dir/build/app"
  done
}

# The same through pkg-config, whose extra arguments are given; the rpath
# is the one the README teaches.
through_pkgconfig() {
  local flags libdir
  flags=$(pkg-config "$@" --cflags --libs tarnsdk) || fail "pkg-config does not know tarnsdk"
  libdir=$(pkg-config "$@" --variable=libdir tarnsdk)
  [[ "$flags $libdir" != *"/."* && $libdir == /* ]] || fail "pkg-config paths not normalised: $flags; $libdir"
  for form in tree conventional; do
    example_in_form $form "$work/pc-$form"
    # The conventional form must need no more than <prefix>/include: that
    # is all a compiler's default search path gives for a /usr install.
    [[ $form == conventional ]] && flags=$(sed -E 's#-I[^ ]*/include/TarnSDK( |$)##' <<<"$flags")
    # Word splitting of $flags is intended: it is a command-line fragment.
    # shellcheck disable=SC2086
    timeout 180 "$cxx" -std=c++17 "$work/pc-$form/main.cpp" -o "$work/pc-$form/app" $flags -Wl,-rpath,"$libdir" ||
      fail "$form form with pkg-config flags does not compile"
    run_minimal "$work/pc-$form/app"
  done
}

check=$1
shift
case $check in
tree)
  cmake=$1 build=$2 config=$3 prefix=$4
  rm -rf "$prefix"
  timeout 120 "$cmake" --install "$build" --config "$config" --prefix "$prefix" || fail "cmake --install failed"
  ;;

layout)
  prefix=$1 libdir=$2 readelf=$3
  shift 3
  lib=$prefix/$libdir
  # Exactly the public headers: nothing internal rides along.
  wanted=$(printf "$prefix/include/TarnSDK/%s\n" "$@" | sort)
  [[ $(find "$prefix/include" -type f | sort) == "$wanted" ]] || fail "headers installed: $(find "$prefix/include" -type f)"
  [[ $(readlink "$lib/libTarnSDK.so") == libTarnSDK.so.1 ]] || fail "libTarnSDK.so does not link to libTarnSDK.so.1"
  real=$(readlink "$lib/libTarnSDK.so.1")
  [[ $real =~ ^libTarnSDK\.so\.1\.[0-9]+\.[0-9]+$ && -f $lib/$real ]] || fail "libTarnSDK.so.1 -> '$real'"
  "$readelf" -d "$lib/$real" | grep -qF 'Library soname: [libTarnSDK.so.1]' || fail "SONAME is not libTarnSDK.so.1"
  # Installed programs find the library through their rpath (the packaged ones are the same files).
  for program in "$prefix"/bin/*; do
    env -u LD_LIBRARY_PATH ldd "$program" | grep -q 'libTarnSDK.so.1 => not found' && fail "$program cannot find libTarnSDK.so.1"
  done
  echo "layout ok"
  ;;

exports)
  prefix=$1 libdir=$2 nm=$3 expected=$4
  # Type, demangled name and version node of every exported definition.
  actual=$("$nm" -DC --defined-only "$prefix/$libdir/libTarnSDK.so.1" | sed -E 's/^[0-9a-f]* //' | LC_ALL=C sort -u) ||
    fail "nm failed"
  diff <(LC_ALL=C sort -u "$expected") <(cat <<<"$actual") || fail "exported symbols differ from $expected (< expected, > exported)"
  echo "exports ok: $(wc -l <<<"$actual") symbols"
  ;;

unload)
  "$3" "$1/$2/libTarnSDK.so.1" || fail "the library did not unload cleanly"
  ;;

cmake | pkgconfig)
  prefix=$1 libdir=$2 cmake=$3 generator=$4 cxx=$5 src=$6 work=$7 no_server_status=$8
  rm -rf "$work"
  if [[ $check == pkgconfig ]]; then
    PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig through_pkgconfig
    echo "pkg-config consumers ok"
    exit 0
  fi
  through_cmake "$prefix"
  # The package's version file: the same major version is found, another is not.
  printf '%s\n' 'cmake_minimum_required(VERSION 3.16)' 'project(probe LANGUAGES NONE)' \
    'find_package(TarnSDK ${WANT} CONFIG REQUIRED)' >"$work/CMakeLists.txt"
  timeout 60 "$cmake" -S "$work" -B "$work/ok" -DWANT=1.0 -DCMAKE_PREFIX_PATH="$prefix" >"$work/ok.log" 2>&1 ||
    fail "find_package(TarnSDK 1.0) failed: $(cat "$work/ok.log")"
  timeout 60 "$cmake" -S "$work" -B "$work/v2" -DWANT=2.0 -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1 &&
    fail "find_package(TarnSDK 2.0) accepted version 1"
  echo "cmake consumers ok"
  ;;

deb)
  cpack=$1 build=$2 config=$3
  shift 3
  packages=()
  while [[ $1 != -- ]]; do packages+=("$1") && shift; done
  libdir=$2 cmake=$3 generator=$4 cxx=$5 src=$6 work=$7 no_server_status=$8
  rm -rf "$work"
  timeout 300 "$cpack" -G DEB -C "$config" -B "$work/debs" --config "$build/CPackConfig.cmake" >"$work.log" 2>&1 ||
    fail "cpack failed: $(cat "$work.log")"
  version=$(sed -nE 's/^set\(CPACK_PACKAGE_VERSION "(.*)"\)$/\1/p' "$build/CPackConfig.cmake")
  for package in "${packages[@]}"; do
    deb=$(echo "$work/debs/${package}_${version}_"*.deb)
    [[ -f $deb ]] || fail "no package $package $version among: $(ls "$work/debs")"
    dpkg-deb -x "$deb" "$work/root" || fail "cannot unpack $deb"
    depends=$(dpkg-deb -f "$deb" Depends)
    [[ $package == libtarnsdk1 || $depends == *"libtarnsdk1 (= $version)"* ]] || fail "$package depends on: $depends"
    [[ $package == libtarnsdk-dev || $depends == *"libc6 (>= "* ]] || fail "$package: no computed dependencies: $depends"
  done
  [[ $(ls "$work/debs"/*.deb | wc -l) -eq ${#packages[@]} ]] || fail "unexpected packages: $(ls "$work/debs")"
  [[ $(dpkg-deb -I "$work/debs/libtarnsdk1_${version}_"*.deb shlibs) == "libTarnSDK 1 libtarnsdk1 (>= $version)" ]] ||
    fail "libtarnsdk1's shlibs file is not: libTarnSDK 1 libtarnsdk1 (>= $version)"
  # A build with the API reference ships it in the development package.
  [[ ! -f $build/docs/html/index.html || -f $work/root/usr/share/doc/TarnSDK/html/index.html ]] ||
    fail "libtarnsdk-dev does not carry the API reference"
  through_cmake "$work/root/usr"
  PKG_CONFIG_PATH=$work/root/usr/$libdir/pkgconfig through_pkgconfig --define-variable=prefix="$work/root/usr"
  if [[ " ${packages[*]} " == *" python3-tarnsdk "* ]]; then
    module=$(find "$work/root" -name 'tarnsdk*.so')
    PYTHONPATH=$(dirname "$module") python3 -c 'import tarnsdk' || fail "the Python package's module does not load"
  fi
  echo "Debian packages ok: ${packages[*]}"
  ;;

*)
  fail "unknown check '$check'"
  ;;
esac
