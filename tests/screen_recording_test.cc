// The screen recording end to end: `nembra record-screen` on an Xvfb display with the virtual
// microphone leaves a movie in the group's shared directory; the main application's watcher
// uploads it once to `nembra serve`, which probes it.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/media_type.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/nembra_videos.h"
#include "platform/files/file_system.h"
#include "platform/ui/testing/xvfb_display.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

TEST(ScreenRecordingTest, ARecordedScreenLandsInTheSharedDirectoryAndIsUploadedOnce) {
  testing::XvfbDisplay xvfb;
  if (xvfb.display().empty()) GTEST_SKIP() << "no Xvfb";
  testing::TempDir home("nembra-screen");
  std::string error;
  testing::ServeProcess::Options options;
  options.dataDir = home.file("service");
  auto serve = testing::ServeProcess::start(options, error);
  ASSERT_TRUE(serve) << error;

  const std::string group = "it.screen";
  const auto recorded = testing::runCommand({"env", "NEMBRA_HOME=" + home.path(), NEMBRA_CLI_PATH,
                                             "record-screen", "--app-group", group, "--display",
                                             xvfb.display(), "--mic", "lavfi", "--duration", "3"});
  ASSERT_EQ(recorded.exitCode, 0) << recorded.output;
  const std::string shared =
      home.path() + "/AppGroups/" + group + "/Library/Caches/com.nembra.screen-recording";
  size_t movies = 0;
  for (const auto& entry : std::filesystem::directory_iterator(shared)) {
    EXPECT_EQ(entry.path().extension(), ".mov");
    ++movies;
  }
  ASSERT_EQ(movies, 1u);

  const std::string previousRoot = FileSystem::shared().root();
  FileSystem::shared().setRoot(home.path());
  MainQueue queue;
  {
    Nembra nembra("app", queue);
    nembra.config().useSingleServer(serve->baseUrl());
    NembraVideos& videos = nembra.videos();
    videos.setAppGroup(group);
    std::vector<std::string> tokens;
    OptionalError failure;
    videos.onScreenRecordingUploaded = [&](const std::string&, const std::string& token,
                                           const OptionalError& error) {
      tokens.push_back(token);
      if (error) failure = error;
    };
    // The watcher's first look and a manual one race for the same movie.
    std::atomic<size_t> started{0};
    std::thread manual([&] { started += videos.processNewScreenRecordings(); });
    ASSERT_TRUE(videos.setupFileWatcher());
    manual.join();
    ASSERT_TRUE(queue.runUntil([&] { return !tokens.empty(); }, std::chrono::seconds(60)));
    queue.runUntil([] { return false; }, std::chrono::milliseconds(500));
    ASSERT_FALSE(failure) << failure->message;
    ASSERT_EQ(tokens.size(), 1u);
    EXPECT_TRUE(std::filesystem::is_empty(shared));

    // The answer comes on the connection's queue: read it on the main queue.
    std::optional<Json> video;
    nembra.uploadingHandler().getWithType(
        VIDEO, tokens[0], Json::object(),
        [&](const std::optional<Json>& json, const HttpResponse&, const OptionalError&) {
          queue.async([&video, answer = json.value_or(Json::object())] { video = answer; });
        });
    ASSERT_TRUE(queue.runUntil([&] { return video.has_value(); }));
    ASSERT_TRUE(video->contains("duration")) << video->dump();
    EXPECT_NEAR((*video)["duration"].get<double>(), 3.0, 0.5) << video->dump();

    std::optional<std::string> file;
    bool downloaded = false;
    nembra.uploadingHandler().downloadWithType(
        VIDEO, tokens[0], [&](const std::optional<std::string>& path, const OptionalError&) {
          file = path;
          downloaded = true;
        });
    ASSERT_TRUE(queue.runUntil([&] { return downloaded; }, std::chrono::seconds(60)));
    ASSERT_TRUE(file);
    const auto probe = testing::runCommand(
        {"ffprobe", "-v", "error", "-show_entries", "stream=codec_name", "-of", "csv=p=0", *file});
    EXPECT_EQ(probe.output, "h264\naac\n");
  }
  FileSystem::shared().setRoot(previousRoot);
}

}  // namespace
}  // namespace nembra
