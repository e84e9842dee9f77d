// Assertions of the agent. A failed one ends the process through pfm_assert_fail with the
// assertion's text and, as source file name, the program's name "tavrel_agent" (line numbers still
// point into the source). TAVREL_ASSERT reports the condition as written; TAVREL_ASSERT_TEXT reports
// `text`, for a condition whose written form differs from the text the program is known to report.
#pragma once

#include "base/pfm.h"

#define TAVREL_ASSERT_PROGRAM "tavrel_agent"

#define TAVREL_ASSERT_TEXT(cond, text) \
  ((cond) ? static_cast<void>(0) : pfm_assert_fail(text, TAVREL_ASSERT_PROGRAM, __LINE__, nullptr))
#define TAVREL_ASSERT(cond) TAVREL_ASSERT_TEXT(cond, #cond)
