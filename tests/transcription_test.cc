// Subtitles' source on the service side: a video with speech uploaded to `nembra serve` through
// the SDK is transcribed in the background, and the SDK's original-stream description then
// holds the words with their times in milliseconds.
#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "nembra/application.h"
#include "nembra/nembra_config.h"
#include "nembra/nembra_videos.h"
#include "platform/speech/testing/spoken_media.h"
#include "playback/nembra_player.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;

TEST(TranscriptionTest, AnUploadedSpokenVideoGetsItsWordsInTheOriginalStreamDescription) {
  if (!testing::MediaTestFiles::haveFfmpeg() || !testing::haveEspeak()) {
    GTEST_SKIP() << "needs ffmpeg and espeak-ng";
  }
  testing::TempDir scratch("nembra-transcription");
  testing::MediaTestFiles media;
  // Words the recogniser hears well in espeak-ng's voice.
  const std::vector<std::string> spoken = {"one", "two", "three", "four", "five", "six"};
  std::string file = testing::spokenVideo(media, "counting.mp4", "one two three four five six");
  ASSERT_FALSE(file.empty());

  std::string error;
  testing::ServeProcess::Options options;
  options.dataDir = scratch.file("data");
  auto serve = testing::ServeProcess::start(options, error);
  ASSERT_TRUE(serve) << error;

  MainQueue mainQueue;
  Nembra nembra("app1", mainQueue);
  nembra.config().useSingleServer(serve->baseUrl());
  auto created = std::make_shared<std::promise<std::optional<Json>>>();
  nembra.videos().createVideoWithData(
      Json::object(), file, nullptr,
      [created](const std::optional<Json>& json, const HttpResponse&, const OptionalError&) {
        created->set_value(json);
      },
      nullptr);
  auto createdFuture = created->get_future();
  ASSERT_EQ(createdFuture.wait_for(60s), std::future_status::ready);
  auto submitted = createdFuture.get();
  ASSERT_TRUE(submitted && submitted->contains("token")) << serve->output();
  const std::string token = (*submitted)["token"];

  // The upload is answered before the words are there; the description fills in later.
  Json transcription;
  for (int i = 0; i < 240 && transcription.empty(); ++i) {
    auto described = std::make_shared<std::promise<std::optional<Json>>>();
    nembra.videos().getOriginalStreamDescriptionForVideoByToken(
        token, [described](const std::optional<Json>& json, const HttpResponse&,
                           const OptionalError&) { described->set_value(json); });
    auto stream = described->get_future().get();
    if (stream && stream->contains("audio_transcription") &&
        !(*stream)["audio_transcription"].value("words", Json::array()).empty()) {
      transcription = (*stream)["audio_transcription"];
    } else {
      std::this_thread::sleep_for(250ms);
    }
  }
  ASSERT_FALSE(transcription.empty()) << serve->output();

  const Json& words = transcription["words"];
  const Json& times = transcription["times"];
  ASSERT_EQ(words.size(), times.size());
  std::set<std::string> heard;
  for (size_t i = 0; i < words.size(); ++i) {
    heard.insert(words[i].get<std::string>());
    EXPECT_LT(times[i]["start"].get<int64_t>(), times[i]["end"].get<int64_t>());
    EXPECT_LT(times[i]["end"].get<int64_t>(), 4000);  // the clip is about 2.5 s long
  }
  std::string matched;
  int count = 0;
  for (const auto& word : spoken) {
    if (heard.count(word)) {
      matched += word + " ";
      ++count;
    }
  }
  std::cout << "[ spoken   ] matched " << count << " of " << spoken.size() << ": " << matched
            << "(heard " << words.dump() << ")\n";
  EXPECT_GE(count, 4);
  EXPECT_NE(serve->output().find("transcribed video " + token), std::string::npos);

  // The player turns the description into a WebVTT subtitle track with the heard words.
  std::shared_ptr<NembraPlayer> player;
  bool made = false;
  NembraPlayer::createPlayerWithAdditionalParams(nembra, token, Json::object(),
                                                 [&](std::shared_ptr<NembraPlayer> created) {
                                                   player = std::move(created);
                                                   made = true;
                                                 });
  ASSERT_TRUE(mainQueue.runUntil([&] { return made; }, 30s));
  ASSERT_TRUE(player);
  ASSERT_EQ(player->itemCount(), 1u);
  const std::string vtt = testing::readFile(player->item(0).textTrackPath);
  EXPECT_EQ(vtt.rfind("WEBVTT\n\n", 0), 0u) << vtt;
  EXPECT_NE(vtt.find("\nthree\n"), std::string::npos) << vtt;
  player->close();
  player.reset();
  EXPECT_EQ(serve->stop(SIGTERM), 0);
}

}  // namespace
}  // namespace nembra
