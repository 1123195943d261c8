// SPDX-License-Identifier: Apache-2.0
// An ELF note in each program, "ravo" of type 1, that says with which settings it was built: macros leave no trace of
// their own in a program. tests/hardening/check reads it.
#include <features.h>

#define RAVO_TEXT_OF(value) #value
#define RAVO_TEXT(value) RAVO_TEXT_OF(value)

#ifndef _FORTIFY_SOURCE
#define _FORTIFY_SOURCE 0
#endif
#ifdef _GLIBCXX_ASSERTIONS
#define RAVO_ASSERTIONS 1
#else
#define RAVO_ASSERTIONS 0
#endif
#ifndef __PIE__
#define __PIE__ 0
#endif

asm(".pushsection .note.ravo, \"a\", %note\n"
    ".balign 4\n"
    ".long 2f - 1f, 4f - 3f, 1\n"
    "1: .asciz \"ravo\"\n"
    "2: .balign 4\n"
    "3: .asciz \"version=" RAVO_VERSION " fortify=" RAVO_TEXT(_FORTIFY_SOURCE) " assertions=" RAVO_TEXT(
        RAVO_ASSERTIONS) " pie=" RAVO_TEXT(__PIE__) "\"\n"
    "4: .balign 4\n"
    ".popsection\n");
