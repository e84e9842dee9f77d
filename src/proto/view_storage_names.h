// Names in a view's storage directory (mode 0700, owned by the agent's user), and the marker of a
// cleartext cache directory. The agent makes and owns them; the command line, the module daemon and
// the tests find a view's files by these names.
//
//   .tavrel              metadata file, format in proto/view_metadata.h
//   .pid                 view lock: the holder's decimal pid and a newline, under a POSIX write lock
//   .hostname            the host the view was made on (base/server.h writes and reads it)
//   .ipc/rlistener       FIFO where a client announces itself with one line, its id
//   .ipc/request_<id>    the client's request FIFO, made by the agent for that announcement
//   .ipc/response_<id>   the client's response FIFO, likewise
//   .ripc                the path Tavrel_View::get_ipc_path names; nothing is made there today
//   log/tvr.log          the view's log
//   .mounted_silos       the SILOs mounted in the view, kept over restarts
//   .config_spec         the view's element rules as last saved; .config_spec_tkm for the other set
//   <cache dir>/.cltxt_cache   an empty file that marks a cleartext cache directory
//
// Each name is a plain array so that `storage + "/" + VIEW_STG_LOCK` builds a path.
#pragma once

#include "base/server.h"

inline constexpr char VIEW_STG_METADATA[] = ".tavrel";
inline constexpr char VIEW_STG_LOCK[] = ".pid";
inline constexpr char VIEW_STG_HOSTNAME[] = SERVER_HOSTNAME_FILE;
inline constexpr char VIEW_STG_IPC_DIR[] = ".ipc";
inline constexpr char VIEW_STG_LISTENER[] = "rlistener";
inline constexpr char VIEW_STG_REQUEST_PIPE[] = "request";    // + VIEW_STG_PIPE_SEP + client id
inline constexpr char VIEW_STG_RESPONSE_PIPE[] = "response";  // + VIEW_STG_PIPE_SEP + client id
inline constexpr char VIEW_STG_PIPE_SEP[] = "_";
inline constexpr char VIEW_STG_RIPC_DIR[] = ".ripc";
inline constexpr char VIEW_STG_LOG_DIR[] = "log";
inline constexpr char VIEW_STG_LOG_FILE[] = "tvr.log";
inline constexpr char VIEW_STG_MOUNTED_SILOS[] = ".mounted_silos";
inline constexpr char VIEW_STG_CONFIG_SPEC[] = ".config_spec";
inline constexpr char VIEW_STG_CONFIG_SPEC_TKM[] = ".config_spec_tkm";
inline constexpr char CLTXT_CACHE_MARKER[] = ".cltxt_cache";
