# SPDX-License-Identifier: Apache-2.0
# What each fuzz target is linked with: the fuzzers and the replay of their corpora use this alike.

# target: a program made of NAME_fuzz.cpp; fake: the fake platform's library. NAME is that of the source.
function(ravo_fuzz_libraries target fake)
  set(name ${target})
  string(REGEX REPLACE "_replay$" "" name ${name})
  if(name MATCHES "^(relay_message|option|conversation)_fuzz$")
    target_link_libraries(${target} PRIVATE ravo ${fake})
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support
                                                 ${PROJECT_SOURCE_DIR}/platform/linux)
  elseif(name MATCHES "^(channel_relay|startup_file)_fuzz$")
    # The relay on its Linux platform, of which the fuzzers replace parts.
    target_link_libraries(${target} PRIVATE ravo ravo_platform_linux PkgConfig::LIBEVENT GTest::gtest)
    target_include_directories(
      ${target} PRIVATE ${PROJECT_SOURCE_DIR}/platform/linux ${PROJECT_SOURCE_DIR}/tests/support
                        ${PROJECT_SOURCE_DIR}/tests/fake_platform)
  elseif(name STREQUAL web_request_fuzz)
    target_link_libraries(${target} PRIVATE ravo_web)
  elseif(name STREQUAL snmp_objects_fuzz)
    target_link_libraries(${target} PRIVATE ravo_snmp)
  else()
    target_link_libraries(${target} PRIVATE ravo_platform_linux PkgConfig::LIBEVENT PkgConfig::LIBMNL)
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/platform/linux
                                                 ${PROJECT_SOURCE_DIR}/protocol ${PROJECT_SOURCE_DIR}/tests/support)
  endif()
endfunction()

# How many neighbours of an input a replay runs: fewer where a run is long.
function(ravo_fuzz_neighbours out name)
  set(${out} --neighbours 2000 PARENT_SCOPE)
  if(name MATCHES "^(conversation|channel_relay|option|relay_message)_fuzz$")
    set(${out} --neighbours 100 PARENT_SCOPE)
  elseif(name STREQUAL cli_line_fuzz)
    set(${out} --neighbours 400 PARENT_SCOPE)
  elseif(name MATCHES "^(startup_file|left_behind)_fuzz$")
    set(${out} --neighbours 60 PARENT_SCOPE)
  endif()
endfunction()
