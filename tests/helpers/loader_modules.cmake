# Shared modules that the loader's tests load, built for the tests' own
# architecture; loader_test finds them by their build paths.
add_library(kavro_test_module MODULE ${CMAKE_CURRENT_SOURCE_DIR}/helpers/loader_module.c)
add_library(kavro_test_unresolved MODULE ${CMAKE_CURRENT_SOURCE_DIR}/helpers/loader_unresolved.c)
if(TARGET loader_test)
  add_dependencies(loader_test kavro_test_module kavro_test_unresolved)
  target_compile_definitions(loader_test PRIVATE
    KAVRO_TEST_MODULE="$<TARGET_FILE:kavro_test_module>"
    KAVRO_TEST_UNRESOLVED_MODULE="$<TARGET_FILE:kavro_test_unresolved>")
endif()
