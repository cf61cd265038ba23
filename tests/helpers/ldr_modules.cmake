# Modules the loader's tests load, built for the tests' own architecture.
add_library(kavro_test_module MODULE ${CMAKE_CURRENT_SOURCE_DIR}/helpers/ldr_module.c)
add_library(kavro_test_unresolved MODULE ${CMAKE_CURRENT_SOURCE_DIR}/helpers/ldr_unresolved.c)
add_dependencies(ldr_test kavro_test_module kavro_test_unresolved)
target_compile_definitions(ldr_test PRIVATE KAVRO_TEST_MODULE="$<TARGET_FILE:kavro_test_module>"
  KAVRO_TEST_UNRESOLVED_MODULE="$<TARGET_FILE:kavro_test_unresolved>")
