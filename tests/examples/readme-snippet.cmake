# The README's application snippet is the minimal example itself, verbatim,
# so that the code a reader copies is the code the build compiles.
file(READ ${README} readme)
file(READ ${SOURCE} source)
string(FIND "${readme}" "```cpp\n${source}```\n" at)
if(at EQUAL -1)
  message(FATAL_ERROR "README.md does not quote ${SOURCE} verbatim in a ```cpp block")
endif()
