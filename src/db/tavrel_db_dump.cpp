// Running the product's dumper: the first half of a repair by dump and reload.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/tbs.h"
#include "db/rec/tavrel_db_schema.h"
#include "db/tavrel_engine_db.h"

extern char** environ;

namespace {

// Runs `program dir` and passes each line it prints to the messages. The exit status, or -1.
int run_dumper(const std::string& program, const std::string& dir) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
  posix_spawn_file_actions_adddup2(&fa, fds[1], 2);
  char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>(dir.c_str()), nullptr};
  pid_t pid;
  int rc = posix_spawn(&pid, program.c_str(), &fa, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&fa);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    errno = rc;
    return -1;
  }
  std::string pending;
  char buf[4096];
  for (;;) {
    ssize_t n = read(fds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buf, (size_t)n);
    for (size_t nl; (nl = pending.find('\n')) != std::string::npos; pending.erase(0, nl + 1))
      imsg_print(IMSG_OK, "%s\n", pending.substr(0, nl).c_str());
  }
  if (!pending.empty()) imsg_print(IMSG_OK, "%s\n", pending.c_str());
  close(fds[0]);
  int status;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// "db" -> "db<n>.dumped", the first free n.
int rename_unique(std::string* out) {
  for (int n = 0; n < 1000; n++) {
    std::string to = "db" + std::to_string(n) + ".dumped";
    if (fileutl_exists(to)) continue;
    if (rename("db", to.c_str()) == 0) {
      *out = tvr_db_storage_name() + "/" + to;
      return 0;
    }
    if (errno == ENOENT) {
      out->clear();
      return 0;
    }
    if (errno != EEXIST && errno != ENOTEMPTY) break;
  }
  imsg_print(IMSG_ERR, "Unable to move the dumped view database aside: %s\n", strerror(errno));
  return TBS_ST_INTERNAL;
}

}  // namespace

int tvr_db_dump_db(std::string* dumped) {
  std::string program =
      tbs_product_server_dir() + "/tavrel_dumper_" + std::to_string(TAVREL_DB_SCHEMA_VERSION);
  if (access(program.c_str(), X_OK) != 0) {
    imsg_print(IMSG_ERR, "The view database dumper \"%s\" cannot be run: %s\n", program.c_str(), strerror(errno));
    return TBS_ST_FAILURE;
  }
  std::string home = tvr_db_storage_name();
  imsg_print(IMSG_OK, "Dumping DB %s\n", home.c_str());
  // The dumper opens the database itself (running the journal's recovery): this process lets go first.
  tvr_db_close_db();
  int rc = run_dumper(program, home);
  if (rc != 0) {
    imsg_print(IMSG_ERR, "The view database dumper failed (exit status %d)\n", rc);
    tvr_db_state_file_open();
    return TBS_ST_INTERNAL;
  }
  int st = tvr_db_state_file_open();
  if (st == 0) st = rename_unique(dumped);
  if (st == 0) st = tvr_db_state_change('d');
  return st;
}
