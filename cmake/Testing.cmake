# GoogleTest: Debian's packages natively, built from /usr/src/googletest for the cross build.
if(WIN32)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  set(EM_GTEST_LIBS gmock gtest gtest_main)
  # googletest's own code does not build warning-free under our flags
  foreach(t gtest gtest_main gmock gmock_main)
    if(TARGET ${t})
      target_compile_options(${t} PRIVATE -Wno-error)
    endif()
  endforeach()
else()
  find_package(GTest REQUIRED)
  set(EM_GTEST_LIBS GTest::gmock GTest::gtest GTest::gtest_main)
endif()

# Unit tests: the module's code linked in statically, one program for all subsystems.
file(GLOB EM_UNIT_SOURCES CONFIGURE_DEPENDS tests/unit/*.cpp)
add_executable(em_unit_tests ${EM_UNIT_SOURCES})
target_link_libraries(em_unit_tests PRIVATE em_core ${EM_GTEST_LIBS})
target_include_directories(em_unit_tests PRIVATE ${CMAKE_SOURCE_DIR})
add_test(NAME unit COMMAND em_unit_tests)

# Integration tests: the module file loaded by the test host, as the agent loads it.
file(GLOB EM_INTEGRATION_SOURCES CONFIGURE_DEPENDS tests/integration/*.cpp)
if(EM_INTEGRATION_SOURCES)
add_executable(em_integration_tests ${EM_INTEGRATION_SOURCES})
target_link_libraries(em_integration_tests PRIVATE em_hostlib ${EM_GTEST_LIBS})
target_include_directories(em_integration_tests PRIVATE ${CMAKE_SOURCE_DIR})
add_dependencies(em_integration_tests EM_MENDER)
add_test(NAME integration COMMAND em_integration_tests)
set_tests_properties(integration PROPERTIES
  ENVIRONMENT "EM_MENDER_MODULE=$<TARGET_FILE:EM_MENDER>")
endif()

# Scripted runs of the host program against the module file.
if(WIN32)
  set(EM_RUN_PREFIX ${CMAKE_SOURCE_DIR}/scripts/wine-run)
else()
  set(EM_RUN_PREFIX "")
endif()
file(GLOB EM_SCRIPT_TESTS CONFIGURE_DEPENDS tests/scripts/*.sh)
if(NOT TARGET nwhost)
  set(EM_SCRIPT_TESTS "")
endif()
foreach(script ${EM_SCRIPT_TESTS})
  get_filename_component(name ${script} NAME_WE)
  add_test(NAME script_${name}
           COMMAND bash ${script} $<TARGET_FILE:nwhost> $<TARGET_FILE:EM_MENDER> "${EM_RUN_PREFIX}")
endforeach()

# The include-direction check refuses what it must (native only: it reads the source tree).
if(NOT WIN32)
  add_test(NAME lint_include_order COMMAND bash ${CMAKE_SOURCE_DIR}/tests/lint/check_includes_test.sh)
endif()
