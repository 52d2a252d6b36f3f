// An audio resource of the service. Some fields differ in type from Video's on purpose: the
// service sends maxDuration as text and the default stream as a plain dictionary here.
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

class Audio : public ContentModel {
 public:
  Audio() = default;
  static Audio initWithJson(const Json& json);

  void setInfo(const Json& json) override;
  void clear() override;
  Json toDictionary() const override;

  std::string _id;
  std::string created;
  std::string updated;
  std::string applicationId;
  int32_t state = 0;
  double minDuration = 0.0;
  std::string maxDuration;
  bool enforceDuration = false;
  std::string originalStreamId;
  std::string defaultStreamId;
  std::optional<Json> tags;
  std::string data;
  DeviceInfo deviceInfo;
  int64_t submissionDate = 0;
  std::string expirationDays;
  std::string resubmissionDate;
  int64_t streamSubmissionDate = 0;
  bool userLanguage = false;
  bool deleteOldStreams = false;
  bool autoCrop = false;
  std::string creationAuthSessionId;
  int32_t averageRating = 0;
  std::string ratings;
  std::optional<Json> comments;
  bool submitted = false;
  std::string approved;
  std::string moderationReason;
  std::string audioProfileId;
  std::string metaProfileId;
  bool _volatile = false;
  std::optional<Json> defaultStream;
  StreamModel originalStream;
};

}  // namespace nembra
