#include "nembra/stream_model.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

TEST(StreamModelTest, ReadsEachKeyWithItsTypeAndWritesInReadingOrder) {
  Json json = Json::parse(R"({
    "parent_stream": "p", "volatile": "true", "token": "t", "key": "k", "creation_type": "2",
    "state": 5, "streamable": 1, "video_analysis": {"faces": 1}, "audio_transcription": [],
    "audio_keywords": ["a"], "push_services_success": {"x": 1}, "default_stream_id": 17,
    "effect_profile": "e", "video_type": "mp4", "image_size": 10, "video_width": 1280.9,
    "duration": "2.5", "has_video": "true", "has_audio": true, "nsfw": {"score": 0.1},
    "submission_date": 99, "subtitles": [{"lang": "en"}], "type": "MP4", "created": 7,
    "owned": "true", "state_string": "READY", "video_token": "v"
  })");
  StreamModel stream = StreamModel::initWithJson(json);
  EXPECT_TRUE(stream.isVolatile());
  EXPECT_EQ(stream.creationType, 2);
  EXPECT_EQ(stream.defaultStreamId, "17");
  EXPECT_EQ(stream.videoWidth, 1280);
  EXPECT_EQ(stream.duration, 2.5);
  EXPECT_TRUE(stream.hasVideo);
  EXPECT_FALSE(stream.hasAudio);
  EXPECT_TRUE(stream.owned);
  EXPECT_EQ(stream.videoAnalysis, Json::parse(R"({"faces": 1})"));
  // The wrong kind of raw value is left out rather than kept.
  EXPECT_FALSE(stream.audioTranscription);
  EXPECT_FALSE(stream.pushServicesSuccess);
  EXPECT_EQ(stream.parentStream, "p");

  Json written = stream.toDictionary();
  EXPECT_EQ(written.begin().key(), "volatile");
  EXPECT_EQ(std::prev(written.end()).key(), "parent_stream");
  EXPECT_FALSE(written.contains("audio_transcription"));
  EXPECT_EQ(written["subtitles"], json["subtitles"]);
  EXPECT_EQ(written.size(), 35u);  // all 37 keys but the two absent raw values
}

}  // namespace
}  // namespace nembra
