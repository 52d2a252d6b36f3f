#include "playback/nembra_player.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_videos.h"
#include "platform/media/testing/media_test_files.h"
#include "playback/asset_byte_source.h"
#include "playback/testing/range_server.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::RangeServer;

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

class NembraPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    nembra_.cacheConfig().setCacheRoot(scratch_.path() + "/");
    nembra_.config().useSingleServer("http://127.0.0.1:9");
    nembra_.enableDebugLogs = true;
    nembra_.setLogSink([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      logs_.push_back(line);
    });
    delegate_ = std::make_shared<NembraPlayerDelegate>();
    delegate_->playerReadyToPlay = [this] { events_.push_back("ready"); };
    delegate_->playerPlaying = [this] { events_.push_back("playing"); };
    delegate_->playerPaused = [this] { events_.push_back("paused"); };
    delegate_->playerSeek = [this](double s) { events_.push_back("seek " + std::to_string(s)); };
    delegate_->playerEnded = [this] { events_.push_back("ended"); };
    nembra_.setPlayerDelegate(delegate_);
  }
  void TearDown() override { setAdsLoaderFactory(nullptr); }

  std::string cachePath(const std::string& token) {
    return nembra_.playerCacheManager().getCacheFilePathWithType(VIDEO, token);
  }
  // Names of the files in the cache directory (the loader's own directory aside).
  std::vector<std::string> cachedFiles() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(scratch_.path())) {
      std::string name = entry.path().filename().string();
      if (entry.is_regular_file()) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  bool logged(const std::string& line) {
    std::lock_guard lock(mutex_);
    return std::find(logs_.begin(), logs_.end(), line) != logs_.end();
  }
  // Reads the whole item through its byte source, as the engine would.
  static void readAll(const NembraPlayerItem& item) {
    MediaPlayerItem media = item.asset->playerItem();
    ASSERT_TRUE(media.source);
    std::vector<uint8_t> buffer(1 << 16);
    ASSERT_GT(media.source->size(), 0);
    while (media.source->read(buffer.data(), buffer.size()) > 0) {
    }
  }

  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  testing::ScratchDirectory scratch_;
  std::shared_ptr<NembraPlayerDelegate> delegate_;
  std::vector<std::string> events_;
  std::mutex mutex_;
  std::vector<std::string> logs_;
};

TEST_F(NembraPlayerTest, EventsAreReportedOnlyWhenTheyChange) {
  auto player = NembraPlayer::initWithVideoURL(nembra_, "/nowhere/clip.mp4");
  ASSERT_TRUE(player);
  player->playerStatusChanged(MediaPlayerStatus::ReadyToPlay, std::nullopt);
  player->playerTimeControlStatusChanged(MediaPlayerTimeControlStatus::Paused);
  player->playerTimeControlStatusChanged(MediaPlayerTimeControlStatus::Paused);
  player->playerTimeControlStatusChanged(MediaPlayerTimeControlStatus::Playing);
  player->playerTimeControlStatusChanged(MediaPlayerTimeControlStatus::Paused);
  player->playerTimeControlStatusChanged(MediaPlayerTimeControlStatus::WaitingToPlay);
  player->playerTimeControlStatusChanged(MediaPlayerTimeControlStatus::WaitingToPlay);
  EXPECT_EQ(events_,
            (std::vector<std::string>{"ready", "paused", "playing", "paused", "seek 0.000000"}));
  EXPECT_EQ(player->beforeEvent(), "playerSeek:0.00");

  // The end of the last item: ended, then the finish callback and the dismissal.
  std::vector<std::string> finished;
  player->setDidFinishPlaying([&](const std::string& token, const OptionalError& error) {
    finished.push_back(token + (error ? " failed" : " done"));
  });
  bool dismissed = false;
  player->setDismiss([&] { dismissed = true; });
  player->playerItemDidPlayToEnd(0);
  EXPECT_EQ(events_.back(), "ended");
  EXPECT_EQ(finished, std::vector<std::string>{" done"});
  EXPECT_TRUE(dismissed);
  EXPECT_TRUE(logged("NembraPlayer: adsLoader failed to initialize"));  // no ad client installed
}

TEST_F(NembraPlayerTest, CachedTokenPlaysTheLocalFileWithoutTheLoader) {
  auto remote = NembraPlayer::initWithNembraApplication(nembra_, "tok1");
  ASSERT_TRUE(remote->item(0).asset->resourceLoaderDelegate());
  EXPECT_EQ(remote->item(0).asset->resourceLoaderDelegate()->originalURL(),
            nembra_.videos().getVideoUrl("tok1"));

  std::ofstream(cachePath("tok1")) << "cached";
  auto local = NembraPlayer::initWithNembraApplication(nembra_, "tok1");
  EXPECT_FALSE(local->item(0).asset->resourceLoaderDelegate());
  EXPECT_EQ(local->item(0).asset->url(), cachePath("tok1"));
  EXPECT_EQ(local->videoToken(), "tok1");

  // A given URL wins over the cache.
  auto given = NembraPlayer::initWithNembraApplication(nembra_, "tok1", "https://h/x.mp4");
  EXPECT_TRUE(given->item(0).asset->resourceLoaderDelegate());
}

