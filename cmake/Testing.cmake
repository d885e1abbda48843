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

# A small program of known behaviour (exit codes, output, hanging) for the process tests.
add_executable(em_test_child tests/support/TestChild.cpp)
target_link_libraries(em_test_child PRIVATE em_platform)

# An outside program of the repository functions, written in C: it fills the settings record by
# byte offset, as such programs do, and so holds the record's layout to the module file's.
add_executable(em_exports_client tests/support/exports_client.c)
set_target_properties(em_exports_client PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
if(WIN32)
  # wmain: the arguments as UTF-16, whatever the ANSI code page.
  target_compile_options(em_exports_client PRIVATE -municode)
  target_link_options(em_exports_client PRIVATE -municode)
else()
  target_link_libraries(em_exports_client PRIVATE ${CMAKE_DL_LIBS})
endif()

# An engine library as a field engine comes: a shared library built against the engine's header
# alone that exports the one C factory function; the factory tests load it by its path.
add_library(em_test_engine SHARED tests/support/test_engine.cpp)
if(WIN32)
  set_target_properties(em_test_engine PROPERTIES PREFIX "")
endif()

# The test servers (nginx over http and https, tinyproxy with and without authentication, the
# fault server), started once before the tests that need them and stopped after them. Their
# ports and credentials are in servers.env of the state directory.
set(EM_SERVERS_STATE ${CMAKE_BINARY_DIR}/test-servers)
add_test(NAME servers_up COMMAND python3 ${CMAKE_SOURCE_DIR}/tests/support/servers.py up --state ${EM_SERVERS_STATE})
set_tests_properties(servers_up PROPERTIES FIXTURES_SETUP servers)
add_test(NAME servers_down COMMAND python3 ${CMAKE_SOURCE_DIR}/tests/support/servers.py down --state ${EM_SERVERS_STATE})
set_tests_properties(servers_down PROPERTIES FIXTURES_CLEANUP servers)

# What tests that meet the real pieces get: the servers, the transfer tool, the archive stub, the
# tree builder, the test child and the C client of the repository functions.
set(EM_TOOL_ENV
  "EM_TEST_SERVERS=${EM_SERVERS_STATE}/servers.env"
  "EM_FILEDOWNLOAD=$<TARGET_FILE:FileDownLoad>"
  "EM_REPOTOOL=$<TARGET_FILE:repotool>"
  "EM_SFX_STUB=${EM_SFX_STUB}"
  "EM_TEST_CHILD=$<TARGET_FILE:em_test_child>"
  "EM_EXPORTS_CLIENT=$<TARGET_FILE:em_exports_client>"
  "EM_TEST_ENGINE=$<TARGET_FILE:em_test_engine>")

# Unit tests: the module's code linked in statically, one program for all subsystems.
file(GLOB EM_UNIT_SOURCES CONFIGURE_DEPENDS tests/unit/*.cpp)
add_executable(em_unit_tests ${EM_UNIT_SOURCES})
target_link_libraries(em_unit_tests PRIVATE em_core ${EM_GTEST_LIBS})
target_include_directories(em_unit_tests PRIVATE ${CMAKE_SOURCE_DIR})
add_dependencies(em_unit_tests em_test_child em_test_engine repotool em_sfx_stub)
add_test(NAME unit COMMAND em_unit_tests)
set_tests_properties(unit PROPERTIES ENVIRONMENT "${EM_TOOL_ENV}")

# The mirror against the real servers, the transfer tool and the archives.
file(GLOB EM_MIRROR_TEST_SOURCES CONFIGURE_DEPENDS tests/mirror/*.cpp)
if(EM_MIRROR_TEST_SOURCES)
  add_executable(em_mirror_tests ${EM_MIRROR_TEST_SOURCES})
  target_link_libraries(em_mirror_tests PRIVATE em_core ${EM_GTEST_LIBS})
  target_include_directories(em_mirror_tests PRIVATE ${CMAKE_SOURCE_DIR})
  add_dependencies(em_mirror_tests FileDownLoad repotool em_test_child em_sfx_stub)
  add_test(NAME mirror COMMAND em_mirror_tests)
  set_tests_properties(mirror PROPERTIES ENVIRONMENT "${EM_TOOL_ENV}" FIXTURES_REQUIRED servers)
endif()

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
  set_tests_properties(script_${name} PROPERTIES ENVIRONMENT "${EM_TOOL_ENV}" FIXTURES_REQUIRED servers)
endforeach()

# The include-direction check refuses what it must (native only: it reads the source tree).
if(NOT WIN32)
  add_test(NAME lint_include_order COMMAND bash ${CMAKE_SOURCE_DIR}/tests/lint/check_includes_test.sh)
endif()
