// Where a password comes from: a file or a descriptor (first line), the environment, else nothing.
#include "client/secret.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

using tavrel::client::read_secret;
using tavrel::client::SecretSource;

TEST(Secret, SourcesInOrderAndTheirFailures) {
  char tmpl[] = "/tmp/client_secret.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  std::ofstream(dir + "/pw") << "from-file\r\nsecond line\n";
  std::ofstream(dir + "/long") << std::string(5000, 'x');
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  ASSERT_EQ(write(p[1], "from-fd\nrest", 12), 12);
  close(p[1]);
  setenv("TAVREL_TEST_SECRET", "from-env", 1);
  unsetenv("TAVREL_TEST_UNSET");
  struct {
    SecretSource src;
    int rc;
    const char* secret;
    const char* error;
  } rows[] = {
      {{dir + "/pw", p[0], "TAVREL_TEST_SECRET", ""}, 0, "from-file", ""},
      {{"", p[0], "TAVREL_TEST_SECRET", ""}, 0, "from-fd", ""},
      {{"", -1, "TAVREL_TEST_SECRET", ""}, 0, "from-env", ""},
      {{"", -1, "TAVREL_TEST_UNSET", ""}, 0, "", ""},
      {{dir + "/missing", -1, "TAVREL_TEST_SECRET", ""}, -1, "", "cannot open password file"},
      {{dir + "/long", -1, "", ""}, -1, "", "longer than 4096"},
      {{dir, -1, "", ""}, -1, "", "cannot read the password"},  // a directory
  };
  for (auto& row : rows) {
    SCOPED_TRACE(row.secret);
    std::string got = "stale", error;
    EXPECT_EQ(read_secret(row.src, &got, &error), row.rc);
    EXPECT_EQ(got, row.secret);
    EXPECT_NE(error.find(row.error), std::string::npos) << error;
  }
  close(p[0]);
  EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}
