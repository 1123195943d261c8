# SPDX-License-Identifier: Apache-2.0
# What the programs are made of is built to be attacked. tests/hardening/check reads the result.
#
# ravo_harden(TARGET...): libraries and programs whose code is ours. Copies of known size are checked, containers check
# their indexes, what is not initialised is zero, the stack grows page by page and its frames are guarded, indirect calls
# and returns are marked for the processor's checks; the program may be loaded anywhere, and its table of calls is read-only
# from the start. The copies' checks need an optimising build; the sanitizers check the same, and find what zeros hide.
include(CheckCXXCompilerFlag)

# A flag that the compiler only warns of is none that it has.
set(CMAKE_REQUIRED_FLAGS -Werror)
set(RAVO_HARDENING -fPIE -fstack-protector-strong -fstack-clash-protection)
check_cxx_compiler_flag(-fcf-protection=full RAVO_HAS_CF_PROTECTION) # x86
if(RAVO_HAS_CF_PROTECTION)
  list(APPEND RAVO_HARDENING -fcf-protection=full)
endif()
check_cxx_compiler_flag(-mbranch-protection=standard RAVO_HAS_BRANCH_PROTECTION) # ARM
if(RAVO_HAS_BRANCH_PROTECTION)
  list(APPEND RAVO_HARDENING -mbranch-protection=standard)
endif()
check_cxx_compiler_flag(-ftrivial-auto-var-init=zero RAVO_HAS_ZERO_INIT) # old clang has it under a longer name only
if(RAVO_HAS_ZERO_INIT AND NOT RAVO_SANITIZE)
  list(APPEND RAVO_HARDENING -ftrivial-auto-var-init=zero)
endif()

unset(CMAKE_REQUIRED_FLAGS)

set(RAVO_HARDENED_LINK -pie -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
if(RAVO_HAS_CF_PROTECTION)
  # Code that the C library brings to each program is not marked itself, and keeps to the rules of a shadow stack.
  list(APPEND RAVO_HARDENED_LINK -Wl,-z,shstk)
endif()

function(ravo_harden)
  foreach(target ${ARGN})
    target_compile_options(${target} PRIVATE ${RAVO_HARDENING})
    target_compile_definitions(${target} PRIVATE _GLIBCXX_ASSERTIONS)
    if(NOT RAVO_SANITIZE)
      # Some compilers, and packagers, set another level by themselves.
      target_compile_options(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                                               $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
    endif()
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      target_link_options(${target} PRIVATE ${RAVO_HARDENED_LINK})
      target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/build_note.cpp)
    endif()
  endforeach()
endfunction()
