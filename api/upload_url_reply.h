// What the upload-URL request of an upload answers: the new media's token and stream token and
// the signed storage form ("url_data": the storage URL and the form fields). Each type names its
// objects differently: "video"/"stream", "audio"/"audio_stream", "image"/"image_stream".
//
// Threading: a plain value; any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/json.h"

namespace nembra {

struct UploadUrlReply {
  std::string mediaToken;
  std::string streamToken;
  std::string url;
  // The signed form fields, as the media-fields model writes them back.
  Json fields = Json::object();

  // Reads |json| for |type|. A Parse error naming what is missing or of the wrong kind: no
  // object, no media token, no stream token for a video (its confirm path needs one), no
  // "url_data" with an http(s) "url" and a "fields" object; an InvalidArgument error for a
  // token that is not safe to use (MediaToken).
  static OptionalError parse(int type, const std::optional<Json>& json, UploadUrlReply& reply);

  // When the form's signed policy stops being accepted: the "expiration" of the base64 JSON
  // under "Policy". Nothing when the form carries no readable policy.
  // Whole seconds, so a policy that runs for centuries still reads.
  static std::optional<std::chrono::sys_seconds> formExpiration(const Json& fields);
};

}  // namespace nembra
