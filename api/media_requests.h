// The small per-media requests of every type: index, get, update, delete, and a video's
// original-stream description. Answers go to the callbacks as the connection delivers them: an
// HTTP error status is an ordinary answer, for the caller to read from the response.
//
// Threading: call from the main queue. Callbacks run on the connection's callback queue; one
// refused before any request (a token that is not safe) is answered on the main queue. The
// uploading delegate's deleteWithToken runs on the main queue, after the delete's callback.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "nembra/media_callbacks.h"

namespace nembra {

class Nembra;

class MediaRequests {
 public:
  using TaskHandle = MediaCallbacks::TaskHandle;
  using JsonCallback = MediaCallbacks::JsonCallback;
  using StringCallback = MediaCallbacks::StringCallback;

  // The owner must outlive this object.
  explicit MediaRequests(Nembra& application);
  ~MediaRequests();

  MediaRequests(const MediaRequests&) = delete;
  MediaRequests& operator=(const MediaRequests&) = delete;

  TaskHandle index(int type, const Json& data, JsonCallback callback);
  TaskHandle index(int type, const Json& data, StringCallback stringCallback);
  // For AUDIO the reply's "audio" member, for IMAGE its "image" member, else the whole reply.
  TaskHandle get(int type, const std::string& token, const Json& data, JsonCallback callback);
  // "/<token>" when |streamToken| is the empty text, else "/<token>/streams/<streamToken>"; an
  // absent stream token takes the stream form with the text "(null)", as the service's clients
  // always sent it.
  TaskHandle update(int type, const std::string& token,
                    const std::optional<std::string>& streamToken, const Json& data,
                    JsonCallback callback);
  TaskHandle remove(int type, const std::string& token,
                    const std::optional<std::string>& streamToken, JsonCallback callback);
  TaskHandle originalStreamDescription(const std::string& token, JsonCallback callback);

  static std::string itemPath(const std::string& token,
                              const std::optional<std::string>& streamToken);

 private:
  TaskHandle refuse(Error error, JsonCallback callback);

  Nembra& application_;
  // Main-queue tasks hold it weakly and do nothing once it is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
