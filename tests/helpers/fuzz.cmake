# The fuzz targets also build into the replay test of the ordinary builds, fed the checked-in corpus.
foreach(t format proc_net_dev registry sysconfig_clock version)
  target_sources(fuzz_replay_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/fuzz_${t}.cpp)
endforeach()
target_compile_definitions(fuzz_replay_test PRIVATE KAVRO_FUZZ_CORPUS="${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus")
