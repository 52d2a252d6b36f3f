// What the connection keeps for one running background upload, from the task's creation to its
// completion (or the application's wake-up signal).
//
// Threading: created on the thread that starts the upload; read on the connection's callback
// queue. The connection guards the map that holds it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "nembra/error.h"
#include "nembra/http_task.h"
#include "platform/http/http_client.h"

namespace nembra {

class BackgroundTaskContext {
 public:
  using CompletionHandler = std::function<void(
      const std::vector<uint8_t>& data, const HttpResponse& response, const OptionalError& error)>;
  using ProgressHandler =
      std::function<void(int64_t totalBytesSent, int64_t totalBytesExpectedToSend)>;

  BackgroundTaskContext(CompletionHandler completionHandler, ProgressHandler progressHandler,
                        std::shared_ptr<HttpTask> task);

  CompletionHandler backgroundTaskCompletionHandler;
  ProgressHandler backgroundTaskProgressHandler;
  // Never filled: an upload's completion carries no body, the server's answer to it is not read
  // here (kept so; callers learn the outcome from the status and the error).
  std::vector<uint8_t> responseData;
  std::shared_ptr<HttpTask> task;
};

}  // namespace nembra
