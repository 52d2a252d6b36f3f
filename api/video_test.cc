#include "nembra/video.h"

#include <gtest/gtest.h>

#include "platform/system/device_facts.h"

namespace nembra {
namespace {

TEST(VideoTest, ReadingRulesOnRealKeys) {
  EXPECT_FALSE(Video::initWithJson(Json::parse(R"({"hd": true})")).hd);
  EXPECT_TRUE(Video::initWithJson(Json::parse(R"({"hd": "true"})")).hd);
  EXPECT_EQ(Video::initWithJson(Json::parse(R"({"title": null})")).title, "");
  EXPECT_EQ(Video::initWithJson(Json::parse(R"({"title": "null"})")).title, "");
  EXPECT_EQ(Video::initWithJson(Json::parse(R"({"state": "7"})")).state, 7);
  EXPECT_EQ(Video::initWithJson(Json::parse(R"({"token": 12})")).token, "12");
  EXPECT_EQ(Video::initWithJson(Json::parse(R"({"description": "d"})")).getDescription(), "d");
  EXPECT_TRUE(Video::initWithJson(Json::parse(R"({"volatile": "true"})")).isVolatile());
}

TEST(VideoTest, StreamsStayRawAndInOrderWhileNamedStreamsBecomeModels) {
  Json json = Json::parse(R"({
    "token": "v1",
    "streams": [{"token": "s2", "zeta": 1, "alpha": 2}, {"token": "s1", "has_video": true}],
    "original_stream": {"token": "s1", "video_width": "640", "has_video": "true"},
    "default_stream": {"token": "s2", "volatile": "true"}
  })");
  Video video = Video::initWithJson(json);
  ASSERT_TRUE(video.streams);
  EXPECT_EQ(video.streams->dump(), json["streams"].dump());
  EXPECT_EQ(video.originalStream.token, "s1");
  EXPECT_EQ(video.originalStream.videoWidth, 640);
  EXPECT_TRUE(video.originalStream.hasVideo);
  EXPECT_EQ(video.defaultStream.token, "s2");
  EXPECT_TRUE(video.defaultStream.isVolatile());
}

TEST(VideoTest, NestedModelsResetWhenTheirDictionaryIsGone) {
  Video video = Video::initWithJson(Json::parse(R"({
    "default_stream": {"token": "s2", "duration": 3.5},
    "device_info": {"os": "Other OS", "deviceName": "phone"}
  })"));
  EXPECT_EQ(video.deviceInfo.os, "Other OS");
  // A device info that is present is read as sent: its missing keys become empty.
  EXPECT_EQ(video.deviceInfo.nembraSdkVer, "");

  video.setInfo(Json::parse(R"({"default_stream": "not a dictionary"})"));
  EXPECT_EQ(video.defaultStream.token, "");
  EXPECT_EQ(video.defaultStream.duration, 0.0);
  EXPECT_EQ(video.deviceInfo.os, DeviceFacts::current().systemName);
  EXPECT_EQ(video.deviceInfo.deviceName, DeviceFacts::current().name);
}

TEST(VideoTest, SetInfoOnAnEmptyDictionaryEqualsClear) {
  Video video = Video::initWithJson(Json::parse(R"({"token": "t", "hd": "true", "tags": ["a"],
      "data": {"k": 1}, "default_stream": {"token": "s"}, "created": 5})"));
  Video cleared = video;
  cleared.clear();
  video.setInfo(Json::object());
  EXPECT_EQ(video.toDictionary(), cleared.toDictionary());
  EXPECT_EQ(video.toDictionary(), Video().toDictionary());
}

TEST(VideoTest, ToDictionaryWritesKeysInFieldOrderAndLeavesOutAbsentValues) {
  std::string keys;
  const Json written = Video().toDictionary();
  for (const auto& item : written.items()) keys += item.key() + " ";
  EXPECT_EQ(keys,
            "volatile token key state only_audio title description max_duration enforce_duration "
            "video_source duration device_info submission_date resubmission_date "
            "stream_submission_date user_language delete_old_streams auto_crop auto_pad hd "
            "submitted approved moderation_reason default_image_selector video_file_name type "
            "created owned video_profile meta_profile meta_profile_id state_string "
            "original_stream default_stream embed_image_url embed_video_url ");
}

TEST(VideoTest, ToDictionaryRoundTripsEverythingButTrueFlags) {
  Json json = Json::parse(R"({
    "token": "v", "key": "k", "state": 3, "title": "T", "description": "D", "max_duration": 60.5,
    "video_source": "src", "duration": 12.25, "tags": ["x", "y"], "data": {"b": 1, "a": 2},
    "device_info": {"os": "o", "nembraSdkVer": "1", "deviceModel": "m", "systemVersion": "s",
                    "deviceName": "n"},
    "submission_date": 1700000000123, "expiration_days": 7, "resubmission_date": 4,
    "stream_submission_date": 5, "average_rating": 4.5, "moderation_reason": "none",
    "effect_profile": "e", "default_image_selector": 0.25, "video_file_name": "f.mp4",
    "type": "t", "created": 1700000000, "video_profile": "vp", "meta_profile": "mp",
    "meta_profile_id": "mpi", "state_string": "READY", "streams": [{"token": "s"}],
    "original_stream": {"token": "o"}, "default_stream": {"token": "d"},
    "embed_image_url": "i", "embed_video_url": "u", "hd": "true"
  })");
  Video video = Video::initWithJson(json);
  Json written = video.toDictionary();
  // A flag is written as a JSON boolean, and a JSON true reads back false: deliberate.
  EXPECT_EQ(written["hd"], true);
  EXPECT_FALSE(Video::initWithJson(written).hd);
  video.hd = false;
  EXPECT_EQ(Video::initWithJson(video.toDictionary()).toDictionary(), video.toDictionary());
  EXPECT_EQ(written["data"].dump(), R"({"b":1,"a":2})");
  EXPECT_EQ(written["submission_date"], 1700000000123);
  EXPECT_EQ(written["default_stream"]["token"], "d");
}

TEST(ContentModelTest, IdIsTheToken) {
  Video video;
  video.setId("abc");
  EXPECT_EQ(video.token, "abc");
  EXPECT_EQ(video.getId(), "abc");
  video.date = 9;
  video.streamToken = "s";
  video.setInfo(Json::object());
  // Not service keys: setInfo leaves them, clear resets them.
  EXPECT_EQ(video.getDate(), 9);
  EXPECT_EQ(video.streamToken, "s");
  video.clear();
  EXPECT_EQ(video.getDate(), 0);
  EXPECT_EQ(video.streamToken, "");
}

}  // namespace
}  // namespace nembra
