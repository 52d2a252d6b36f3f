// The HTTP seam: requests and file uploads as tasks that are created suspended, started with
// resume(), and report through HttpTaskEvents. The service side talks HTTP only through it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "nembra/error.h"
#include "nembra/http_message.h"

namespace nembra {

class HttpBodyFile;
class HttpTask;

// What a task reports. All run on the client's callback queue, never on the caller's stack,
// and a task's events arrive in order: progress, then (streamed) the head and the data, then
// exactly one completion.
struct HttpTaskEvents {
  // Request body bytes handed to the network: this step, so far, and the total to send.
  std::function<void(HttpTask& task, int64_t bytesSent, int64_t totalBytesSent,
                     int64_t totalBytesExpectedToSend)>
      progress;
  std::function<void(HttpTask& task, std::vector<uint8_t> body, const HttpResponse& response,
                     const OptionalError& error)>
      completion;

  // Streamed responses: when |data| is set the body is handed over as it arrives (each chunk
  // once, in order) and the completion's body is empty. |head| comes once, before the first
  // chunk, with the final response's status and headers (not at all when no response came).
  // While the consumer has not taken about kStreamWindow bytes, the transfer stops reading,
  // so a slow consumer holds a bounded amount in memory. After cancel() a chunk already on
  // its way may still arrive before the completion.
  std::function<void(HttpTask& task, const HttpResponse& head)> head;
  std::function<void(HttpTask& task, std::vector<uint8_t> chunk)> data;

  static constexpr int64_t kStreamWindow = 1 << 20;
};

class HttpClient {
 public:
  virtual ~HttpClient() = default;

  // A task sending |request| (with its in-memory body, if any). Nothing is sent until resume().
  virtual std::shared_ptr<HttpTask> dataTask(HttpRequest request, HttpTaskEvents events) = 0;

  // A task sending |body| (a file, framed or not, opened by the caller: what is sent is the file
  // as it was opened even if its path is later replaced or removed) as the body of |request|.
  virtual std::shared_ptr<HttpTask> uploadTask(HttpRequest request,
                                               std::unique_ptr<HttpBodyFile> body,
                                               HttpTaskEvents events) = 0;

  // A task that sends nothing and, once resumed, completes with |error|: lets a caller that
  // finds bad input before any request still answer through the usual completion path.
  virtual std::shared_ptr<HttpTask> failedTask(HttpRequest request, Error error,
                                               HttpTaskEvents events) = 0;
};

}  // namespace nembra
