# SPDX-License-Identifier: Apache-2.0
# What each fuzz target is linked with: the fuzzers and the replay of their corpora use this alike.

# target: a program made of NAME_fuzz.cpp; fake: the fake platform's library. NAME is that of the source.
function(ravo_fuzz_libraries target fake)
  set(name ${target})
  string(REGEX REPLACE "_replay$" "" name ${name})
  if(name STREQUAL relay_message_fuzz OR name STREQUAL option_fuzz)
    target_link_libraries(${target} PRIVATE ravo ${fake})
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
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
