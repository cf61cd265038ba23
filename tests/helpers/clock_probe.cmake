# A program linked against the shared library, to show that its clock calls
# are the library's and not the C library's.
add_executable(clock_probe ${CMAKE_CURRENT_SOURCE_DIR}/helpers/clock_probe.c)
target_link_libraries(clock_probe PRIVATE kavro_rt)
if(TARGET clock_test)
  target_compile_definitions(clock_test PRIVATE KAVRO_CLOCK_PROBE_PATH="$<TARGET_FILE:clock_probe>")
  add_dependencies(clock_test clock_probe)
endif()
