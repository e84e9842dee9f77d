#include "client/update_log.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "base/fileutl.h"

using tavrel::client::UpdateLog;
using tavrel::client::UpdateLogState;

namespace {

// A log as the agent writes it: title, parameters, one record of each kind, and `trailer`.
std::string log_text(const std::string& trailer) {
  return "Update log for Orlenta automatic view\n"
         "Update session parameters:\n"
         "FormatVersion:           1\n"
         "AutomaticView:           v1\n"
         "ProcessID:               4242\n"
         "Resume:                  TRUE\n"
         "Actions taken to update the view:\n"
         "New:                     \"/demo/a b.h\" /main/1 \n"
         "New:                     /demo/link /main/1 SYMLINK\n"
         "Updated:                 /demo/c d.h /main/1 /main/2 \n"
         "UnloadDeleted:           /demo/gone.h\n"
         "UnloadPreserved:         /demo/mine.h\n"
         "UnloadRenamed:           /demo/r.h /demo/r.h.keep\n"
         "HijackedPreserved:       /demo/h.h /main/1 /main/2 \n"
         "HijackedRenamed:         /demo/i.h /main/1 /main/2  /demo/i.h.keep\n"
         "Error:                   \"cannot write /demo/x: \"busy\"\"\n"
         "Update session status:\n" +
         trailer;
}

const std::string kSucceeded = "EndTime:                 20261124.063000\nStatus:                  Succeeded\n"
                               "Cancelled:               FALSE\n";
const std::string kFailed = "EndTime:                 20261124.063000\nStatus:                  Failed\n"
                            "Cancelled:               TRUE\nErrorMessage:            View update failed, status = 20001\n"
                            "ErrorStatus:             20001\n";

void expect_counts(const UpdateLogState& s) {
  EXPECT_EQ(s.counts.loaded, 2);
  EXPECT_EQ(s.counts.updated, 1);
  EXPECT_EQ(s.counts.unloaded, 3);
  EXPECT_EQ(s.counts.hijacked, 2);
  EXPECT_EQ(s.counts.errors, 1);
  EXPECT_EQ(s.counts.applied(), 8);
}

}  // namespace

TEST(UpdateLogReader, CountsRecordsAndReadsTheTrailer) {
  struct Case {
    std::string trailer;
    bool succeeded, cancelled;
    std::string message;
    int status;
  } cases[] = {
      {kSucceeded, true, false, "", 0},
      {kFailed, false, true, "View update failed, status = 20001", 20001},
  };
  for (const Case& c : cases) {
    UpdateLog log;
    std::vector<std::string> lines;
    log.feed(log_text(c.trailer), &lines);
    const UpdateLogState& s = log.state();
    expect_counts(s);
    EXPECT_TRUE(s.header);
    EXPECT_EQ(s.process_id, 4242);
    EXPECT_TRUE(s.resume);
    EXPECT_EQ(s.last_error, "cannot write /demo/x: \"busy\"");
    EXPECT_TRUE(s.finished);
    EXPECT_EQ(s.succeeded, c.succeeded);
    EXPECT_EQ(s.cancelled, c.cancelled);
    EXPECT_EQ(s.error_message, c.message);
    EXPECT_EQ(s.error_status, c.status);
    EXPECT_EQ(lines.size(), 17u + (c.succeeded ? 3 : 5));
    EXPECT_EQ(lines[7], "New:                     \"/demo/a b.h\" /main/1 ");
  }
}

TEST(UpdateLogReader, ALineCountsOnlyOnceWholeAndTheTrailerOnlyWhenComplete) {
  // Cut at every byte: the state after each piece is that of the whole lines before the cut.
  for (const std::string& trailer : {kSucceeded, kFailed}) {
    const std::string text = log_text(trailer);
    for (size_t cut = 0; cut <= text.size(); ++cut) {
      UpdateLog split, whole;
      std::vector<std::string> a, b;
      split.feed(text.substr(0, cut), &a);
      size_t last_nl = text.rfind('\n', cut == 0 ? std::string::npos : cut - 1);
      whole.feed(cut == 0 || last_nl == std::string::npos ? "" : text.substr(0, last_nl + 1), &b);
      ASSERT_EQ(a, b) << "cut at " << cut;
      ASSERT_EQ(split.state().counts.applied(), whole.state().counts.applied()) << cut;
      ASSERT_EQ(split.state().finished, whole.state().finished) << cut;
      split.feed(text.substr(cut), &a);
      ASSERT_TRUE(split.state().finished) << cut;
      expect_counts(split.state());
    }
    // A failure is not finished before its status number has come.
    UpdateLog partial;
    partial.feed(text.substr(0, text.rfind("ErrorStatus:")));
    EXPECT_EQ(partial.state().finished, trailer == kSucceeded);
  }
}

TEST(UpdateLogReader, FollowsAFileAsItGrows) {
  char tmpl[] = "/tmp/tavrel-updlog-XXXXXX";
  ASSERT_TRUE(mkdtemp(tmpl));
  const std::string dir = tmpl, path = dir + "/log/update.20261124.063000.updt";
  UpdateLog log(path);
  EXPECT_FALSE(log.poll());  // not there yet
  fileutl_mkpath(dir + "/log", 0700);
  const std::string text = log_text(kSucceeded);
  const size_t mid = text.find("Updated:") + 5;
  std::ofstream(path) << text.substr(0, mid);
  std::vector<std::string> lines;
  ASSERT_TRUE(log.poll(&lines));
  EXPECT_EQ(log.state().counts.applied(), 2);
  EXPECT_EQ(lines.back(), "New:                     /demo/link /main/1 SYMLINK");
  EXPECT_EQ(tavrel::client::update_progress_line(log.state()), "updating: 2 elements applied (2 new, 0 updated, 0 removed)");
  std::ofstream(path, std::ios::app) << text.substr(mid);
  ASSERT_TRUE(log.poll(&lines));
  EXPECT_TRUE(log.state().finished);
  expect_counts(log.state());
  EXPECT_EQ(log.bytes_read(), static_cast<off_t>(text.size()));
  EXPECT_EQ(tavrel::client::update_progress_line(log.state()),
            "updating: 8 elements applied (2 new, 1 updated, 3 removed, 2 hijacked, 1 error)");

  // Only update logs, in name order.
  for (const char* n : {"update.20261124.070000.updt", "tvr.log", "update.x", "update.20261124.050000.updt.tmp"})
    std::ofstream(dir + "/log/" + n) << "";
  EXPECT_EQ(tavrel::client::update_log_names(dir + "/log"),
            (std::vector<std::string>{"update.20261124.063000.updt", "update.20261124.070000.updt"}));
  EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

TEST(UpdateLogReader, ProgressBeforeAnyRecord) {
  UpdateLog log;
  log.feed("Update log for Orlenta automatic view\nFormatVersion:           1\n");
  EXPECT_EQ(tavrel::client::update_progress_line(log.state()), "updating: waiting for the server");
  log.feed("New:                     /demo 1 \n");
  EXPECT_EQ(tavrel::client::update_progress_line(log.state()), "updating: 1 element applied (1 new, 0 updated, 0 removed)");
}
