// Assertions of the language core: the platform's, under the core's own names.
//
// They guard invariants that the core itself establishes; nothing that a script, a file or an
// operator supplies may reach one. They are active in every build.
#pragma once

#include "lib/platform/assertion.h"

#define psAssertText(condition, text) LATTIX_ASSERT_TEXT(condition, text)
#define psAssert(condition) LATTIX_ASSERT_TEXT(condition, #condition)
