# Included by cpack for each generator it runs. The packages install under /usr
# whatever the build was configured for, but the library directory and the
# Python module's directory were chosen at configure time from the prefix.
if(CPACK_GENERATOR STREQUAL "DEB" AND NOT CPACK_TARN_CONFIGURED_PREFIX STREQUAL "/usr")
  message(WARNING "This build was configured for ${CPACK_TARN_CONFIGURED_PREFIX}: the packages will not use "
                  "Debian's multiarch library directory, and Python will not find the module. "
                  "Configure with -DCMAKE_INSTALL_PREFIX=/usr to build packages for installation.")
endif()
