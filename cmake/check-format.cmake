# Fails when a C++ source of the project differs from what clang-format makes
# of it. Run as: cmake -DCLANG_FORMAT=<exe> -DSOURCE_DIR=<repo> -P check-format.cmake
file(GLOB_RECURSE sources RELATIVE ${SOURCE_DIR}
     ${SOURCE_DIR}/msg/*.[ch]* ${SOURCE_DIR}/net/*.[ch]* ${SOURCE_DIR}/robot/*.[ch]*
     ${SOURCE_DIR}/tools/*.cpp ${SOURCE_DIR}/tools/*.h ${SOURCE_DIR}/examples/*.cpp
     ${SOURCE_DIR}/tests/*.cpp ${SOURCE_DIR}/tests/*.h ${SOURCE_DIR}/bench/*.cpp
     ${SOURCE_DIR}/bench/*.h ${SOURCE_DIR}/fuzz/*.cpp ${SOURCE_DIR}/fuzz/*.h
     ${SOURCE_DIR}/python/*.cpp)
set(unformatted "")
foreach(source IN LISTS sources)
  execute_process(COMMAND ${CLANG_FORMAT} --dry-run -Werror ${source}
                  WORKING_DIRECTORY ${SOURCE_DIR} RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
  if(NOT status EQUAL 0)
    list(APPEND unformatted ${source})
  endif()
endforeach()
list(LENGTH sources checked)
if(unformatted)
  list(JOIN unformatted "\n  " listing)
  message(FATAL_ERROR "not formatted with clang-format (run clang-format -i on them):\n  ${listing}")
endif()
message(STATUS "${checked} sources formatted with clang-format")
