#!/usr/bin/env bash
# Checks of the installed tree, one per CTest test:
#   install-checks.sh tree      <cmake> <build dir> <config> <prefix>
#   install-checks.sh layout    <prefix> <libdir> <readelf>
#   install-checks.sh exports   <prefix> <libdir> <nm>
#   install-checks.sh cmake     <prefix> <cmake> <generator> <c++> <minimal src> <work dir> <status>
#   install-checks.sh pkgconfig <prefix> <libdir> <c++> <minimal src> <work dir> <status>
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
  local program=$1 expected_status=$2 out status
  # The port lock keeps this CTest run's own servers away; a server started
  # by some other run on this machine is waited out (passively: connecting to
  # it would disturb whoever uses it).
  if command -v ss >/dev/null; then
    for _ in $(seq 120); do
      [[ -z $(ss -Hltn 'sport = :6868') ]] && break
      sleep 0.5
    done
  fi
  out=$(timeout 30 "$program" 2>&1)
  status=$?
  printf '%s\n' "$out"
  grep -qxF 'Can Not Connect Server !' <<<"$out" || fail "$program did not print the connection failure line"
  [[ $status -eq $expected_status ]] || fail "$program exited with $status, expected $expected_status"
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
  lib=$prefix/$libdir
  for header in msg/msg.h tarn_export.h net/Socket.h robot/robot.h; do
    [[ -f $prefix/include/TarnSDK/$header ]] || fail "public header $header not installed"
  done
  # Exactly the four public headers: nothing internal rides along.
  extra=$(find "$prefix/include" -type f | grep -vE '/include/TarnSDK/(msg/msg|tarn_export|net/Socket|robot/robot)\.h$')
  [[ -z $extra ]] || fail "unexpected files under include/: $extra"
  [[ $(readlink "$lib/libTarnSDK.so") == libTarnSDK.so.1 ]] || fail "libTarnSDK.so does not link to libTarnSDK.so.1"
  real=$(readlink "$lib/libTarnSDK.so.1")
  [[ $real =~ ^libTarnSDK\.so\.1\.[0-9]+\.[0-9]+$ && -f $lib/$real ]] || fail "libTarnSDK.so.1 -> '$real'"
  "$readelf" -d "$lib/$real" | grep -qF 'Library soname: [libTarnSDK.so.1]' || fail "SONAME is not libTarnSDK.so.1"
  for file in cmake/TarnSDK/TarnSDKConfig.cmake cmake/TarnSDK/TarnSDKConfigVersion.cmake \
    cmake/TarnSDK/TarnSDKTargets.cmake pkgconfig/tarnsdk.pc; do
    [[ -f $lib/$file ]] || fail "$libdir/$file not installed"
  done
  # The programs that were built are installed and find the library by rpath.
  for program in "$prefix"/bin/*; do
    [[ -e $program ]] || continue
    env -u LD_LIBRARY_PATH ldd "$program" | grep -q 'libTarnSDK.so.1 => not found' && fail "$program cannot find libTarnSDK.so.1"
  done
  echo "layout ok"
  ;;

exports)
  prefix=$1 libdir=$2 nm=$3
  symbols=$("$nm" -DC --defined-only "$prefix/$libdir/libTarnSDK.so.1") || fail "nm failed"
  names=$(sed -E 's/^[0-9a-f]* *[A-Za-z] //' <<<"$symbols")
  for wanted in 'Robot::Robot()' 'Robot::~Robot()' 'Robot::Handle()' 'Robot::Init(float, float, float)' \
    'Robot::Kill()' 'Robot::SetPosition(float, float, float)' 'Robot::SetVelocity(int)' \
    'Robot::SetAcceleration(int)' 'Robot::SetOrientation(float)' 'Robot::GetDetial()' \
    'Socket::Socket()' 'Socket::~Socket()' 'Socket::Create()' 'Socket::Accpet_client()' \
    'Socket::Set_non_blocking(bool)' 'Socket::Get(int)' 'typeinfo for SocketException' \
    'QrInfo_RTS::QrInfo_RTS()' 'QrInfo_RTS::operator==(QrInfo_RTS const&) const' \
    'Message_RTS::Message_RTS()' 'recv_msg(Socket&, MailBox&)' 'send_msg(Socket&, Message_RTS&)' \
    'ShowCerts(ssl_st*)' 'm_socket' 'm_msg' 'acts'; do
    grep -qxF "$wanted" <<<"$names" || fail "not exported: $wanted"
  done
  for prefix_wanted in 'Robot::SetPosition(std::deque<' 'Robot::DebugString' 'Action_RTS::Action_RTS(' \
    'Action_RTS::str' 'Action_RTS::decode(' 'Message_RTS::str' 'Message_RTS::decode(' \
    'Socket::Client_init(' 'Socket::Server_init(' 'Socket::Send(' 'Socket::Recv('; do
    grep -qF "$prefix_wanted" <<<"$names" || fail "not exported: $prefix_wanted..."
  done
  # Everything else must be either the public interface or a vague-linkage
  # instance of a standard template or constant (weak or unique: emitted
  # wherever it is used, and merged at load time).
  public='^(Robot::|Socket::|SocketException::|QrInfo_RTS::|QrInfo_ARC::|Action_RTS::|Message_RTS::|MailBox::|(typeinfo|typeinfo name|vtable) for (Socket|SocketException|Robot|Message_RTS|Action_RTS|QrInfo_RTS|QrInfo_ARC|MailBox)$|send_msg\(|recv_msg\(|ShowCerts\(|m_socket$|m_msg$|acts$|_init$|_fini$)'
  private=$(sed -E 's/^[0-9a-f]* *//' <<<"$symbols" | grep -vE '^[WVu] .*(std::|__gnu_cxx::)' |
    sed -E 's/^[A-Za-z] //' | grep -vE "$public")
  [[ -z $private ]] || fail "private symbols exported:"$'\n'"$private"
  for internal in rts_id server_id robot_id rms_id arm_id undef Send2server Send2robot decode_message file_frame; do
    grep -qE "(^|[^A-Za-z0-9_])$internal([^A-Za-z0-9_]|$)" <<<"$names" && fail "internal name exported: $internal"
  done
  echo "exports ok: $(wc -l <<<"$names") symbols"
  ;;

