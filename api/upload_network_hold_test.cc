#include "api/upload_network_hold.h"

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

// Transfers held and released as reachability changes.
class NetworkHoldTest : public nembra::testing::UploadServiceTest {};

// ---- Reachability -----------------------------------------------------------------------

TEST_F(NetworkHoldTest, LosingTheNetworkSuspendsAndItsReturnResumes) {
  gate_.close();
  std::string path = makeFile("a.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return gate_.waiting() == 1; }));
  auto task = handler().uploadTask();
  ASSERT_TRUE(task);

  network_->change(links(false, false));
  ASSERT_TRUE(pumpUntil([&] { return task->state() == HttpTaskState::Suspended; }));
  gate_.open();
  main_.runUntil([] { return false; }, milliseconds(500));
  EXPECT_EQ(outcome->confirms, 0) << "a suspended transfer takes no answer";

  network_->change(links(true, false));
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  EXPECT_FALSE(outcome->confirmError);
}

TEST_F(NetworkHoldTest, WifiOnlyHoldsATransferWhileOnlyCellularIsUp) {
  nembra_->uploadingConfig().setShouldUseWifiOnly(true);
  network_->change(links(false, true));
  std::string path = makeFile("a.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return outcome->callbacks == 1; }));
  main_.runUntil([] { return false; }, milliseconds(300));
  EXPECT_EQ(count("POST /storage"), 0u);
  EXPECT_EQ(events_.back(), "preparing");

  network_->change(links(true, true));
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  EXPECT_EQ(count("POST /storage"), 1u);
}

TEST_F(NetworkHoldTest, CancellingAHeldTransferRunsItsEndOfTransferStep) {
  nembra_->uploadingConfig().setShouldUseWifiOnly(true);
  nembra_->uploadingConfig().setLostConnectionAction(UPLOADING_ERROR_ACTION_DELETE_MEDIA);
  network_->change(links(false, true));
  std::string path = makeFile("held.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return outcome->callbacks == 1; }));
  ASSERT_TRUE(handler().isUploading(path));
  handler().cancelUpload(path, false);
  ASSERT_TRUE(pumpUntil([&] { return transferErrors_ == 1; }));
  EXPECT_EQ(events_.back(), "errorWithInfo 554 cancelled");
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(count("POST /storage"), 0u);
  EXPECT_FALSE(handler().isUploading(path));
}

}  // namespace
}  // namespace nembra
