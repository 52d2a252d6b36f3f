// One stream of a video on the service: a rendition with its own token, state, sizes and
// analysis results.
//
// Threading: a plain value; any thread, one at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "nembra/json.h"

namespace nembra {

class StreamModel {
 public:
  StreamModel() = default;
  static StreamModel initWithJson(const Json& json);

  // Reads every key; a missing or null key sets that field's default.
  void setInfo(const Json& json);
  void clear();
  // Every field under its key, in reading order; absent raw values are left out.
  Json toDictionary() const;
  bool isVolatile() const { return _volatile; }

  bool _volatile = false;
  std::string token;
  std::string key;
  int32_t creationType = 0;
  int32_t state = 0;
  int32_t streamable = 0;
  std::optional<Json> videoAnalysis;
  std::optional<Json> audioTranscription;
  std::optional<Json> audioKeywords;
  std::optional<Json> pushServicesSuccess;
  std::string defaultStreamId;
  std::string effectProfile;
  std::string effectProfileId;
  std::string videoProfileTranscoding;
  std::string videoType;
  std::string videoSubType;
  int32_t imageSize = 0;
  int32_t audioSize = 0;
  int32_t videoSize = 0;
  int32_t videoWidth = 0;
  int32_t videoHeight = 0;
  double duration = 0.0;
  bool hasVideo = false;
  bool hasImage = false;
  bool hasAudio = false;
  bool videoHasAudio = false;
  std::optional<Json> nsfw;
  int32_t submissionDate = 0;
  std::optional<Json> subtitles;
  std::string type;
  int32_t created = 0;
  bool owned = false;
  std::string creationTypeString;
  std::string streamableString;
  std::string stateString;
  std::string videoToken;
  std::string parentStream;
};

}  // namespace nembra