cmake)
  prefix=$1 cmake=$2 generator=$3 cxx=$4 src=$5 work=$6 status=$7
  rm -rf "$work"
  mkdir -p "$work"
  timeout 120 "$cmake" -S "$src" -B "$work/build" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release || fail "configuring the minimal example failed"
  timeout 180 "$cmake" --build "$work/build" || fail "building the minimal example failed"
  program=$(find "$work/build" -maxdepth 1 -type f -executable -name app)
  [[ -n $program ]] || fail "no program 'app' built"
  run_minimal "$program" "$status"

  # The package's version file: the same major version is found, another is not.
  probe=$work/probe
  mkdir -p "$probe"
  printf '%s\n' 'cmake_minimum_required(VERSION 3.16)' 'project(probe LANGUAGES NONE)' \
    'find_package(TarnSDK ${WANT} CONFIG REQUIRED)' \
    'if(NOT TARGET TarnSDK::TarnSDK)' '  message(FATAL_ERROR "no TarnSDK::TarnSDK")' 'endif()' \
    'message(STATUS "found TarnSDK ${TarnSDK_VERSION}")' >"$probe/CMakeLists.txt"
  timeout 60 "$cmake" -S "$probe" -B "$probe/ok" -DWANT=1.0 -DCMAKE_PREFIX_PATH="$prefix" >"$probe/ok.log" 2>&1 ||
    fail "find_package(TarnSDK 1.0) failed: $(cat "$probe/ok.log")"
  grep -q 'found TarnSDK 1\.' "$probe/ok.log" || fail "unexpected version: $(cat "$probe/ok.log")"
  timeout 60 "$cmake" -S "$probe" -B "$probe/major" -DWANT=2.0 -DCMAKE_PREFIX_PATH="$prefix" >"$probe/major.log" 2>&1 &&
    fail "find_package(TarnSDK 2.0) accepted version 1"
  echo "cmake consumer ok"
  ;;

pkgconfig)
  prefix=$1 libdir=$2 cxx=$3 src=$4 work=$5 status=$6
  rm -rf "$work"
  mkdir -p "$work"
  export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
  flags=$(pkg-config --cflags --libs tarnsdk) || fail "pkg-config does not know tarnsdk"
  grep -qE -- "-I[^ ]*/include/TarnSDK( |$)" <<<"$flags" || fail "no include directory in: $flags"
  grep -qE -- "(^| )-lTarnSDK( |$)" <<<"$flags" || fail "no -lTarnSDK in: $flags"
  # Word splitting of $flags is intended: it is a command-line fragment.
  # shellcheck disable=SC2086
  timeout 180 "$cxx" -std=c++17 "$src/main.cpp" -o "$work/app" $flags \
    -Wl,-rpath,"$(pkg-config --variable=libdir tarnsdk)" || fail "compiling with pkg-config flags failed"
  run_minimal "$work/app" "$status"
  echo "pkg-config consumer ok"
  ;;

*)
  fail "unknown check '$check'"
  ;;
esac
