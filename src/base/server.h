// server_: the view lock file and the host name file of a storage directory.
//
// Lock file format: the decimal pid of the holder and a newline, under a POSIX record lock
// (fcntl F_SETLK, write lock on the whole file). The lock belongs to the process: the kernel drops it
// when the process dies, so a lock left by a killed process is simply taken over. Another process
// asks who holds it with F_GETLK. Within the holding process, the lock file must not be opened and
// closed by anyone else (closing any descriptor of the file drops a POSIX lock).
//
// Host name file: ".hostname" in the storage directory, holding gethostname() and a newline. The
// comparison is exact.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/credutl.h"

#define SERVER_HOSTNAME_FILE ".hostname"

// Takes the lock. Returns a cookie >= 0 (keep it for server_lock_clear), -2 when another process holds
// the lock (*owner_pid receives its pid), or -1 on a system error (errno kept).
int server_lock_set(const std::string& path, pid_t* owner_pid);
// Releases the lock identified by `cookie`. The file stays. 0 or -1.
int server_lock_clear(const std::string& path, int cookie);
// Who holds the lock now: its pid, 0 when nobody, -1 when the file cannot be read.
pid_t server_lock_holder(const std::string& path);

// Writes `<dir>/.hostname` atomically with `host`, owned by `owner` (so that its group is the
// owner's even in a directory that hands its own group down). 0 or -1 with errno kept.
int server_create_hostname_file(const std::string& dir, const std::string& host, const credutl_creds_t& owner);
// 1 when the recorded host equals `host`, 0 when it differs, -1 when the file is missing or unreadable.
// *recorded receives the recorded name when it could be read.
int server_validate_hostname(const std::string& dir, const std::string& host, std::string* recorded);
