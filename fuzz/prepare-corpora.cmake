# Writes the seed corpora and gives every smoke run an empty working corpus,
# so that each run starts from the same seeds and is reproducible.
execute_process(COMMAND ${SEEDER} ${SEEDS} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "seed writer failed: ${rc}")
endif()
file(REMOVE_RECURSE ${SMOKE})
foreach(dir fuzz_message_decode fuzz_recv fuzz_robot_handle)
  file(MAKE_DIRECTORY ${SMOKE}/${dir})
endforeach()
