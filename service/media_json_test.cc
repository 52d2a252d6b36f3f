#include "service/media_json.h"

#include <gtest/gtest.h>

#include <set>

namespace nembra {
namespace {

using Json = nlohmann::ordered_json;

MediaView sampleView(MediaKind kind) {
  MediaView view;
  view.media.token = "m1";
  view.media.application = "app";
  view.media.kind = kind;
  view.media.created = view.media.updated = 1714564800;
  view.media.attributes = {{"title", "T"}, {"enforce_duration", true}, {"tags", {"a"}}};
  StreamRecord first;
  first.token = "s1";
  first.media = "m1";
  first.state = StreamState::Ready;
  first.width = 1280;
  first.height = 720;
  first.duration = 3.5;
  first.hasVideo = first.hasAudio = true;
  first.fileSize = 1000;
  first.coverSize = 10;
  first.submitted = true;
  StreamRecord second = first;
  second.token = "s2";
  second.state = StreamState::Created;
  second.fileSize = 0;
  view.streams = {first, second};
  return view;
}

void expectKeys(const Json& json, const std::vector<const char*>& keys) {
  for (const char* key : keys) EXPECT_TRUE(json.contains(key)) << "missing \"" << key << "\"";
}

// The SDK reads a boolean as true only from the text "true": none may go out as a JSON boolean.
void expectNoJsonBooleans(const Json& json, const std::string& where) {
  for (const auto& [key, value] : json.items()) {
    EXPECT_FALSE(value.is_boolean()) << where << "." << key;
    if (value.is_object() || value.is_array()) expectNoJsonBooleans(value, where + "." + key);
  }
}

const PublicUrls kUrls = PublicUrls::fromBase("http://h:1", "http://h:2/storage/b", "");

TEST(MediaJsonTest, VideoFillsEveryKeyOfTheModel) {
  Json json = MediaJson(kUrls).video(sampleView(MediaKind::Video));
  expectKeys(json, {"volatile",
                    "token",
                    "key",
                    "state",
                    "only_audio",
                    "title",
                    "description",
                    "max_duration",
                    "enforce_duration",
                    "video_source",
                    "duration",
                    "tags",
                    "data",
                    "device_info",
                    "submission_date",
                    "expiration_days",
                    "resubmission_date",
                    "stream_submission_date",
                    "user_language",
                    "delete_old_streams",
                    "auto_crop",
                    "auto_pad",
                    "hd",
                    "average_rating",
                    "submitted",
                    "approved",
                    "moderation_reason",
                    "effect_profile",
                    "default_image_selector",
                    "video_file_name",
                    "type",
                    "created",
                    "owned",
                    "video_profile",
                    "meta_profile",
                    "meta_profile_id",
                    "state_string",
                    "streams",
                    "original_stream",
                    "default_stream",
                    "embed_image_url",
                    "embed_video_url"});
  expectNoJsonBooleans(json, "video");
  EXPECT_EQ(json["enforce_duration"], "true");
  EXPECT_EQ(json["hd"], "true");
  EXPECT_EQ(json["state_string"], "ready");  // the default stream's, not the newest's
  EXPECT_EQ(json["default_stream"]["token"], "s1");
  EXPECT_EQ(json["streams"].size(), 2u);
  EXPECT_EQ(json["embed_video_url"], "http://h:1/cdn/v1/applications/app/videos/m1/video.mp4");
  EXPECT_EQ(json["embed_image_url"], "http://h:1/cdn/v1/applications/app/videos/m1/image");
}

TEST(MediaJsonTest, StreamFillsEveryKeyOfTheModel) {
  MediaView view = sampleView(MediaKind::Video);
  Json json = MediaJson(kUrls).stream(view, view.streams[0]);
  expectKeys(json, {"volatile",
                    "token",
                    "key",
                    "creation_type",
                    "state",
                    "streamable",
                    "video_analysis",
                    "audio_transcription",
                    "audio_keywords",
                    "push_services_success",
                    "default_stream_id",
                    "effect_profile",
                    "effect_profile_id",
                    "video_profile_transcoding",
                    "video_type",
                    "video_sub_type",
                    "image_size",
                    "audio_size",
                    "video_size",
                    "video_width",
                    "video_height",
                    "duration",
                    "has_video",
                    "has_image",
                    "has_audio",
                    "video_has_audio",
                    "nsfw",
                    "submission_date",
                    "subtitles",
                    "type",
                    "created",
                    "owned",
                    "creation_type_string",
                    "streamable_string",
                    "state_string",
                    "video_token",
                    "parent_stream"});
  expectNoJsonBooleans(json, "stream");
  EXPECT_EQ(json["video_width"], 1280);
  EXPECT_EQ(json["has_image"], "true");
  EXPECT_EQ(json["streamable"], 1);
  EXPECT_EQ(json["key"], "applications/app/videos/m1/streams/s1/video.mp4");
}

TEST(MediaJsonTest, AudioAndImageFillTheirModelsWithTheirOwnTypes) {
  MediaJson renderer(kUrls);
  Json audio = renderer.audio(sampleView(MediaKind::Audio));
  expectKeys(audio, {"_id",
                     "created",
                     "updated",
                     "application_id",
                     "state",
                     "min_duration",
                     "max_duration",
                     "enforce_duration",
                     "original_stream_id",
                     "default_stream_id",
                     "tags",
                     "data",
                     "device_info",
                     "submission_date",
                     "expiration_days",
                     "resubmission_date",
                     "stream_submission_date",
                     "user_language",
                     "delete_old_streams",
                     "auto_crop",
                     "creation_auth_session_id",
                     "average_rating",
                     "ratings",
                     "comments",
                     "submitted",
                     "approved",
                     "moderation_reason",
                     "audio_profile_id",
                     "meta_profile_id",
                     "volatile",
                     "default_stream",
                     "original_stream",
                     "token",
                     "key",
                     "title",
                     "description",
                     "duration",
                     "state_string"});
  expectNoJsonBooleans(audio, "audio");
  EXPECT_TRUE(audio["max_duration"].is_string());
  EXPECT_EQ(audio["created"], "2024-05-01T12:00:00.000Z");

  Json image = renderer.image(sampleView(MediaKind::Image));
  expectKeys(image, {"_id", "image_source", "facebook_likes", "facebook_shares", "image_file_name",
                     "auto_pad", "hd", "stream_submission_date"});
  expectNoJsonBooleans(image, "image");
  EXPECT_TRUE(image["stream_submission_date"].is_string());
  EXPECT_EQ(renderer.mediaUrl(sampleView(MediaKind::Image).media),
            "http://h:1/files/v1/applications/app/images/m1/image.jpg");
}

}  // namespace
}  // namespace nembra
