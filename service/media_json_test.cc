#include "service/media_json.h"

#include <gtest/gtest.h>

#include "api/model_field_lists.h"

namespace nembra {
namespace {

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

// Every key the api model lists is there: the SDK reads nothing the service leaves out.
template <typename Model>
void expectModelKeys(const Json& json, const ModelFields<Model>& fields) {
  for (const char* key : fields.keys()) EXPECT_TRUE(json.contains(key)) << "missing " << key;
}

// The SDK reads a boolean as true only from the text "true": none may go out as a JSON boolean.
void expectNoJsonBooleans(const Json& json, const std::string& where) {
  for (const auto& [key, value] : json.items()) {
    EXPECT_FALSE(value.is_boolean()) << where << "." << key;
    if (value.is_object() || value.is_array()) expectNoJsonBooleans(value, where + "." + key);
  }
}

const PublicUrls kUrls = PublicUrls::fromBase("http://h:1", "http://h:2/storage/b", "");

TEST(MediaJsonTest, VideoReadsBackIntoTheSdkModel) {
  MediaView view = sampleView(MediaKind::Video);
  view.media.attributes["device_info"] = {{"os", "Android"}, {"deviceName", 7}};
  Json json = MediaJson(kUrls).video(view);
  expectModelKeys(json, videoFields());
  expectNoJsonBooleans(json, "video");

  Video video = Video::initWithJson(json);
  EXPECT_EQ(video.title, "T");
  EXPECT_TRUE(video.enforceDuration);
  EXPECT_TRUE(video.hd);
  EXPECT_TRUE(video.submitted);
  EXPECT_FALSE(video.autoPad);
  EXPECT_EQ(video.stateString, "ready");  // the default stream's, not the newest's
  EXPECT_EQ(video.defaultStream.token, "s1");
  EXPECT_EQ(video.defaultStream.videoWidth, 1280);
  EXPECT_TRUE(video.defaultStream.hasAudio);
  ASSERT_TRUE(video.streams && video.streams->size() == 2u);
  EXPECT_EQ((*video.streams)[1]["token"], "s2");
  // The client's device, never the service's own machine.
  EXPECT_EQ(video.deviceInfo.os, "Android");
  EXPECT_EQ(video.deviceInfo.deviceName, "7");
  EXPECT_EQ(video.deviceInfo.systemVersion, "");
  EXPECT_EQ(video.embedVideoUrl, "http://h:1/cdn/v1/applications/app/videos/m1/video.mp4");
  EXPECT_EQ(video.embedImageUrl, "http://h:1/cdn/v1/applications/app/videos/m1/image");
}

TEST(MediaJsonTest, StreamReadsBackIntoTheSdkModel) {
  MediaView view = sampleView(MediaKind::Video);
  view.streams[1].probeError = "moov atom not found";
  MediaJson renderer(kUrls);
  Json json = renderer.stream(view, view.streams[0]);
  expectModelKeys(json, streamModelFields());
  expectNoJsonBooleans(json, "stream");
  EXPECT_FALSE(json.contains("probe_error"));
  StreamModel stream = StreamModel::initWithJson(json);
  EXPECT_EQ(stream.videoWidth, 1280);
  EXPECT_TRUE(stream.hasImage);
  EXPECT_TRUE(stream.videoHasAudio);
  EXPECT_EQ(stream.streamable, 1);
  EXPECT_EQ(stream.defaultStreamId, "s1");
  EXPECT_EQ(stream.key, "applications/app/videos/m1/streams/s1/video.mp4");
  EXPECT_EQ(renderer.stream(view, view.streams[1])["probe_error"], "moov atom not found");
}

TEST(MediaJsonTest, AudioAndImageReadBackWithTheirOwnTypes) {
  MediaJson renderer(kUrls);
  MediaView audioView = sampleView(MediaKind::Audio);
  audioView.media.attributes["max_duration"] = 30;
  Json audioJson = renderer.audio(audioView);
  expectModelKeys(audioJson, audioFields());
  expectNoJsonBooleans(audioJson, "audio");
  Audio audio = Audio::initWithJson(audioJson);
  EXPECT_EQ(audio.maxDuration, "30");
  EXPECT_EQ(audio.created, "2024-05-01T12:00:00.000Z");
  EXPECT_TRUE(audio.enforceDuration);
  EXPECT_EQ(audio.originalStream.token, "s1");
  EXPECT_EQ(audio.defaultStreamId, "s1");

  Json imageJson = renderer.image(sampleView(MediaKind::Image));
  expectModelKeys(imageJson, imageFields());
  expectNoJsonBooleans(imageJson, "image");
  Image image = Image::initWithJson(imageJson);
  EXPECT_EQ(image.streamSubmissionDate, "0");
  EXPECT_EQ(image.submitted, "true");
  EXPECT_TRUE(image.hd);
  EXPECT_EQ(image.imageFileName, "image.jpg");
  EXPECT_EQ(imageJson["default_stream"]["token"], "s1");
  EXPECT_EQ(renderer.mediaUrl(sampleView(MediaKind::Image).media),
            "http://h:1/files/v1/applications/app/images/m1/image.jpg");
}

}  // namespace
}  // namespace nembra
