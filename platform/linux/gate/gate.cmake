# SPDX-License-Identifier: Apache-2.0
# The gate's program, which the kernel runs: compiled for the kernel's machine and wrapped into a header.
find_program(CLANG clang REQUIRED)
find_program(BPFTOOL bpftool PATHS /usr/sbin /sbin REQUIRED)
set(GATE_FOLDER ${CMAKE_BINARY_DIR}/gate)
file(MAKE_DIRECTORY ${GATE_FOLDER})
add_custom_command(
  OUTPUT ${GATE_FOLDER}/gate.skel.h
  COMMAND ${CLANG} -target bpf -mcpu=v3 -O2 -g -Wall -Wextra -Werror -isystem /usr/include/${CMAKE_LIBRARY_ARCHITECTURE}
          -c ${CMAKE_CURRENT_LIST_DIR}/gate.bpf.c -o gate.o
  COMMAND ${BPFTOOL} gen object gate.linked.o gate.o
  COMMAND ${BPFTOOL} gen skeleton gate.linked.o name gate_program > gate.skel.h
  DEPENDS ${CMAKE_CURRENT_LIST_DIR}/gate.bpf.c ${CMAKE_CURRENT_LIST_DIR}/gate_records.h
  WORKING_DIRECTORY ${GATE_FOLDER}
  COMMENT "Building the gate's program"
  VERBATIM)
add_custom_target(gate_program DEPENDS ${GATE_FOLDER}/gate.skel.h)
