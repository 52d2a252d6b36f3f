// The ad client against the local service's sample tags: a wrapper resolved to the inline ad and
// its generated clip, every pixel of both levels counted once by the service, and a no-ad
// answer reported with its VAST error code.
#include <gtest/gtest.h>
#include <httplib.h>

#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "api/vast_ad_resolver.h"
#include "api/vast_tracker.h"
#include "platform/http/http_curl_client.h"
#include "platform/media/media_probe.h"
#include "platform/media/testing/media_test_files.h"
#include "service/local_service.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

class VastAdsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    ServiceOptions options;
    options.port = 0;
    options.rtmpPort = 0;  // no ingest
    options.dataDir = data_.path();
    service_ = std::make_unique<LocalService>(options, [](const std::string&) {});
    auto error = service_->start();
    ASSERT_FALSE(error) << error->message;
    client_ = std::make_unique<httplib::Client>("127.0.0.1", service_->port());
  }

  std::string url(const std::string& path) const { return service_->urls().base + path; }

  VastAdResolver::Outcome resolve(const std::string& path) {
    VastAdResolver resolver(http_);
    std::promise<VastAdResolver::Outcome> done;
    resolver.resolve(url(path), {1280, 720},
                     [&done](VastAdResolver::Outcome outcome) { done.set_value(outcome); });
    auto future = done.get_future();
    EXPECT_EQ(future.wait_for(30s), std::future_status::ready);
    return future.get();
  }

  // The service's record once |expected| hits have arrived (or after a while).
  Json hits(int expected) {
    Json body;
    for (int i = 0; i < 300; ++i) {
      auto answer = client_->Get("/ads/tracking");
      body = answer ? Json::parse(answer->body, nullptr, false) : Json();
      int total = 0;
      for (const auto& level : body) {
        for (const auto& count : level) total += count.get<int>();
      }
      if (total >= expected) break;
      std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(100ms);  // nothing more arrives
    auto answer = client_->Get("/ads/tracking");
    return answer ? Json::parse(answer->body, nullptr, false) : Json();
  }

  testing::TempDir data_{"nembra-vast-ads"};
  std::unique_ptr<LocalService> service_;
  std::unique_ptr<httplib::Client> client_;
  CurlHttpClient http_;
};

TEST_F(VastAdsTest, TheWrapperTagResolvesToThePlayableClipAndEveryPixelCountsOnce) {
  auto outcome = resolve("/ads/vast/wrapper.xml");
  auto* ad = std::get_if<ResolvedVastAd>(&outcome);
  ASSERT_TRUE(ad) << std::get<VastFailure>(outcome).message;
  EXPECT_EQ(ad->mediaFile.url, url("/ads/media/ad.mp4"));
  EXPECT_EQ(ad->durationSeconds, 4.0);
  EXPECT_EQ(ad->skipOffsetSeconds, 2.0);

  // The clip is real media of the size the document announces.
  auto clip = client_->Get("/ads/media/ad.mp4");
  ASSERT_TRUE(clip);
  ASSERT_EQ(clip->status, 200);
  testing::TempDir scratch("nembra-vast-clip");
  testing::writeFile(scratch.file("ad.mp4"), clip->body);
  MediaProbeResult probed;
  ASSERT_FALSE(makeMediaProbe()->probe(scratch.file("ad.mp4"), probed));
  EXPECT_EQ(probed.width, 640);
  EXPECT_NEAR(probed.duration, 4.0, 0.2);

  VastTracker tracker(http_, ad->tracking, ad->errorUrls);
  for (int round = 0; round < 2; ++round) {
    tracker.fire(VastEvent::Impression);
    for (double at = 0; at <= 4.0; at += 0.5) tracker.progress(at, 4.0);
    tracker.fire(VastEvent::Skip);
    tracker.fire(VastEvent::Complete);
  }
  Json counts = hits(14);
  Json once = {{"impression", 1},    {"start", 1}, {"firstQuartile", 1}, {"midpoint", 1},
               {"thirdQuartile", 1}, {"skip", 1},  {"complete", 1}};
  EXPECT_EQ(counts["inline"], once) << counts.dump();
  EXPECT_EQ(counts["wrapper"], once) << counts.dump();
  EXPECT_FALSE(counts.contains("error"));

  ASSERT_TRUE(client_->Delete("/ads/tracking"));
  EXPECT_EQ(client_->Get("/ads/tracking")->body, "{}");
}

TEST_F(VastAdsTest, TheEmptyTagFiresItsErrorUrlWithTheNoAdCode) {
  auto outcome = resolve("/ads/vast/empty.xml");
  auto* failure = std::get_if<VastFailure>(&outcome);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, VastErrorCode::NoAdsAfterWrapper);
  VastTracker tracker(http_, {}, failure->errorUrls);
  tracker.fireError(failure->code);
  EXPECT_EQ(hits(1)["error"], (Json{{"303", 1}}));

  auto vast4 = resolve("/ads/vast/inline4.xml");
  ASSERT_TRUE(std::get_if<ResolvedVastAd>(&vast4));
}

}  // namespace
}  // namespace nembra
