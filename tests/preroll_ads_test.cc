// A pre-roll before the content on the same screen: the player asks the VAST loader for the
// local service's wrapper tag, the ad plays to its end, the content follows, and the service has
// counted every pixel of both document levels exactly once.
#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/http/http_curl_client.h"
#include "platform/media/testing/media_test_files.h"
#include "playback/nembra_player.h"
#include "playback/vast_ads_loader.h"
#include "service/local_service.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

TEST(PrerollAdsTest, ThePrerollPlaysBeforeTheContentAndFiresEveryPixelOnce) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  testing::TempDir data("nembra-preroll");
  ServiceOptions options;
  options.port = 0;
  options.rtmpPort = 0;  // no ingest
  options.dataDir = data.file("service");
  LocalService service(options, [](const std::string&) {});
  auto error = service.start();
  ASSERT_FALSE(error) << error->message;
  testing::MediaTestFiles media;
  const std::string content = media.video("content.mp4", "320x240", 1.0);
  ASSERT_FALSE(content.empty());

  MainQueue queue;
  Nembra nembra("app1", queue);
  auto delegate = std::make_shared<NembraPlayerDelegate>();
  std::vector<std::string> events;
  delegate->playerPlaying = [&] { events.push_back("playing"); };
  delegate->playerEnded = [&] { events.push_back("ended"); };
  nembra.setPlayerDelegate(delegate);
  VastAdsLoader::Options adOptions;
  adOptions.downloadDirectory = data.path();
  VastAdsLoader::install(queue, std::make_shared<CurlHttpClient>(), adOptions);

  auto player = NembraPlayer::initWithVideoURL(nembra, content);
  ASSERT_TRUE(player->adsLoaderExists());
  std::vector<bool> shown;
  player->playWithAdsWithAdTagURL(service.urls().base + "/ads/vast/wrapper.xml", {},
                                  [&](bool visible) { shown.push_back(visible); });
  auto ended = [&] { return !events.empty() && events.back() == "ended"; };
  EXPECT_TRUE(queue.runUntil(ended, 30s)) << ::testing::PrintToString(events);
  // Hidden for the request, hidden again when the ad starts, shown when it is over.
  EXPECT_EQ(shown, (std::vector<bool>{false, false, true}));
  player->close();
  player.reset();
  setAdsLoaderFactory(nullptr);

  httplib::Client client("127.0.0.1", service.port());
  Json counts;
  for (int i = 0; i < 100; ++i) {
    counts = Json::parse(client.Get("/ads/tracking")->body, nullptr, false);
    if (counts["inline"].size() == 6 && counts["wrapper"].size() == 6) break;
    std::this_thread::sleep_for(20ms);
  }
  Json once = {{"impression", 1}, {"start", 1},         {"firstQuartile", 1},
               {"midpoint", 1},   {"thirdQuartile", 1}, {"complete", 1}};
  EXPECT_EQ(counts["inline"], once) << counts.dump();
  EXPECT_EQ(counts["wrapper"], once) << counts.dump();
  EXPECT_FALSE(counts.contains("error")) << counts.dump();
}

// An ad whose media file is missing: the content plays all the same, and the ad's error URL
// reports 401 (file not found) once.
TEST(PrerollAdsTest, AMissingAdFileLetsTheContentPlayAndReports401) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  testing::TempDir data("nembra-preroll-missing");
  ServiceOptions options;
  options.port = 0;
  options.rtmpPort = 0;  // no ingest
  options.dataDir = data.file("service");
  LocalService service(options, [](const std::string&) {});
  auto error = service.start();
  ASSERT_FALSE(error) << error->message;
  const std::string base = service.urls().base;
  // The service's inline ad, its clip moved to a path the service does not serve.
  httplib::Client client("127.0.0.1", service.port());
  std::string document = client.Get("/ads/vast/inline.xml")->body;
  const std::string clip = base + "/ads/media/ad.mp4";
  document.replace(document.find(clip), clip.size(), base + "/ads/media/gone.mp4");
  testing::writeFile(data.file("missing.xml"), document);
  httplib::Server tags;
  tags.set_mount_point("/", data.path());
  int port = tags.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { tags.listen_after_bind(); });
  testing::MediaTestFiles media;
  const std::string content = media.video("content.mp4", "320x240", 0.5);

  MainQueue queue;
  Nembra nembra("app1", queue);
  auto delegate = std::make_shared<NembraPlayerDelegate>();
  bool ended = false;
  delegate->playerEnded = [&] { ended = true; };
  nembra.setPlayerDelegate(delegate);
  VastAdsLoader::install(queue, std::make_shared<CurlHttpClient>(), {});
  auto player = NembraPlayer::initWithVideoURL(nembra, content);
  std::vector<bool> shown;
  player->playWithAdsWithAdTagURL("http://127.0.0.1:" + std::to_string(port) + "/missing.xml", {},
                                  [&](bool visible) { shown.push_back(visible); });
  EXPECT_TRUE(queue.runUntil([&] { return ended; }, 20s));
  EXPECT_EQ(shown, (std::vector<bool>{false, true}));
  player->close();
  player.reset();
  setAdsLoaderFactory(nullptr);
  tags.stop();
  serving.join();

  Json counts;
  for (int i = 0; i < 100 && !counts.contains("error"); ++i) {
    counts = Json::parse(client.Get("/ads/tracking")->body, nullptr, false);
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(counts, (Json{{"error", {{"401", 1}}}})) << counts.dump();
}

}  // namespace
}  // namespace nembra
