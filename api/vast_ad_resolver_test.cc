#include "api/vast_ad_resolver.h"

#include <gtest/gtest.h>

#include <future>
#include <map>

#include "api/testing/vast_documents.h"
#include "api/vast_tracker.h"
#include "platform/http/http_curl_client.h"
#include "platform/http/testing/http_test_support.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using testing::HttpTestServer;

// An ad server on loopback: each path answers the document set for it; "/track/…" records hits.
class VastAdResolverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.on("GET", "/tag/(.*)",
               [this](const httplib::Request& request, httplib::Response& reply) {
                 std::lock_guard lock(mutex_);
                 auto found = documents_.find(request.matches[1]);
                 if (found == documents_.end()) {
                   reply.status = 404;
                   return;
                 }
                 if (found->second == "slow") {
                   std::this_thread::sleep_for(1500ms);
                   return;
                 }
                 reply.set_content(found->second, "application/xml");
               });
    server_.on("GET", "/track/.*",
               [](const httplib::Request&, httplib::Response& reply) { reply.status = 204; });
    // One request per connection: pings fire in parallel, and idle keep-alive connections
    // would hold the server's few threads.
    server_.server().set_keep_alive_max_count(1);
    server_.start();
  }

  void serve(const std::string& name, const std::string& document) {
    std::lock_guard lock(mutex_);
    documents_[name] = document;
  }
  std::string tag(const std::string& name) const { return server_.url("/tag/" + name); }
  std::string base() const { return server_.url(); }

  VastAdResolver::Outcome resolve(const std::string& name, VastScreen screen = {1920, 1080},
                                  VastAdResolver::Options options = {}) {
    VastAdResolver resolver(http_, options);
    std::promise<VastAdResolver::Outcome> done;
    resolver.resolve(tag(name), screen, [&done](VastAdResolver::Outcome outcome) {
      done.set_value(std::move(outcome));
    });
    auto future = done.get_future();
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    return future.get();
  }

  static VastFailure failure(const VastAdResolver::Outcome& outcome) {
    auto* failed = std::get_if<VastFailure>(&outcome);
    EXPECT_TRUE(failed) << "resolved instead of failing";
    return failed ? *failed : VastFailure{};
  }

  // The tracking paths hit so far, with how often each was hit.
  std::map<std::string, int> hits() const {
    std::map<std::string, int> counts;
    for (const auto& request : server_.requests()) {
      if (request.target.rfind("/track/", 0) == 0) ++counts[request.target];
    }
    return counts;
  }
  std::map<std::string, int> waitForHits(size_t distinct) const {
    for (int i = 0; i < 200 && hits().size() < distinct; ++i) std::this_thread::sleep_for(10ms);
    std::this_thread::sleep_for(50ms);  // and nothing more arrives
    return hits();
  }

  // The documents outlive the server: its handler threads read them until it is stopped.
  std::mutex mutex_;
  std::map<std::string, std::string> documents_;
  HttpTestServer server_;
  CurlHttpClient http_;
};

TEST_F(VastAdResolverTest, AWrapperChainMergesTrackingOfEveryLevelAndPicksTheFittingMp4) {
  serve("outer", testing::vastWrapper(base(), "outer", tag("inner")));
  serve("inner", testing::vastWrapper(base(), "inner", tag("ad")));
  serve("ad", testing::vast3Inline(base()));
  auto outcome = resolve("outer", {1024, 768});
  auto* ad = std::get_if<ResolvedVastAd>(&outcome);
  ASSERT_TRUE(ad) << std::get<VastFailure>(outcome).message;
  EXPECT_EQ(ad->adId, "inline-3");
  EXPECT_EQ(ad->mediaFile.url, base() + "/media/ad-360.mp4");  // 720p does not fit 1024x768
  EXPECT_EQ(ad->durationSeconds, 10.0);
  EXPECT_EQ(ad->skipOffsetSeconds, 5.0);
  EXPECT_EQ(
      ad->tracking.at(VastEvent::Impression),
      (std::vector<std::string>{base() + "/track/outer-impression",
                                base() + "/track/inner-impression", base() + "/track/impression"}));
  EXPECT_EQ(ad->tracking.at(VastEvent::Start).size(), 3u);
  EXPECT_EQ(ad->tracking.at(VastEvent::Midpoint).size(), 1u);
  EXPECT_EQ(ad->errorUrls.size(), 3u);

  // Every event fired twice reaches each level's URL once.
  VastTracker tracker(http_, ad->tracking, ad->errorUrls);
  for (int round = 0; round < 2; ++round) {
    tracker.fire(VastEvent::Impression);
    for (double at : {0.0, 2.6, 5.1, 7.6, 10.0}) tracker.progress(at, 10.0);
    tracker.fire(VastEvent::Complete);
  }
  auto counts = waitForHits(12);
  EXPECT_EQ(counts.size(), 12u);
  for (const auto& [path, count] : counts) EXPECT_EQ(count, 1) << path;
  EXPECT_TRUE(counts.count("/track/inner-complete"));
  EXPECT_FALSE(counts.count("/track/skip"));
}

