# SPDX-License-Identifier: Apache-2.0
# A processor whose numbers begin with their highest byte. Debian: g++-powerpc64-linux-gnu, qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc64)
set(CMAKE_CXX_COMPILER powerpc64-linux-gnu-g++)
set(CMAKE_C_COMPILER powerpc64-linux-gnu-gcc)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc64;-L;/usr/powerpc64-linux-gnu)
