# Install-time half of the pkg-config file: runs inside cmake --install (and
# CPack), where CMAKE_INSTALL_PREFIX is the prefix really installed to.
# Expects TARN_PC_TEMPLATE, TARN_PC_LIBDIR, TARN_PC_INCLUDEDIR (relative to the
# prefix, or absolute), PROJECT_DESCRIPTION and PROJECT_VERSION.

# "/opt/x/", "/opt/./x" and "/opt/y/../x" all become "/opt/x".
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE prefix)
string(REGEX REPLACE "(.)/$" "\\1" prefix "${prefix}")

# Directories under the prefix are written relative to ${prefix}, so that
# --define-variable=prefix=... relocates all of them at once.
foreach(kind LIBDIR INCLUDEDIR)
  set(dir "${TARN_PC_${kind}}")
  if(NOT IS_ABSOLUTE "${dir}")
    set(dir "${prefix}/${dir}")
  endif()
  cmake_path(NORMAL_PATH dir)
  string(REGEX REPLACE "(.)/$" "\\1" dir "${dir}")
  string(TOLOWER ${kind} var)
  set(${var}_abs "${dir}")
  cmake_path(IS_PREFIX prefix "${dir}" NORMALIZE under_prefix)
  if(under_prefix AND NOT prefix STREQUAL "/")
    string(LENGTH "${prefix}" length)
    string(SUBSTRING "${dir}" ${length} -1 rest)
    set(dir "\${prefix}${rest}")
  endif()
  set(TARN_PC_${kind}_VALUE "${dir}")
endforeach()

set(TARN_PC_PREFIX "${prefix}")
set(TARN_PC_LIBDIR "${TARN_PC_LIBDIR_VALUE}")
set(TARN_PC_INCLUDEDIR "${TARN_PC_INCLUDEDIR_VALUE}")
set(file "${libdir_abs}/pkgconfig/tarnsdk.pc")
message(STATUS "Installing: $ENV{DESTDIR}${file}")
configure_file("${TARN_PC_TEMPLATE}" "$ENV{DESTDIR}${file}" @ONLY)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${file}")
