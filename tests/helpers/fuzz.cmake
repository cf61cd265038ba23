# The fuzz targets also build into the replay test of the ordinary builds, fed the checked-in corpus.
file(GLOB fuzz_targets CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/fuzz_*.cpp)
target_sources(fuzz_replay_test PRIVATE ${fuzz_targets})
target_compile_definitions(fuzz_replay_test PRIVATE KAVRO_FUZZ_CORPUS="${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus")
