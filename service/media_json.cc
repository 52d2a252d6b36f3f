#include "service/media_json.h"

#include "api/model_field_lists.h"
#include "platform/http/http_time.h"
#include "service/media_library.h"

namespace nembra {
namespace {

// Settable fields read back with their defaults.
struct Attributes {
  const nlohmann::json& values;

  std::string string(const char* name, const std::string& fallback = "") const {
    auto it = values.find(name);
    return it != values.end() && it->is_string() ? it->get<std::string>() : fallback;
  }
  // Any value as the text a model's string field holds; "" when missing or null.
  std::string text(const char* name) const {
    auto it = values.find(name);
    if (it == values.end() || it->is_null()) return "";
    return it->is_string() ? it->get<std::string>() : it->dump();
  }
  bool flag(const char* name) const {
    auto it = values.find(name);
    return it != values.end() && it->is_boolean() && it->get<bool>();
  }
  double number(const char* name) const {
    auto it = values.find(name);
    return it != values.end() && it->is_number() ? it->get<double>() : 0.0;
  }
  Json any(const char* name, Json fallback = nullptr) const {
    auto it = values.find(name);
    return it != values.end() ? Json(*it) : fallback;
  }
  Json tags() const {
    auto it = values.find("tags");
    return it != values.end() && it->is_array() ? Json(*it) : Json::array();
  }
  // The device description a client sent, each missing key "" (never this machine's).
  DeviceInfo deviceInfo() const {
    DeviceInfo info;
    auto it = values.find("device_info");
    info.setInfo(it != values.end() && it->is_object() ? Json(*it) : Json::object());
    return info;
  }
};

const char* text(bool value) { return value ? "true" : "false"; }

// The words heard in the stream's sound and their times, words first as players read them; an
// empty object until the transcript is done.
Json transcription(const StreamRecord& stream) {
  auto found = stream.attributes.find("audio_transcription");
  if (found == stream.attributes.end() || !found->is_object()) return Json::object();
  Json ordered = Json::object();
  for (const char* key : {"words", "times"}) {
    auto part = found->find(key);
    ordered[key] = part != found->end() ? Json(*part) : Json::array();
  }
  return ordered;
}

// Shared by the three kinds: the default stream's state is the media's.
struct Summary {
  int state = 0;
  std::string stateString = "created";
  double duration = 0.0;
  bool submitted = false;
  int64_t submissionDate = 0;
  int height = 0;
};

Summary summarize(const MediaView& view) {
  Summary summary;
  if (const StreamRecord* stream = view.defaultStream()) {
    summary.state = static_cast<int>(stream->state);
    summary.stateString = streamStateName(stream->state);
    summary.duration = stream->duration;
    summary.submitted = stream->submitted;
    summary.submissionDate = stream->submissionDate;
    summary.height = stream->height;
  }
  return summary;
}

}  // namespace

PublicUrls PublicUrls::fromBase(const std::string& base, const std::string& storage,
                                const std::string& rtmp) {
  return PublicUrls{base, base + "/embed", base + "/cdn", base + "/files", storage, rtmp};
}

MediaJson::MediaJson(PublicUrls urls) : urls_(std::move(urls)) {}

std::string MediaJson::mediaUrl(const MediaRecord& media) const {
  std::string root = media.kind == MediaKind::Video ? urls_.cdn : urls_.files;
  return root + "/v1/applications/" + media.application + "/" + mediaKindCollection(media.kind) +
         "/" + media.token + "/" + mediaFileName(media.kind);
}

std::string MediaJson::coverUrl(const MediaRecord& media) const {
  return urls_.cdn + "/v1/applications/" + media.application + "/videos/" + media.token + "/image";
}

Json MediaJson::media(const MediaView& view) const {
  switch (view.media.kind) {
    case MediaKind::Audio:
      return audio(view);
    case MediaKind::Image:
      return image(view);
    case MediaKind::Video:
      break;
  }
  return video(view);
}

Json MediaJson::stream(const MediaView& view, const StreamRecord& stream) const {
  Json json = streamModelFields().write(streamModel(view, stream), BooleanForm::kText);
  // Beyond the model: why the file could not be read, for whoever looks at the service.
  if (!stream.probeError.empty()) json["probe_error"] = stream.probeError;
  return json;
}

StreamModel MediaJson::streamModel(const MediaView& view, const StreamRecord& stream) const {
  Attributes attributes{stream.attributes};
  MediaKind kind = view.media.kind;
  bool hasFile = stream.state == StreamState::Uploaded || stream.state == StreamState::Ready;
  bool streamable = hasFile && stream.probeError.empty();
  const StreamRecord* preferred = view.defaultStream();
  StreamModel model;
  model._volatile = attributes.flag("volatile");
  model.token = stream.token;
  model.key = MediaLibrary::objectKey(view.media.application, kind, view.media.token, stream.token);
  model.creationType = static_cast<int32_t>(stream.origin);
  model.state = static_cast<int32_t>(stream.state);
  model.streamable = streamable ? 1 : 0;
  model.videoAnalysis = Json::object();
  model.audioTranscription = transcription(stream);
  model.audioKeywords = Json::array();
  model.pushServicesSuccess = Json::array();
  model.defaultStreamId = preferred ? preferred->token : "";
  model.effectProfile = attributes.text("effect_profile");
  model.effectProfileId = attributes.string("effect_profile_id");
  model.videoProfileTranscoding = attributes.string("video_profile_transcoding");
  model.videoType = hasFile ? std::string(mediaFileName(kind)).substr(6) : "";
  model.imageSize = static_cast<int32_t>(stream.coverSize > 0       ? stream.coverSize
                                         : kind == MediaKind::Image ? stream.fileSize
                                                                    : 0);
  model.audioSize = static_cast<int32_t>(kind == MediaKind::Audio ? stream.fileSize : 0);
  model.videoSize = static_cast<int32_t>(kind == MediaKind::Video ? stream.fileSize : 0);
  model.videoWidth = stream.width;
  model.videoHeight = stream.height;
  model.duration = stream.duration;
  model.hasVideo = kind != MediaKind::Image && stream.hasVideo;
  model.hasImage = stream.coverSize > 0 || (kind == MediaKind::Image && hasFile);
  model.hasAudio = stream.hasAudio;
  model.videoHasAudio = stream.hasVideo && stream.hasAudio;
  model.nsfw = Json::object();
  model.submissionDate = static_cast<int32_t>(stream.submissionDate);
  model.subtitles = Json::array();
  model.type = mediaKindName(kind);
  model.created = static_cast<int32_t>(stream.created);
  model.owned = true;
  model.creationTypeString = streamOriginName(stream.origin);
  model.streamableString = streamable ? "streamable" : "not_streamable";
  model.stateString = streamStateName(stream.state);
  model.videoToken = view.media.token;
  return model;
}

Json MediaJson::video(const MediaView& view) const {
  const MediaRecord& media = view.media;
  Attributes attributes{media.attributes};
  Summary summary = summarize(view);
  Video video;
  video._volatile = attributes.flag("volatile");
  video.token = media.token;
  video.key = attributes.string("key");
  video.state = summary.state;
  video.onlyAudio = attributes.flag("only_audio");
  video.title = attributes.string("title");
  video._description = attributes.string("description");
  video.maxDuration = attributes.number("max_duration");
  video.enforceDuration = attributes.flag("enforce_duration");
  video.videoSource = attributes.string("video_source");
  video.duration = summary.duration;
  video.tags = attributes.tags();
  video.data = attributes.any("data", "");
  video.deviceInfo = attributes.deviceInfo();
  video.submissionDate = summary.submissionDate;
  video.expirationDays = attributes.any("expiration_days", 0);
  video.streamSubmissionDate = static_cast<int32_t>(summary.submissionDate);
  video.userLanguage = attributes.flag("user_language");
  video.deleteOldStreams = attributes.flag("delete_old_streams");
  video.autoCrop = attributes.flag("auto_crop");
  video.autoPad = attributes.flag("auto_pad");
  video.hd = summary.height >= 720;
  video.averageRating = 0;
  video.submitted = summary.submitted;
  video.approved = true;
  video.effectProfile = attributes.any("effect_profile", "");
  video.defaultImageSelector = attributes.number("default_image_selector");
  video.videoFileName = "video.mp4";
  video.type = "video";
  video.created = static_cast<int32_t>(media.created);
  video.owned = true;
  video.videoProfile = attributes.string("video_profile");
  video.metaProfile = attributes.string("meta_profile");
  video.metaProfileId = attributes.string("meta_profile_id");
  video.stateString = summary.stateString;
  video.streams = Json::array();
  for (const auto& stream : view.streams) video.streams->push_back(this->stream(view, stream));
  if (const StreamRecord* original = view.originalStream()) {
    video.originalStream = streamModel(view, *original);
  }
  if (const StreamRecord* preferred = view.defaultStream()) {
    video.defaultStream = streamModel(view, *preferred);
  }
  video.embedImageUrl = coverUrl(media);
  video.embedVideoUrl = mediaUrl(media);
  return videoFields().write(video, BooleanForm::kText);
}

Json MediaJson::audio(const MediaView& view) const {
  const MediaRecord& media = view.media;
  Attributes attributes{media.attributes};
  Summary summary = summarize(view);
  const StreamRecord* original = view.originalStream();
  const StreamRecord* preferred = view.defaultStream();
  Audio audio;
  audio._id = media.token;
  audio.created = formatIso8601(media.created);
  audio.updated = formatIso8601(media.updated);
  audio.applicationId = media.application;
  audio.state = summary.state;
  audio.minDuration = attributes.number("min_duration");
  audio.maxDuration = attributes.text("max_duration");
  audio.enforceDuration = attributes.flag("enforce_duration");
  audio.originalStreamId = original ? original->token : "";
  audio.defaultStreamId = preferred ? preferred->token : "";
  audio.tags = attributes.tags();
  audio.data = attributes.text("data");
  audio.deviceInfo = attributes.deviceInfo();
  audio.submissionDate = summary.submissionDate;
  audio.expirationDays = attributes.text("expiration_days");
  audio.resubmissionDate = attributes.text("resubmission_date");
  audio.streamSubmissionDate = summary.submissionDate;
  audio.userLanguage = attributes.flag("user_language");
  audio.deleteOldStreams = attributes.flag("delete_old_streams");
  audio.autoCrop = attributes.flag("auto_crop");
  audio.creationAuthSessionId = media.creationSession;
  audio.comments = Json::array();
  audio.submitted = summary.submitted;
  audio.approved = "true";
  audio.audioProfileId = attributes.string("audio_profile_id");
  audio.metaProfileId = attributes.string("meta_profile_id");
  audio._volatile = attributes.flag("volatile");
  audio.defaultStream = preferred ? stream(view, *preferred) : Json::object();
  if (original) audio.originalStream = streamModel(view, *original);
  audio.token = media.token;
  audio.key = attributes.string("key");
  audio.title = attributes.string("title");
  audio._description = attributes.string("description");
  audio.duration = summary.duration;
  audio.stateString = summary.stateString;
  return audioFields().write(audio, BooleanForm::kText);
}

Json MediaJson::image(const MediaView& view) const {
  const MediaRecord& media = view.media;
  Attributes attributes{media.attributes};
  Summary summary = summarize(view);
  const StreamRecord* original = view.originalStream();
  const StreamRecord* preferred = view.defaultStream();
  Image image;
  image._id = media.token;
  image.created = formatIso8601(media.created);
  image.updated = formatIso8601(media.updated);
  image.applicationId = media.application;
  image.state = summary.state;
  image.imageSource = attributes.number("image_source");
  image.originalStreamId = original ? original->token : "";
  image.defaultStreamId = preferred ? preferred->token : "";
  image.tags = attributes.tags();
  image.data = attributes.text("data");
  image.deviceInfo = attributes.deviceInfo();
  image.submissionDate = summary.submissionDate;
  image.expirationDays = attributes.text("expiration_days");
  image.resubmissionDate = attributes.text("resubmission_date");
  image.streamSubmissionDate = std::to_string(summary.submissionDate);
  image.userLanguage = text(attributes.flag("user_language"));
  image.deleteOldStreams = text(attributes.flag("delete_old_streams"));
  image.autoCrop = text(attributes.flag("auto_crop"));
  image.autoPad = attributes.flag("auto_pad");
  image.hd = attributes.flag("hd") || summary.height >= 720;
  image.creationAuthSessionId = media.creationSession;
  image.comments = Json::array();
  image.submitted = text(summary.submitted);
  image.approved = "true";
  image.imageFileName = attributes.string("image_file_name", "image.jpg");
  image.token = media.token;
  image.key = attributes.string("key");
  image.title = attributes.string("title");
  image._description = attributes.string("description");
  image.duration = summary.duration;
  image.stateString = summary.stateString;
  Json json = imageFields().write(image, BooleanForm::kText);
  // Beyond the model, as for audios: the volatile flag and the two streams.
  json["volatile"] = text(attributes.flag("volatile"));
  json["default_stream"] = preferred ? stream(view, *preferred) : Json::object();
  json["original_stream"] = original ? stream(view, *original) : Json::object();
  return json;
}

}  // namespace nembra
