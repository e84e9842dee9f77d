// Secrets for the command line: never from argv. A password comes from a file (first line), a
// descriptor (first line), the environment, or a prompt on the terminal without echo.
#pragma once

#include <string>

namespace tavrel::client {

// The environment variables that may hold the server's and the proxy's password for the command line.
// They are never passed on to an agent the command line starts.
constexpr const char* PASSWORD_ENV = "TAVREL_PASSWORD";
constexpr const char* PROXY_PASSWORD_ENV = "TAVREL_PROXY_PASSWORD";

struct SecretSource {
  std::string file;     // --password-file
  int fd = -1;          // --password-fd
  std::string env_var;  // e.g. TAVREL_PASSWORD
  std::string prompt;   // shown on /dev/tty when nothing else gives one; empty: no prompt
};

// 0 and the secret in *out, or -1 with *error set and *out empty. An absent secret (no source at
// all) is 0 with *out empty.
int read_secret(const SecretSource& src, std::string* out, std::string* error);

}  // namespace tavrel::client
