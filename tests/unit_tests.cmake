# SPDX-License-Identifier: Apache-2.0
# How a unit test is built, the fake platform, and the relay's own tests: for this machine (tests/CMakeLists.txt) and
# for others (tests/cross). GTest::gtest and its like are there already.

set(RAVO_TEST_FOLDER ${PROJECT_SOURCE_DIR}/tests)
include(GoogleTest)

# The platform the relay is linked against in its unit tests: it records, prints nothing and can fail on demand.
file(GLOB FAKE_SOURCES CONFIGURE_DEPENDS ${RAVO_TEST_FOLDER}/fake_platform/*.cpp)
add_library(fake_platform STATIC ${FAKE_SOURCES})
target_include_directories(fake_platform PUBLIC ${RAVO_TEST_FOLDER}/fake_platform ${PROJECT_SOURCE_DIR}/platform/h)
target_link_libraries(fake_platform PUBLIC GTest::gtest)

# Tests are compiled for compile time: unoptimised, and with the test framework's headers compiled once.
set(TEST_OPTIONS -O0 -g1)
find_program(RAVO_QUICK_LINKER ld.lld) # there are many programs to link; it takes half the time
if(RAVO_QUICK_LINKER AND NOT CMAKE_CROSSCOMPILING) # it does not know every processor
  set(TEST_LINK_OPTIONS -fuse-ld=lld)
endif()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/test_headers.cpp "// Carries the precompiled headers of the tests.\n")
add_library(test_headers OBJECT ${CMAKE_CURRENT_BINARY_DIR}/test_headers.cpp)
target_compile_options(test_headers PRIVATE ${TEST_OPTIONS})
target_link_libraries(test_headers PRIVATE GTest::gmock GTest::gtest)
target_precompile_headers(test_headers PRIVATE <gtest/gtest.h> <gmock/gmock.h> <algorithm> <array> <functional> <map>
                          <memory> <span> <string> <vector>)

# What `make check` runs: a test program when it was linked anew since it last passed. All output is shown when it fails.
add_custom_target(check_units)
function(ravo_check_runs name program)
  set(passed ${CMAKE_CURRENT_BINARY_DIR}/${name}.passed)
  add_custom_command(
    OUTPUT ${passed}
    COMMAND ${RAVO_TEST_FOLDER}/check/run ${passed} $<TARGET_FILE:${program}> ${ARGN}
    DEPENDS ${program} ${RAVO_TEST_FOLDER}/check/run
    COMMENT "Running ${name}"
    VERBATIM)
  add_custom_target(check_${name} DEPENDS ${passed})
  add_dependencies(check_units check_${name})
endfunction()

# One program a source, so that a test of one subject links and runs by itself.
function(ravo_unit_tests)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;INCLUDES" ${ARGN})
  foreach(source ${ARG_SOURCES})
    get_filename_component(name ${source} NAME_WE)
    add_executable(${name} ${source})
    target_compile_options(${name} PRIVATE ${TEST_OPTIONS})
    target_link_options(${name} PRIVATE ${TEST_LINK_OPTIONS})
    target_precompile_headers(${name} REUSE_FROM test_headers)
    target_include_directories(${name} PRIVATE ${ARG_INCLUDES})
    # The standard library first: what a test library wants of it is not to be taken from an object of the archives,
    # which would come with functions that the test puts its own in place of.
    target_link_libraries(${name} PRIVATE stdc++ ${ARG_LIBRARIES} GTest::gmock GTest::gtest GTest::gtest_main)
    # A busy machine may need more than the usual five seconds to start a program that lists its tests.
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 400)
    ravo_check_runs(${name} ${name})
  endforeach()
endfunction()

# The relay against the fake platform.
file(GLOB UNIT_SOURCES CONFIGURE_DEPENDS ${RAVO_TEST_FOLDER}/unit/user/*_test.cpp)
ravo_unit_tests(SOURCES ${UNIT_SOURCES} LIBRARIES ravo fake_platform INCLUDES ${RAVO_TEST_FOLDER}/support)
list(TRANSFORM UNIT_SOURCES REPLACE "^.*/(.*)[.]cpp$" "\\1" OUTPUT_VARIABLE USER_TESTS)
add_custom_target(user_tests DEPENDS ${USER_TESTS})