struct CacheCase {
  const char* name;
  const char* path;
  bool cachingEnabled;
  const char* cachedToken;  // null: nothing may be written
};

class PlayerCacheWriteTest : public NembraPlayerTest,
                             public ::testing::WithParamInterface<CacheCase> {};

TEST_P(PlayerCacheWriteTest, TheWholeFileIsMovedUnderItsTokenOnlyWhenAllowed) {
  const CacheCase& c = GetParam();
  nembra_.playerConfig().setIsCachingEnabled(c.cachingEnabled);
  const std::string file = testing::patternBytes(700000);
  RangeServer server(file);
  auto player = NembraPlayer::initWithVideoURL(nembra_, server.url(c.path));
  ASSERT_TRUE(player);
  readAll(player->item(0));
  if (c.cachedToken) {
    ASSERT_TRUE(queue_.runUntil([&] { return fs::exists(cachePath(c.cachedToken)); }, 10s));
    EXPECT_TRUE(readText(cachePath(c.cachedToken)) == file);
    EXPECT_TRUE(logged("NembraPlayer: cacheFullFileName: " + cachePath(c.cachedToken)));
    EXPECT_EQ(cachedFiles(), std::vector<std::string>{std::string(c.cachedToken) + ".mp4"});
  } else {
    queue_.runUntil([] { return false; }, 300ms);
    EXPECT_TRUE(cachedFiles().empty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PlayerCacheWriteTest,
    ::testing::Values(CacheCase{"Token", "/v1/applications/app/videos/t42/video.mp4", true, "t42"},
                      CacheCase{"CachingDisabled", "/videos/t42/video.mp4", false, nullptr},
                      CacheCase{"NoTokenInUrl", "/files/clip.mp4", true, nullptr},
                      CacheCase{"QueryAfterName", "/videos/t42/video.mp4?a=1&", true, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(NembraPlayerTest, BrokenDownloadsLeaveNothingUnderTheToken) {
  for (auto mode : {testing::RangeMode::CloseMidBody, testing::RangeMode::NotFound}) {
    RangeServer server(testing::patternBytes(300000), mode);
    auto player = NembraPlayer::initWithVideoURL(nembra_, server.url("/videos/bad/video.mp4"));
    MediaPlayerItem media = player->item(0).asset->playerItem();
    std::vector<uint8_t> buffer(1 << 16);
    int64_t n = 0;
    if (media.source->size() > 0) {
      while ((n = media.source->read(buffer.data(), buffer.size())) > 0) {
      }
    }
    EXPECT_TRUE(static_cast<AssetByteSource&>(*media.source).lastError());
    queue_.runUntil([] { return false; }, 200ms);
    EXPECT_FALSE(fs::exists(cachePath("bad")));
  }
}

TEST(NembraPlayerTextTest, WebVttAndQueryTexts) {
  Json words = {"hello", "world"};
  Json times = {{{"start", 0}, {"end", 500}}, {{"start", 3723004}, {"end", 3724000}}};
  const std::string vtt = WebVtt::render(words, times);
  EXPECT_EQ(vtt,
            "WEBVTT\n\n00:00:00.000 --> 00:00:00.500\nhello\n\n"
            "01:02:03.004 --> 01:02:04.000\nworld\n\n");
  auto cues = WebVtt::parse(vtt);
  EXPECT_EQ(WebVtt::cueAt(cues, 0.2), "hello");
  EXPECT_EQ(WebVtt::cueAt(cues, 3723.5), "world");
  EXPECT_EQ(WebVtt::cueAt(cues, 10), std::nullopt);

  EXPECT_EQ(NembraPlayer::queryFromParams(Json{{"a", "1"}, {"session", "s"}}), "?a=1&session=s&");
  EXPECT_EQ(NembraPlayer::queryFromParams(Json::object()), "");
  EXPECT_EQ(NembraPlayer::tokenFromVideoUrl("https://cdn/v1/applications/a/videos/vt9/video.mp4"),
            "vt9");
  EXPECT_EQ(NembraPlayer::tokenFromVideoUrl("https://cdn/videos/vt9/video.mp4?x=1&"), std::nullopt);
  EXPECT_EQ(NembraPlayer::tokenFromVideoUrl("https://cdn/videos/a/b/video.mp4x"), std::nullopt);
}

// Ads: a fake client that records what the player asks of it and lets the test answer.
struct FakeAds {
  std::vector<std::string> calls;
  std::weak_ptr<AdsLoaderDelegate> loaderDelegate;
  std::weak_ptr<AdsManagerDelegate> managerDelegate;
};

class FakeAdsManager final : public AdsManager {
 public:
  explicit FakeAdsManager(FakeAds& ads) : ads_(ads) {}
  void setDelegate(std::weak_ptr<AdsManagerDelegate> d) override { ads_.managerDelegate = d; }
  void initialize(const AdsRenderingSettings&) override { ads_.calls.push_back("initialize"); }
  void start() override { ads_.calls.push_back("start"); }
  void destroy() override { ads_.calls.push_back("destroy"); }

 private:
  FakeAds& ads_;
};

class FakeAdsLoader final : public AdsLoader {
 public:
  explicit FakeAdsLoader(FakeAds& ads) : ads_(ads) {}
  void setDelegate(std::weak_ptr<AdsLoaderDelegate> d) override { ads_.loaderDelegate = d; }
  void requestAds(AdsRequest request) override {
    ads_.calls.push_back("request " + request.adTagUrl +
                         (request.contentPlayhead ? " with playhead" : ""));
  }
  void contentComplete() override { ads_.calls.push_back("contentComplete"); }

 private:
  FakeAds& ads_;
};

TEST_F(NembraPlayerTest, AdsPauseAndHideTheContentUntilTheyLetItGo) {
  FakeAds ads;
  setAdsLoaderFactory([&] { return std::make_unique<FakeAdsLoader>(ads); });
  auto player = NembraPlayer::initWithVideoURL(nembra_, "/nowhere/clip.mp4");
  std::vector<bool> shown;
  player->playWithAdsWithAdTagURL("http://ads/tag.xml", {}, [&](bool v) { shown.push_back(v); });
  EXPECT_EQ(ads.calls, std::vector<std::string>{"request http://ads/tag.xml with playhead"});
  EXPECT_EQ(shown, std::vector<bool>{false});

  auto manager = std::make_shared<FakeAdsManager>(ads);
  ads.loaderDelegate.lock()->adsLoaderAdsLoaded(manager);
  auto managerDelegate = ads.managerDelegate.lock();
  ASSERT_TRUE(managerDelegate);
  managerDelegate->adsManagerDidReceiveAdEvent(*manager, {AdEventType::Started, ""});
  managerDelegate->adsManagerDidReceiveAdEvent(*manager, {AdEventType::Loaded, ""});
  managerDelegate->adsManagerDidRequestContentPause(*manager);
  managerDelegate->adsManagerDidRequestContentResume(*manager);
  player->playerItemDidPlayToEnd(0);
  EXPECT_EQ(ads.calls, (std::vector<std::string>{"request http://ads/tag.xml with playhead",
                                                 "initialize", "start", "contentComplete"}));
  EXPECT_EQ(shown, (std::vector<bool>{false, false, true}));
}

// The engine plays the loader's bytes: a real clip from a local server, to its end.
TEST_F(NembraPlayerTest, PlaysThroughTheLoaderThenFromTheCacheWithoutARequest) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  testing::MediaTestFiles files;
  const std::string clip =
      files.make("clip.mp4",
                 {"-f", "lavfi", "-i", "testsrc=size=160x120:rate=25:duration=1", "-c:v", "libx264",
                  "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-movflags", "+faststart"});
  ASSERT_FALSE(clip.empty());
  RangeServer server(readText(clip));
  const std::string url = server.url("/v1/applications/app/videos/e2e/video.mp4");

  auto first = NembraPlayer::initWithNembraApplication(nembra_, "e2e", url);
  first->play();
  auto ended = [&] { return std::find(events_.begin(), events_.end(), "ended") != events_.end(); };
  ASSERT_TRUE(queue_.runUntil(ended, 20s)) << ::testing::PrintToString(events_);
  EXPECT_NE(std::find(events_.begin(), events_.end(), "ready"), events_.end());
  EXPECT_NE(std::find(events_.begin(), events_.end(), "playing"), events_.end());
  ASSERT_TRUE(queue_.runUntil([&] { return fs::exists(cachePath("e2e")); }, 10s));
  EXPECT_TRUE(readText(cachePath("e2e")) == readText(clip));
  first.reset();

  const size_t requests = server.requests().size();
  events_.clear();
  auto second = NembraPlayer::initWithNembraApplication(nembra_, "e2e");
  EXPECT_FALSE(second->item(0).asset->resourceLoaderDelegate());
  second->play();
  ASSERT_TRUE(queue_.runUntil(ended, 20s)) << ::testing::PrintToString(events_);
  EXPECT_EQ(server.requests().size(), requests);
}

}  // namespace
}  // namespace nembra
