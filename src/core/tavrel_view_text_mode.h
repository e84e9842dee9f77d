// Text modes of a view: how the view presents line ends of text files. The mode is part of every
// cleartext cache file name and of the cleartext URL, so it must have one canonical spelling.
//
// Known modes: "unix" (contents as stored) and "msdos" (lines end in CR LF). Parsing ignores case and
// surrounding white space; anything else is refused.
#pragma once

#include <string>

#include "base/tbs.h"

enum tbs_text_mode_t { TBS_TEXT_MODE_UNIX = 0, TBS_TEXT_MODE_MSDOS = 1 };

// 0, or TBS_ST_BAD_ARG (and *mode unchanged) for a name that is not a known mode.
tbs_status_t tbs_str_to_text_mode(const std::string& text, tbs_text_mode_t* mode);
// The canonical name of a mode; empty for a value outside the enumeration.
std::string tbs_text_mode_to_str(tbs_text_mode_t mode);
