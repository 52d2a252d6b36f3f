// The callback shapes the media operations share (the upload handler and the endpoints).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/http_message.h"
#include "nembra/http_task.h"
#include "nembra/json.h"
#include "nembra/still_image.h"

namespace nembra {

struct MediaCallbacks {
  using TaskHandle = std::shared_ptr<HttpTask>;
  using JsonCallback = std::function<void(
      const std::optional<Json>& json, const HttpResponse& response, const OptionalError& error)>;
  using StringCallback =
      std::function<void(const std::optional<std::string>& text, const HttpResponse& response,
                         const OptionalError& error)>;
  using ProgressCallback = std::function<void(int64_t totalBytesSent, int64_t totalBytesExpected)>;
  // The cached file's path, or nothing with the reason.
  using DownloadCallback =
      std::function<void(const std::optional<std::string>& path, const OptionalError& error)>;
  using ImageCallback = std::function<void(StillImagePtr image, const HttpResponse& response,
                                           const OptionalError& error)>;
  using LocalImageCallback = std::function<void(StillImagePtr image, const OptionalError& error)>;
};

}  // namespace nembra
