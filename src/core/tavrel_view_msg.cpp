#include "core/tavrel_view_msg.h"

namespace {

const char* const kViewTexts[132] = {
    /* 0 */ "Error \"%d\" creating view storage directory \"%s\".\n",
    /* 1 */ "View uuid not found for \"%s\".\n",
    /* 2 */ "View type not found for \"%s\".\n",
    /* 3 */ nullptr,
    /* 4 */ "Server information is incomplete or invalid for \"%s\".\n",
    /* 5 */ "Server view tag not found for \"%s\".\n",
    /* 6 */ "View at \"%s\" exists.\n",
    /* 7 */ "Parse error in \"%s\".\n",
    /* 8-10 */ nullptr, nullptr, nullptr,
    /* 11 */ "Interop textmode not found for \"%s\".\n",
    /* 12-13 */ nullptr, nullptr,
    /* 14 */ "View information not found.",
    /* 15-20 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 21 */ "View uuid \"%s\" not valid for \"%s\".\n",
    /* 22-29 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 30-36 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 37 */ "Validation failed for cleartext cache directory \"%s\".\n",
    /* 38 */ "Cleartext cache directories may not be nested. Ancestor of  \"%s\" is a cleartext cache location.\n",
    /* 39-41 */ nullptr, nullptr, nullptr,
    /* 42 */ "View database initialization failed (%d).\n",
    /* 43-49 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 50-59 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 60-69 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 70-79 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 80-89 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 90-99 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 100-109 */ nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 110-114 */ nullptr, nullptr, nullptr, nullptr, nullptr,
    /* 115 */ "Unable to set cache size to %u: minimum size is %u\n",
    /* 116 */ "Unable to set cache size to %u: %s\n",
    /* 117 */ "Unable to save cache size to metadata file\n",
    /* 118-121 */ nullptr, nullptr, nullptr, nullptr,
    /* 122 */ "Error \"%s\" creating cleartext cache directory \"%s\".\n",
    /* 123 */ "View started on wrong host.  This view is registered on host \"%s\".",
    /* 124 */ nullptr,
    /* 125 */ "View storage \"%s\" is not a directory (or is a symbolic link).\n",
    /* 126 */ "View storage \"%s\" belongs to user %d, not to user %d.\n",
    /* 127 */ "View \"%s\" is in use by process %d.\n",
    /* 128 */ "Error \"%s\" taking view lock \"%s\".\n",
    /* 129 */ "Cleartext cache directory \"%s\" belongs to user %d, not to user %d.\n",
    /* 130 */ "Cleartext cache directory \"%s\" is not an absolute path.\n",
    /* 131 */ "Unable to write \"%s\": %s\n",
};

const char* const kBaseTexts[47] = {
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,  // 0-9
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,  // 10-19
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,  // 20-29
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,  // 30-39
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,                                      // 40-45
    /* 46 */ "%s failed: %s\n",
};

}  // namespace

const _imsg_message_table_t _tvr_view_msg_table = {"lib_tavrel_agent", "tvr_lib", 132, kViewTexts};
const _imsg_message_table_t _tvr_view_base_msg_table = {"base", "base", 47, kBaseTexts};
