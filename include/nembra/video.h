// A video resource of the service.
//
// Threading: a plain value; any thread, one at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "nembra/content_model.h"
#include "nembra/device_info.h"
#include "nembra/json.h"
#include "nembra/stream_model.h"

namespace nembra {

class Video : public ContentModel {
 public:
  Video() = default;
  static Video initWithJson(const Json& json);

  void setInfo(const Json& json) override;
  void clear() override;
  Json toDictionary() const override;
  bool isVolatile() const { return _volatile; }

  bool _volatile = false;
  int32_t state = 0;
  bool onlyAudio = false;
  double maxDuration = 0.0;
  bool enforceDuration = false;
  std::string videoSource;
  std::optional<Json> tags;
  std::optional<Json> data;
  DeviceInfo deviceInfo;
  int64_t submissionDate = 0;
  std::optional<Json> expirationDays;
  int32_t resubmissionDate = 0;
  int32_t streamSubmissionDate = 0;
  bool userLanguage = false;
  bool deleteOldStreams = false;
  bool autoCrop = false;
  bool autoPad = false;
  bool hd = false;
  std::optional<Json> averageRating;
  bool submitted = false;
  bool approved = false;
  std::string moderationReason;
  std::optional<Json> effectProfile;
  double defaultImageSelector = 0.0;
  std::string videoFileName;
  std::string type;
  int32_t created = 0;
  bool owned = false;
  std::string videoProfile;
  std::string metaProfile;
  std::string metaProfileId;
  // The stream dictionaries exactly as the service sent them, in order; only the original and
  // default streams are read into models.
  std::optional<Json> streams;
  StreamModel originalStream;
  StreamModel defaultStream;
  std::string embedImageUrl;
  std::string embedVideoUrl;
};

}  // namespace nembra
