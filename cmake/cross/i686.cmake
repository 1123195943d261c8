# SPDX-License-Identifier: Apache-2.0
# A processor with pointers of 32 bits. Debian: g++-i686-linux-gnu. Its programs run on a 64-bit PC as they are,
# started with their own loader. (Under qemu-i386 7.2 a child that aborts never ends, nor does its test.)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/i686-linux-gnu/lib/ld-linux.so.2;--library-path;/usr/i686-linux-gnu/lib)
