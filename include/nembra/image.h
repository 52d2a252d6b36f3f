// An image resource of the service. Several fields that are numbers or flags elsewhere are text
// here on purpose: that is how the service sends them for images.
//
// Threading: a plain value; any thread, one at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "nembra/content_model.h"
#include "nembra/device_info.h"
#include "nembra/json.h"

namespace nembra {

class Image : public ContentModel {
 public:
  Image() = default;
  static Image initWithJson(const Json& json);

  void setInfo(const Json& json) override;
  void clear() override;
  Json toDictionary() const override;

  std::string _id;
  std::string created;
  std::string updated;
  std::string applicationId;
  int32_t state = 0;
  double imageSource = 0.0;
  std::string originalStreamId;
  std::string defaultStreamId;
  std::optional<Json> tags;
  std::string data;
  DeviceInfo deviceInfo;
  int64_t submissionDate = 0;
  std::string expirationDays;
  std::string resubmissionDate;
  std::string streamSubmissionDate;
  std::string userLanguage;
  std::string deleteOldStreams;
  std::string autoCrop;
  bool autoPad = false;
  bool hd = false;
  std::string creationAuthSessionId;
  int32_t averageRating = 0;
  std::string ratings;
  std::optional<Json> comments;
  std::string submitted;
  std::string approved;
  std::string moderationReason;
  int32_t facebookLikes = 0;
  int32_t facebookShares = 0;
  std::string imageFileName;
};

}  // namespace nembra
