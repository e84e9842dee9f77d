// sysutl: small system helpers (pipes, close-on-exec, umask, host and user names, home directory).
// Every function returns KS_ST_OK (0) or KS_ST_ERR (-1) with errno kept, unless it says otherwise.
#pragma once

#include <sys/types.h>

#include <string>

enum { KS_ST_OK = 0, KS_ST_ERR = -1 };

// Permission bits as the base library names them.
enum : mode_t {
  KS_FMODE_IRWXU = 0700,
  KS_FMODE_IRWXG = 0070,
  KS_FMODE_IRWXO = 0007,
};

int sysutl_pipe(int fds[2]);
void sysutl_pipe_close(int fd);
int sysutl_set_cloexec_file(int fd);
int sysutl_set_nonblocking(int fd, bool on);

int sysutl_get_umask(mode_t* mask);
// Sets the process umask. `force` is accepted for compatibility and has no further effect.
int sysutl_initialize_umask(bool force, mode_t mask);

// Host name of this machine (cached after the first call; empty when unknown).
const char* sysutl_myhostname();
// Login name of the effective user, from the password database; empty when unknown.
std::string sysutl_myloginname();
// The user's home: $HOME when set and not empty, else the password database entry of the effective user.
std::string sysutl_get_homedir();

// Writes the whole buffer, retrying on EINTR and short writes. Returns bytes written or -1.
ssize_t sysutl_write_all(int fd, const void* buf, size_t len);
