# Fuzz targets (tests/fuzz/<name>_fuzz.cpp, each with LLVMFuzzerTestOneInput) and their seed
# corpora (tests/fuzz/corpus/<name>/).
# - EM_FUZZ=ON (preset "fuzz", clang): libFuzzer programs with AddressSanitizer and UBSan, run by
#   scripts/fuzz.sh for as long as asked.
# - otherwise, in the native build: each target is linked with a replay driver and the test
#   command replays its committed corpus (seconds), so a fixed fault found by fuzzing stays fixed.
file(GLOB EM_FUZZ_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/fuzz/*_fuzz.cpp)
foreach(src ${EM_FUZZ_SOURCES})
  get_filename_component(name ${src} NAME_WE)
  string(REGEX REPLACE "_fuzz$" "" corpus ${name})
  if(EM_FUZZ)
    add_executable(${name} ${src})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(${name} ${src} ${CMAKE_SOURCE_DIR}/tests/fuzz/ReplayMain.cpp)
    add_test(NAME fuzz_replay_${corpus} COMMAND ${name} ${CMAKE_SOURCE_DIR}/tests/fuzz/corpus/${corpus})
  endif()
  target_link_libraries(${name} PRIVATE em_core)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR})
endforeach()
