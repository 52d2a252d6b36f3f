#include "api/upload_journal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/http/testing/http_test_support.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::ScratchDirectory;

class UploadJournalTest : public ::testing::Test {
 protected:
  UploadJournalEntry entry(const std::string& path) {
    UploadJournalEntry e;
    e.id = journal_.newId();
    e.type = 2;
    e.path = path;
    e.data = Json{{"title", "a b"}};
    e.stage = UploadJournalEntry::Stage::Transferring;
    e.mediaToken = "a1";
    e.streamToken = "s1";
    e.uploadUrl = "http://storage/b";
    e.fields = Json{{"key", "k"}, {"Policy", "p"}};
    e.fileSize = 12;
    e.fileModifiedNs = 34;
    e.createdUnix = 56;
    return e;
  }

  ScratchDirectory scratch_;
  UploadJournal journal_{scratch_.path() + "/journal"};
};

TEST_F(UploadJournalTest, RecordsComeBackAsWrittenOldestFirst) {
  auto first = entry("/x/1.aac");
  auto second = entry("/x/2.aac");
  second.stage = UploadJournalEntry::Stage::Transferred;
  ASSERT_FALSE(journal_.write(second));
  ASSERT_FALSE(journal_.write(first));
  first.mediaToken = "a2";
  ASSERT_FALSE(journal_.write(first));  // replaces its own record

  auto records = journal_.load();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].toJson(), first.toJson());
  EXPECT_EQ(records[1].toJson(), second.toJson());
  ASSERT_FALSE(journal_.remove(first.id));
  EXPECT_FALSE(journal_.remove(first.id)) << "a missing record is no error";
  EXPECT_EQ(journal_.load().size(), 1u);
}

TEST_F(UploadJournalTest, AnUnreadableRecordIsMovedAsideAndReported) {
  auto good = entry("/x/ok.aac");
  ASSERT_FALSE(journal_.write(good));
  auto broken = entry("/x/broken.aac");
  ASSERT_FALSE(journal_.write(broken));
  std::string brokenPath = journal_.directory() + "/" + broken.id + ".json";
  std::ofstream(brokenPath) << R"({"id":")" << broken.id << R"(","type":2})";

  std::vector<std::string> problems;
  auto records = journal_.load(&problems);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].id, good.id);
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("path"), std::string::npos) << problems[0];
  EXPECT_FALSE(fs::exists(brokenPath));
  EXPECT_TRUE(fs::exists(brokenPath + ".corrupt"));
}

TEST_F(UploadJournalTest, AClaimIsExclusiveUntilReleased) {
  auto e = entry("/x/1.aac");
  auto claim = journal_.claim(e.id);
  ASSERT_TRUE(claim);
  OptionalError error;
  EXPECT_FALSE(journal_.claim(e.id, &error));
  EXPECT_FALSE(error) << "held elsewhere is not an error";
  claim->removeFileOnRelease();
  claim.reset();
  EXPECT_FALSE(fs::exists(journal_.directory() + "/" + e.id + ".lock"));
  EXPECT_TRUE(journal_.claim(e.id));
  EXPECT_FALSE(journal_.claim("../escape", &error));
  EXPECT_TRUE(error);
}

TEST_F(UploadJournalTest, UnsafeApplicationTokensNameASafeDirectory) {
  FileSystem files(scratch_.path());
  EXPECT_EQ(UploadJournal::directoryFor(files, "app1"), scratch_.path() + "/State/uploads/app1");
  EXPECT_EQ(UploadJournal::directoryFor(files, "../a"),
            scratch_.path() + "/State/uploads/x2e2e2f61");
}

}  // namespace
}  // namespace nembra
