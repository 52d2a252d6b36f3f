// The handle of one request or upload the SDK started (what TaskHandle and the uploading
// delegate's backgroundTask are). The handle may be kept and used from any thread, also after
// the SDK's HTTP client is gone (its operations then do nothing).
#pragma once

#include <cstdint>
#include <string>

#include "nembra/http_message.h"

namespace nembra {

enum class HttpTaskState {
  Suspended,  // created, or suspended after it had started
  Running,
  Canceling,  // cancel() was called; the completion (a Cancelled error) is on its way
  Completed,
};

class HttpTask {
 public:
  virtual ~HttpTask() = default;

  // Unique among the tasks of one client, increasing in creation order.
  virtual uint64_t taskIdentifier() const = 0;
  virtual const HttpRequest& originalRequest() const = 0;
  // The final response once the task has completed; an empty one (status 0) before.
  virtual HttpResponse response() const = 0;
  virtual HttpTaskState state() const = 0;

  // A free-form label the creator may give the task (the upload's session identifier).
  virtual std::string taskDescription() const = 0;
  virtual void setTaskDescription(std::string description) = 0;

  // Starts a task that has not started, or continues a suspended one.
  virtual void resume() = 0;
  // Stops sending and receiving until resume(); the connection stays open.
  virtual void suspend() = 0;
  // Aborts the task; its completion then reports a Cancelled error. Does nothing once completed.
  virtual void cancel() = 0;
};

}  // namespace nembra
