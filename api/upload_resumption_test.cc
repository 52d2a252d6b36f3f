#include "api/upload_resumption.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "api/testing/upload_service_fixture.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::formFields;
using nembra::testing::links;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Journaled uploads restarted by a later resume.
class ResumptionTest : public nembra::testing::UploadServiceTest {};

// ---- Confirm and restart ----------------------------------------------------------------

TEST_F(ResumptionTest, AnUnansweredConfirmIsSentAgainByALaterResume) {
  {
    std::lock_guard lock(mutex_);
    confirmStatus_ = 502;
  }
  std::string path = makeFile("a.aac");
  auto outcome = std::make_shared<Outcome>();
  upload(AUDIO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  EXPECT_FALSE(outcome->confirmError) << "a status is an answer, not an error";
  EXPECT_EQ(outcome->confirmStatus, 502);
  EXPECT_EQ(events_.back(), "verified m1 (HTTP 502)");
  EXPECT_FALSE(fs::exists(path)) << "storage holds the file";
  ASSERT_EQ(journalSize(), 1u);

  {
    std::lock_guard lock(mutex_);
    confirmStatus_ = 200;
  }
  const size_t before = server_.requests().size();
  EXPECT_EQ(handler().resumeUnfinishedUploads(), 1u);
  ASSERT_TRUE(pumpUntil([&] { return verified_ == 2; }));
  EXPECT_EQ(events_.back(), "verified m1");
  EXPECT_EQ(server_.requests().size(), before + 1) << "only the confirm is sent again";
  EXPECT_EQ(journalSize(), 0u);
}

TEST_F(ResumptionTest, ResumeReusesAValidFormAndAsksAnewForAnExpiredOne) {
  UploadJournal& journal = handler().journal();
  auto record = [&](const std::string& file, const std::string& expiration) {
    UploadJournalEntry entry;
    entry.id = journal.newId();
    entry.type = VIDEO;
    entry.path = makeFile(file);
    entry.stage = UploadJournalEntry::Stage::Transferring;
    entry.mediaToken = "old" + file.substr(0, 1);
    entry.streamToken = "s0";
    entry.uploadUrl = server_.url("/storage");
    entry.fields = formFields(expiration);
    EXPECT_FALSE(journal.write(entry));
    return entry;
  };
  auto valid = record("valid.mp4", "2999-01-01T00:00:00Z");
  auto expired = record("expired.mp4", "2001-01-01T00:00:00Z");
  auto busy = record("busy.mp4", "2999-01-01T00:00:00Z");
  auto held = journal.claim(busy.id);  // as another process working on it would
  ASSERT_TRUE(held);

  EXPECT_EQ(handler().resumeUnfinishedUploads(), 2u);
  ASSERT_TRUE(pumpUntil([&] { return verified_ == 2; }));
  EXPECT_EQ(count("POST /v1/applications/app1/videos/videos-upload-url"), 1u);
  EXPECT_EQ(count("POST /storage"), 2u);
  EXPECT_EQ(count("POST /v1/applications/app1/videos/oldv/streams/s0/confirm-video"), 1u);
  EXPECT_EQ(count("POST /v1/applications/app1/videos/m1/streams/s1/confirm-video"), 1u);
  EXPECT_FALSE(fs::exists(valid.path));
  EXPECT_FALSE(fs::exists(expired.path));
  EXPECT_TRUE(fs::exists(busy.path));
  auto left = journal.load();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].id, busy.id);
}

struct PlanCase {
  const char* name;
  UploadJournalEntry::Stage stage;
  const char* expiration;  // of the kept form; null: a form without a policy
  bool fileExists;
  UploadResumption::Step step;
};

class ResumptionPlanTest : public ::testing::TestWithParam<PlanCase> {};

TEST_P(ResumptionPlanTest, TakesTheStepTheRecordAllows) {
  const PlanCase& c = GetParam();
  UploadJournalEntry record;
  record.stage = c.stage;
  record.fields = c.expiration ? formFields(c.expiration) : Json::object();
  auto now = std::chrono::sys_days(std::chrono::year(2030) / 1 / 1);
  EXPECT_EQ(UploadResumption::plan(record, now, c.fileExists), c.step);
}

using Stage = UploadJournalEntry::Stage;
using Step = UploadResumption::Step;
INSTANTIATE_TEST_SUITE_P(
    Records, ResumptionPlanTest,
    ::testing::Values(
        PlanCase{"SentIsOnlyConfirmed", Stage::Transferred, nullptr, false, Step::Confirm},
        PlanCase{"NoFileNoTransfer", Stage::Transferring, nullptr, false, Step::FileMissing},
        PlanCase{"NoFormYet", Stage::RequestingUrl, nullptr, true, Step::AskForUrl},
        PlanCase{"ValidForm", Stage::Transferring, "2030-01-01T00:05:00Z", true, Step::Transfer},
        PlanCase{"FormAboutToExpire", Stage::Transferring, "2030-01-01T00:00:30Z", true,
                 Step::AskForUrl},
        PlanCase{"FormWithoutPolicy", Stage::Transferring, nullptr, true, Step::Transfer}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace nembra