TEST_F(VastAdResolverTest, FailuresCarryTheirVastCodeAndTheErrorUrlsMetOnTheWay) {
  serve("loop-a", testing::vastWrapper(base(), "a", tag("loop-b")));
  serve("loop-b", testing::vastWrapper(base(), "b", tag("loop-a")));
  for (int i = 0; i <= 6; ++i) {
    serve("deep" + std::to_string(i), testing::vastWrapper(base(), "d" + std::to_string(i),
                                                           tag("deep" + std::to_string(i + 1))));
  }
  serve("to-empty", testing::vastWrapper(base(), "e", tag("empty")));
  serve("empty", testing::vastEmpty(base()));
  serve("to-missing", testing::vastWrapper(base(), "m", tag("missing")));
  serve("to-slow", testing::vastWrapper(base(), "s", tag("slow")));
  serve("slow", "slow");
  serve("html", "<html>nope</html>");
  std::string flashOnly = testing::vast3Inline(base());
  for (size_t at; (at = flashOnly.find("video/mp4")) != std::string::npos;) {
    flashOnly.replace(at, 9, "video/ogg");
  }
  serve("flash-only", flashOnly);

  struct Case {
    const char* name;
    VastErrorCode code;
    size_t errorUrls;
  } cases[] = {
      {"loop-a", VastErrorCode::WrapperLimit, 2},
      {"deep0", VastErrorCode::WrapperLimit, 6},
      {"to-empty", VastErrorCode::NoAdsAfterWrapper, 2},
      {"to-missing", VastErrorCode::GeneralWrapper, 1},
      {"html", VastErrorCode::XmlParse, 0},
      {"flash-only", VastErrorCode::NoSupportedMediaFile, 1},
      {"nothing-here", VastErrorCode::Undefined, 0},
      {"to-slow", VastErrorCode::WrapperTimeout, 1},
  };
  VastAdResolver::Options options;
  options.hopTimeout = 500ms;
  for (const auto& c : cases) {
    VastFailure failed = failure(resolve(c.name, {1920, 1080}, options));
    EXPECT_EQ(failed.code, c.code) << c.name << ": " << failed.message;
    EXPECT_EQ(failed.errorUrls.size(), c.errorUrls) << c.name;
  }

  // The error URLs are fired once, with the code in the macro.
  VastFailure looped = failure(resolve("loop-a"));
  VastTracker tracker(http_, {}, looped.errorUrls);
  EXPECT_TRUE(tracker.fireError(looped.code));
  EXPECT_FALSE(tracker.fireError(VastErrorCode::Undefined));
  auto counts = waitForHits(2);
  EXPECT_EQ(counts, (std::map<std::string, int>{{"/track/a-error?code=302", 1},
                                                {"/track/b-error?code=302", 1}}));
}

TEST(VastMediaChoiceTest, LargestThatFitsElseSmallestMp4) {
  std::vector<VastMediaFile> files = {
      {"a.flv", "progressive", "video/x-flv", 320, 180, 0},
      {"hls.m3u8", "streaming", "application/x-mpegURL", 640, 360, 0},
      {"720.mp4", "progressive", "video/mp4", 1280, 720, 1500},
      {"360lo.mp4", "progressive", "video/mp4", 640, 360, 400},
      {"360hi.mp4", "progressive", "video/mp4", 640, 360, 900},
      {"1080.mp4", "", "video/mp4", 1920, 1080, 4000},
  };
  EXPECT_EQ(VastAdResolver::chooseMediaFile(files, {1920, 1080})->url, "1080.mp4");
  EXPECT_EQ(VastAdResolver::chooseMediaFile(files, {1280, 800})->url, "720.mp4");
  EXPECT_EQ(VastAdResolver::chooseMediaFile(files, {800, 600})->url, "360hi.mp4");
  EXPECT_EQ(VastAdResolver::chooseMediaFile(files, {320, 240})->url, "360lo.mp4");
  EXPECT_FALSE(VastAdResolver::chooseMediaFile({files[0], files[1]}, {1920, 1080}));
}

TEST(VastTrackerTest, MacrosAreFilledAndOthersLeftAlone) {
  EXPECT_EQ(VastTracker::expandMacros("http://x/e?c=[ERRORCODE]&r=[CACHEBUSTING]&t=[TIMESTAMP]",
                                      VastErrorCode::NoSupportedMediaFile, "12345678"),
            "http://x/e?c=403&r=12345678&t=[TIMESTAMP]");
  EXPECT_EQ(VastTracker::expandMacros("http://x/i?c=[ERRORCODE]", std::nullopt, "1"),
            "http://x/i?c=[ERRORCODE]");
}

}  // namespace
}  // namespace nembra
