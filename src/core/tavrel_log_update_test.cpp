// The update log against golden files written by hand from its format (every record kind, a blank in
// a path and a version, symbolic links, a failure trailer with a promoted background failure), its
// file name, and a log that cannot be written.
#include "core/tavrel_log_update.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "proto/tavrel_status.h"

namespace fs = std::filesystem;

namespace {

constexpr time_t kStart = 1700000000;  // 20231114.221320 UTC
constexpr time_t kEnd = kStart + 61;

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class UpdateLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    dir = fs::temp_directory_path() / ("tavrel_updlog_" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }
  std::string golden(const char* name) { return slurp(fs::path(TAVREL_SOURCE_DIR) / "src/core/testdata" / name); }
  fs::path dir;
};

TEST_F(UpdateLogTest, EveryRecordKindMatchesTheGoldenFile) {
  Tavrel_Log_Update log(dir.string(), kStart);
  EXPECT_EQ(log.get_file_name(), "update.20231114.221320.updt");
  Update_Log_Header h;
  h.view_tag = "myview";
  h.start_time = kStart;
  h.client_user = "alice";
  h.server_domain = "CORP";
  h.server_user = "alice";
  h.server_url = "https://wan.example:8443/x/tavrel";
  h.process_id = 4242;
  h.preserve_times = true;
  h.hijack_treatment = HIJACK_TREATMENT_RENAME;
  ASSERT_EQ(log.log_header(h), 0);
  EXPECT_EQ(log.log_load("/proj/my file.c", "main/2", false), 0);
  EXPECT_EQ(log.log_load("/proj/link", "main/1", true), 0);
  EXPECT_EQ(log.log_update("/proj/my file.c", "main/2", "main/my branch/3", false), 0);
  EXPECT_EQ(log.log_unload("/proj/gone.c"), 0);
  EXPECT_EQ(log.log_hijack_unload(HIJACK_TREATMENT_KEEP, "/proj/h1", ""), 0);
  EXPECT_EQ(log.log_hijack_unload(HIJACK_TREATMENT_OVERWRITE, "/proj/h2", ""), 0);
  EXPECT_EQ(log.log_hijack_unload(HIJACK_TREATMENT_RENAME, "/proj/h3", "/proj/h3.keep"), 0);
  EXPECT_EQ(log.log_hijack_update(HIJACK_TREATMENT_KEEP, "/proj/h4", "main/1", "main/2", false, ""), 0);
  EXPECT_EQ(log.log_hijack_update(HIJACK_TREATMENT_OVERWRITE, "/proj/h5", "main/1", "main/2", true, ""), 0);
  EXPECT_EQ(log.log_hijack_update(HIJACK_TREATMENT_RENAME, "/proj/h 6", "main/1", "main/2", false, "/proj/h 6.keep"), 0);
  EXPECT_EQ(log.log_hijack_sweep(HIJACK_TREATMENT_KEEP, "/proj/kept", ""), 0);  // writes nothing
  EXPECT_EQ(log.log_hijack_sweep(HIJACK_TREATMENT_OVERWRITE, "/proj/h7", ""), 0);
  EXPECT_EQ(log.log_hijack_sweep(HIJACK_TREATMENT_RENAME, "/proj/h8", "/proj/h8.keep"), 0);
  EXPECT_EQ(log.log_error("Unable to add \"x\" (in directory OID \"y\").\n"), 0);
  Update_Log_Trailer t;
  t.end_time = kEnd;
  ASSERT_EQ(log.log_trailer(t), 0);
  EXPECT_EQ(slurp(log.get_log_path()), golden("update_log_records.updt"));
  struct stat st;
  ASSERT_EQ(stat(log.get_log_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(UpdateLogTest, FailureTrailerPromotesAWaitingBackgroundFailure) {
  Tavrel_Log_Update log(dir.string(), kStart);
  Update_Log_Header h;
  h.view_tag = "v2";
  h.start_time = kStart;
  h.client_user = h.server_user = "bob";
  h.server_url = "http://127.0.0.1:9000/tavrel";
  h.process_id = 7;
  h.force = h.resume = true;
  ASSERT_EQ(log.log_header(h), 0);
  ASSERT_EQ(log.log_load("/proj/dir with blank/a", "main/1 ", false), 0);
  // The record is in the file as soon as its writer returns.
  EXPECT_NE(slurp(log.get_log_path()).find("\"main/1 \" \n"), std::string::npos);
  Update_Log_Trailer t;
  t.end_time = kEnd;
  t.cancelled = true;
  t.background_status = 20001;
  t.background_message = "Unable to queue background cleartext fetch\nfor \"x\"\n";
  ASSERT_EQ(log.log_trailer(t), 0);
  EXPECT_EQ(slurp(log.get_log_path()), golden("update_log_failed.updt"));
}

TEST_F(UpdateLogTest, LogsOfTheSameSecondGetTheirOwnFiles) {
  Tavrel_Log_Update first(dir.string(), kStart);
  ASSERT_EQ(first.log_unload("/a"), 0);
  Tavrel_Log_Update second(dir.string(), kStart);
  EXPECT_EQ(second.get_file_name(), "update.20231114.221321.updt");
  ASSERT_EQ(second.log_unload("/b"), 0);
  EXPECT_EQ(slurp(first.get_log_path()), "UnloadDeleted:           /a\n");
}

TEST_F(UpdateLogTest, AnUnwritableLogLosesTheRecordAndGoesOn) {
  std::ofstream(dir / "log") << "not a directory";
  Tavrel_Log_Update log(dir.string(), kStart);
  EXPECT_EQ(log.log_load("/p/a", "main/1", false), TAVREL_ST_UPDATE_LOG);
  EXPECT_EQ(log.log_trailer(Update_Log_Trailer()), TAVREL_ST_UPDATE_LOG);
  fs::remove(dir / "log");
  EXPECT_EQ(log.log_unload("/p/b"), 0);  // the next record finds the directory again
  EXPECT_EQ(slurp(log.get_log_path()), "UnloadDeleted:           /p/b\n");
}

}  // namespace
