#include "service/media_json.h"

#include "service/http_time.h"
#include "service/media_library.h"

namespace nembra {
namespace {

using Json = nlohmann::ordered_json;

const char* text(bool value) { return value ? "true" : "false"; }

// Settable fields read back with their defaults.
struct Attributes {
  const nlohmann::json& values;

  std::string string(const char* name, const std::string& fallback = "") const {
    auto it = values.find(name);
    return it != values.end() && it->is_string() ? it->get<std::string>() : fallback;
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
};

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
  Attributes attributes{stream.attributes};
  MediaKind kind = view.media.kind;
  bool hasFile = stream.state == StreamState::Uploaded || stream.state == StreamState::Ready;
  bool streamable = hasFile && stream.probeError.empty();
  const StreamRecord* preferred = view.defaultStream();
  Json json;
  json["volatile"] = text(attributes.flag("volatile"));
  json["token"] = stream.token;
  json["key"] =
      MediaLibrary::objectKey(view.media.application, kind, view.media.token, stream.token);
  json["creation_type"] = static_cast<int>(stream.origin);
  json["state"] = static_cast<int>(stream.state);
  json["streamable"] = streamable ? 1 : 0;
  json["video_analysis"] = Json::object();
  json["audio_transcription"] = Json::object();
  json["audio_keywords"] = Json::array();
  json["push_services_success"] = Json::array();
  json["default_stream_id"] = preferred ? preferred->token : "";
  json["effect_profile"] = attributes.any("effect_profile", "");
  json["effect_profile_id"] = attributes.string("effect_profile_id");
  json["video_profile_transcoding"] = attributes.string("video_profile_transcoding");
  json["video_type"] = hasFile ? std::string(mediaFileName(kind)).substr(6) : "";
  json["video_sub_type"] = "";
  json["image_size"] = stream.coverSize > 0       ? stream.coverSize
                       : kind == MediaKind::Image ? stream.fileSize
                                                  : 0;
  json["audio_size"] = kind == MediaKind::Audio ? stream.fileSize : 0;
  json["video_size"] = kind == MediaKind::Video ? stream.fileSize : 0;
  json["video_width"] = stream.width;
  json["video_height"] = stream.height;
  json["duration"] = stream.duration;
  json["has_video"] = text(kind != MediaKind::Image && stream.hasVideo);
  json["has_image"] = text(stream.coverSize > 0 || (kind == MediaKind::Image && hasFile));
  json["has_audio"] = text(stream.hasAudio);
  json["video_has_audio"] = text(stream.hasVideo && stream.hasAudio);
  json["nsfw"] = Json::object();
  json["submission_date"] = stream.submissionDate;
  json["subtitles"] = Json::array();
  json["type"] = mediaKindName(kind);
  json["created"] = stream.created;
  json["owned"] = "true";
  json["creation_type_string"] = streamOriginName(stream.origin);
  json["streamable_string"] = streamable ? "streamable" : "not_streamable";
  json["state_string"] = streamStateName(stream.state);
  json["video_token"] = view.media.token;
  json["parent_stream"] = "";
  if (!stream.probeError.empty()) json["probe_error"] = stream.probeError;
  return json;
}

Json MediaJson::video(const MediaView& view) const {
  const MediaRecord& media = view.media;
  Attributes attributes{media.attributes};
  Summary summary = summarize(view);
  Json streams = Json::array();
  for (const auto& stream : view.streams) streams.push_back(this->stream(view, stream));
  // The original and default streams are among those just built: copied, not built again.
  auto builtFor = [&](const StreamRecord* record) {
    return record ? streams[static_cast<size_t>(record - view.streams.data())] : Json::object();
  };
  Json original = builtFor(view.originalStream());
  Json preferred = builtFor(view.defaultStream());

  Json json;
  json["volatile"] = text(attributes.flag("volatile"));
  json["token"] = media.token;
  json["key"] = attributes.string("key");
  json["state"] = summary.state;
  json["only_audio"] = text(attributes.flag("only_audio"));
  json["title"] = attributes.string("title");
  json["description"] = attributes.string("description");
  json["max_duration"] = attributes.number("max_duration");
  json["enforce_duration"] = text(attributes.flag("enforce_duration"));
  json["video_source"] = attributes.string("video_source");
  json["duration"] = summary.duration;
  json["tags"] = attributes.tags();
  json["data"] = attributes.any("data", "");
  json["device_info"] = attributes.any("device_info", Json::object());
  json["submission_date"] = summary.submissionDate;
  json["expiration_days"] = attributes.any("expiration_days", 0);
  json["resubmission_date"] = 0;
  json["stream_submission_date"] = summary.submissionDate;
  json["user_language"] = text(attributes.flag("user_language"));
  json["delete_old_streams"] = text(attributes.flag("delete_old_streams"));
  json["auto_crop"] = text(attributes.flag("auto_crop"));
  json["auto_pad"] = text(attributes.flag("auto_pad"));
  json["hd"] = text(summary.height >= 720);
  json["average_rating"] = 0;
  json["submitted"] = text(summary.submitted);
  json["approved"] = "true";
  json["moderation_reason"] = "";
  json["effect_profile"] = attributes.any("effect_profile", "");
  json["default_image_selector"] = attributes.number("default_image_selector");
  json["video_file_name"] = "video.mp4";
  json["type"] = "video";
  json["created"] = media.created;
  json["owned"] = "true";
  json["video_profile"] = attributes.string("video_profile");
  json["meta_profile"] = attributes.string("meta_profile");
  json["meta_profile_id"] = attributes.string("meta_profile_id");
  json["state_string"] = summary.stateString;
  json["streams"] = std::move(streams);
  json["original_stream"] = std::move(original);
  json["default_stream"] = std::move(preferred);
  json["embed_image_url"] = coverUrl(media);
  json["embed_video_url"] = mediaUrl(media);
  return json;
}

Json MediaJson::audio(const MediaView& view) const {
  const MediaRecord& media = view.media;
  Attributes attributes{media.attributes};
  Summary summary = summarize(view);
  const StreamRecord* original = view.originalStream();
  const StreamRecord* preferred = view.defaultStream();
  Json json;
  json["_id"] = media.token;
  json["created"] = formatIso8601(media.created);
  json["updated"] = formatIso8601(media.updated);
  json["application_id"] = media.application;
  json["state"] = summary.state;
  json["min_duration"] = attributes.number("min_duration");
  json["max_duration"] = attributes.string("max_duration");
  json["enforce_duration"] = text(attributes.flag("enforce_duration"));
  json["original_stream_id"] = original ? original->token : "";
  json["default_stream_id"] = preferred ? preferred->token : "";
  json["tags"] = attributes.tags();
  json["data"] = attributes.string("data");
  json["device_info"] = attributes.any("device_info", Json::object());
  json["submission_date"] = summary.submissionDate;
  json["expiration_days"] = attributes.any("expiration_days", "");
  json["resubmission_date"] = attributes.string("resubmission_date");
  json["stream_submission_date"] = summary.submissionDate;
  json["user_language"] = text(attributes.flag("user_language"));
  json["delete_old_streams"] = text(attributes.flag("delete_old_streams"));
  json["auto_crop"] = text(attributes.flag("auto_crop"));
  json["creation_auth_session_id"] = media.creationSession;
  json["average_rating"] = 0;
  json["ratings"] = "";
  json["comments"] = Json::array();
  json["submitted"] = text(summary.submitted);
  json["approved"] = "true";
  json["moderation_reason"] = "";
  json["audio_profile_id"] = attributes.string("audio_profile_id");
  json["meta_profile_id"] = attributes.string("meta_profile_id");
  json["volatile"] = text(attributes.flag("volatile"));
  json["default_stream"] = preferred ? stream(view, *preferred) : Json::object();
  json["original_stream"] = original ? stream(view, *original) : Json::object();
  json["token"] = media.token;
  json["key"] = attributes.string("key");
  json["title"] = attributes.string("title");
  json["description"] = attributes.string("description");
  json["duration"] = summary.duration;
  json["state_string"] = summary.stateString;
  return json;
}

Json MediaJson::image(const MediaView& view) const {
  const MediaRecord& media = view.media;
  Attributes attributes{media.attributes};
  Summary summary = summarize(view);
  const StreamRecord* original = view.originalStream();
  const StreamRecord* preferred = view.defaultStream();
  Json json;
  json["_id"] = media.token;
  json["created"] = formatIso8601(media.created);
  json["updated"] = formatIso8601(media.updated);
  json["application_id"] = media.application;
  json["state"] = summary.state;
  json["image_source"] = attributes.number("image_source");
  json["original_stream_id"] = original ? original->token : "";
  json["default_stream_id"] = preferred ? preferred->token : "";
  json["tags"] = attributes.tags();
  json["data"] = attributes.string("data");
  json["device_info"] = attributes.any("device_info", Json::object());
  json["submission_date"] = summary.submissionDate;
  json["expiration_days"] = attributes.any("expiration_days", "");
  json["resubmission_date"] = attributes.string("resubmission_date");
  json["stream_submission_date"] = std::to_string(summary.submissionDate);
  json["user_language"] = text(attributes.flag("user_language"));
  json["delete_old_streams"] = text(attributes.flag("delete_old_streams"));
  json["auto_crop"] = text(attributes.flag("auto_crop"));
  json["auto_pad"] = text(attributes.flag("auto_pad"));
  json["hd"] = text(attributes.flag("hd") || summary.height >= 720);
  json["creation_auth_session_id"] = media.creationSession;
  json["average_rating"] = 0;
  json["ratings"] = "";
  json["comments"] = Json::array();
  json["submitted"] = text(summary.submitted);
  json["approved"] = "true";
  json["moderation_reason"] = "";
  json["facebook_likes"] = 0;
  json["facebook_shares"] = 0;
  json["image_file_name"] = attributes.string("image_file_name", "image.jpg");
  json["volatile"] = text(attributes.flag("volatile"));
  json["default_stream"] = preferred ? stream(view, *preferred) : Json::object();
  json["original_stream"] = original ? stream(view, *original) : Json::object();
  json["token"] = media.token;
  json["key"] = attributes.string("key");
  json["title"] = attributes.string("title");
  json["description"] = attributes.string("description");
  json["duration"] = summary.duration;
  json["state_string"] = summary.stateString;
  return json;
}

}  // namespace nembra
