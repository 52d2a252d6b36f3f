#include "nembra/uploading_config.h"

#include <gtest/gtest.h>

#include "api/upload_flow.h"
#include "nembra/application.h"
#include "nembra/cache_config.h"
#include "nembra/media_type.h"

namespace nembra {
namespace {

TEST(UploadingConfigTest, SetterGuardsKeepTheirFallbacks) {
  UploadingConfig config;
  config.setLostConnectionAction(-1);
  EXPECT_EQ(config.lostConnectionAction(), UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION);
  config.setLostConnectionAction(0);
  EXPECT_EQ(config.getLostConnectionAction(), 0);
  config.setLostConnectionAction(999);
  EXPECT_EQ(config.lostConnectionAction(), 999);
  config.setSyncInterval(0);
  EXPECT_EQ(config.syncInterval(), DEFAULT_SYNC_INTERVAL);
  config.setSyncInterval(-5);
  EXPECT_EQ(config.getSyncInterval(), 7200000);
  config.setSyncInterval(1);
  EXPECT_EQ(config.syncInterval(), 1);
}

TEST(UploadingConfigTest, AddExtraArgsMergesWithTheNewValueWinning) {
  UploadingConfig config;
  config.setExtraArgs({{"a", "1"}, {"b", "2"}});
  config.addExtraArgs({{"b", "3"}, {"c", "4"}});
  EXPECT_EQ(config.extraArgs(), (Json{{"a", "1"}, {"b", "3"}, {"c", "4"}}));
  config.setExtraArgs("not an object");
  EXPECT_EQ(config.getExtraArgs(), Json::object());
}

TEST(UploadingConfigTest, ReportLinesKeepTheirBlanks) {
  UploadingConfig uploading;
  uploading.setShouldUseWifiOnly(true);
  uploading.setLostConnectionAction(554);
  EXPECT_EQ(uploading.stringValueConfig(),
            "{" + std::string(23, ' ') + "\"shouldUseWifiOnly\": 1," + std::string(24, ' ') +
                "\"syncInterval\": 7200000," + std::string(24, ' ') +
                "\"shouldTurnOffUploader\": 0," + std::string(24, ' ') +
                "\"lostConnectionAction\": 554}");

  CacheConfig cache;
  EXPECT_EQ(cache.toString(), "CacheConfig{" + std::string(24, ' ') + "cache_size=1073741824," +
                                  std::string(25, ' ') + "cache_root=}");
  // The size goes through a 32-bit conversion, and a missing root prints as the platform's nil.
  cache.setMaxCacheSize(int64_t{1} << 32 | 5);
  cache.setCacheRoot(std::nullopt);
  EXPECT_EQ(cache.stringValueConfig(), "{" + std::string(24, ' ') + "\"cache_size\": 5," +
                                           std::string(25, ' ') + "\"cache_root\": (null)}");
}

TEST(UploadFlowTest, RefusesMovesTheTableDoesNotList) {
  UploadFlow flow;
  EXPECT_FALSE(flow.transit(UploadEvent::BodySent));
  EXPECT_FALSE(flow.transit(UploadEvent::Confirmed));
  ASSERT_TRUE(flow.transit(UploadEvent::Start));
  EXPECT_FALSE(flow.transit(UploadEvent::BodySent)) << "no body before an upload URL";
  ASSERT_TRUE(flow.transit(UploadEvent::UrlReceived));
  ASSERT_TRUE(flow.transit(UploadEvent::Cancel));
  EXPECT_TRUE(flow.finished());
  // A completion arriving after the cancel cannot revive the flow.
  EXPECT_FALSE(flow.transit(UploadEvent::BodySent));
  EXPECT_FALSE(flow.transit(UploadEvent::Fail));
  EXPECT_EQ(flow.stage(), UploadStage::Cancelled);

  UploadFlow confirming;
  ASSERT_TRUE(confirming.transit(UploadEvent::ResumeConfirm));
  EXPECT_FALSE(confirming.transit(UploadEvent::Cancel)) << "storage already holds the file";
  ASSERT_TRUE(confirming.transit(UploadEvent::Confirmed));
  EXPECT_FALSE(confirming.transit(UploadEvent::Confirmed));
}

TEST(UploadFromPathTest, TheLowerCasedExtensionPicksTheType) {
  const std::pair<const char*, int> cases[] = {
      {"/a/clip.MOV", VIDEO}, {"file:///a/b.avi", VIDEO}, {"x.mp4", VIDEO},
      {"/a/song.Mp3", AUDIO}, {"b.wav", AUDIO},           {"c.aac", AUDIO},
      {"/p/pic.JPEG", IMAGE}, {"d.png", IMAGE},           {"e.bmp", IMAGE},
      {"f.jpg", IMAGE},       {"/a.mp4/notes.txt", 0},    {"/a/no-extension", 0},
      {"/dir.jpg/", 0},       {"archive.mp4.gz", 0}};
  for (const auto& [path, type] : cases) EXPECT_EQ(Nembra::mediaTypeForPath(path), type) << path;
}

}  // namespace
}  // namespace nembra
