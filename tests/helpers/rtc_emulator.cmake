# The emulated /dev/rtc preloaded by the tick and CMOS tests (see helpers/rtc_emulator.c).
add_library(rtc_emulator SHARED ${CMAKE_CURRENT_SOURCE_DIR}/helpers/rtc_emulator.c)
target_link_libraries(rtc_emulator PRIVATE Threads::Threads ${CMAKE_DL_LIBS})
foreach(t cmos_test tmr_rtc_test)
  target_compile_definitions(${t} PRIVATE KAVRO_RTC_EMULATOR_PATH="$<TARGET_FILE:rtc_emulator>")
  add_dependencies(${t} rtc_emulator)
endforeach()
