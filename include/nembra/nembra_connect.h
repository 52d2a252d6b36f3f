// The SDK's single HTTP connection. Every REST call, upload and error report goes through it:
// it completes the caller's parameters with the session parameter and the auth tokens, sends
// the request, logs a dump of it, and hands the raw or shaped result to a callback. It also
// sends multipart file uploads, keeping one BackgroundTaskContext per running upload.
//
// Threading: any thread may call it (the application calls it from the main queue). Request
// callbacks, upload progress and upload completions all run on the HTTP client's callback
// queue ("com.nembra.network.callbacks" for the Linux client), never on the caller's stack;
// callers that touch UI state hop to the main queue themselves. Uploads are started from the
// concurrent queue "com.gcd.nembraUploadQueue". A request that needs the session first is built
// on the callback queue once the session answers; otherwise on the calling thread. Do not
// destroy the application object from one of these callbacks.
//
// Parameters are Json objects (null = none). They are written in the object's insertion order,
// each value as its textual form: strings as they are, integers in decimal, other numbers in
// their shortest round-trip decimal form, booleans "1"/"0", null "<null>", arrays and objects
// as compact JSON.
//
// Paths that begin with "/" ("/session", "/debugger") have no host; they are sent to the
// configuration's server_api_url followed by the path. Every other path is used as it stands.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "nembra/http_message.h"
#include "nembra/http_task.h"
#include "nembra/json.h"

namespace nembra {

class BackgroundTaskContext;
class ConcurrentQueue;
class HttpBodyFile;
class HttpClient;
class Nembra;

class NembraConnect {
 public:
  using Parameters = Json;
  using Bytes = std::vector<uint8_t>;
  using TaskHandle = std::shared_ptr<HttpTask>;
  // Body bytes as received, the response (status 0 when none arrived), the transport error.
  using DataCallback = std::function<void(const Bytes& data, const HttpResponse& response,
                                          const OptionalError& error)>;
  // The body as UTF-8 text; absent when there is an error. A body that is not valid UTF-8
  // gives no text and no error.
  using StringCallback =
      std::function<void(const std::optional<std::string>& text, const HttpResponse& response,
                         const OptionalError& error)>;
  // The parsed body (an object or an array); absent when the body has two bytes or fewer, on a
  // transport error, or when it does not parse (the error is then a Parse error).
  using JsonCallback = std::function<void(
      const std::optional<Json>& json, const HttpResponse& response, const OptionalError& error)>;
  // (bytes sent so far, bytes expected); BackgroundTaskContext::ProgressHandler.
  using ProgressCallback =
      std::function<void(int64_t totalBytesSent, int64_t totalBytesExpectedToSend)>;
  using ParametersCallback = std::function<TaskHandle(const Parameters& completed)>;
  using SessionCallback = std::function<TaskHandle(const std::optional<std::string>& key,
                                                   const std::optional<std::string>& value)>;

  // The session parameter's name is this prefix followed by the application token.
  static constexpr const char* kSessionKeyPrefix = "k3v9qd72mx0wzr5hub81tnea";
  // Kept fixed for every upload rather than generateBoundaryString(): the storage side has
  // always received this boundary.
  static constexpr const char* kMultipartBoundary = "----WebKitFormBoundaryLEjTQVMVbVg9HRYu";
  static constexpr size_t kCopyBlockSize = 0x10000;

  // Uses the platform HTTP client.
  explicit NembraConnect(Nembra& application);
  // With the HTTP client given (the SDK's tests).
  NembraConnect(Nembra& application, std::unique_ptr<HttpClient> client);
  // Aborts running requests and uploads without calling their callbacks.
  ~NembraConnect();

  NembraConnect(const NembraConnect&) = delete;
  NembraConnect& operator=(const NembraConnect&) = delete;

  // |method| is "GET", "POST" or "DELETE"; |path| the whole URL. Every variant returns the task
  // of the request, or, when the session must be fetched first, the task of that "/session"
  // request (the real request's task is then never handed out).
  TaskHandle requestWithMethod(const std::string& method, const std::string& path,
                               const Parameters& data, DataCallback callback);
  TaskHandle requestStringWithMethod(const std::string& method, const std::string& path,
                                     const Parameters& data, StringCallback callback);
  TaskHandle requestJSONWithMethod(const std::string& method, const std::string& path,
                                   const Parameters& data, JsonCallback callback);
  // As requestJSONWithMethod, without its log lines.
  TaskHandle requestJSONArrayWithMethod(const std::string& method, const std::string& path,
                                        const Parameters& data, JsonCallback callback);

  TaskHandle getWithPath(const std::string& path, const Parameters& data, DataCallback callback);
  TaskHandle getStringWithPath(const std::string& path, const Parameters& data,
                               StringCallback callback);
  TaskHandle getJsonWithPath(const std::string& path, const Parameters& data,
                             JsonCallback callback);
  TaskHandle getJsonArrayWithPath(const std::string& path, const Parameters& data,
                                  JsonCallback callback);
  TaskHandle postWithPath(const std::string& path, const Parameters& data, DataCallback callback);
  TaskHandle postJsonWithPath(const std::string& path, const Parameters& data,
                              JsonCallback callback);
  TaskHandle deleteWithPath(const std::string& path, const Parameters& data, DataCallback callback);
  TaskHandle deleteJsonWithPath(const std::string& path, const Parameters& data,
                                JsonCallback callback);

  // POSTs |data| as it is, with |params| (completed like any request's) in the query string.
  TaskHandle postRawDataWithPath(const std::string& path, const Bytes& data,
                                 const Parameters& params, DataCallback callback);

  // Calls |callback| with |data| plus the session parameter and "client_auth" / "server_auth"
  // when set (with |data| unchanged for "/session" itself) and returns what it returns.
  TaskHandle addSessionData(const Parameters& data, const std::string& path,
                            ParametersCallback callback);
  // Calls |callback| with the session key and value, fetching them first when the value is not
  // known yet; returns what |callback| returns, or the "/session" task when fetching.
  TaskHandle getSession(SessionCallback callback);

  // Uploads |file| as the "file" part of a multipart POST to |path| (a path without a scheme
  // goes under the video collection URL, MediaUrls::apiUrl), |data| completed into the query
  // string. The form is sent as it is laid out, the file's bytes read straight from |file| (its
  // length fixed when the upload starts; a file that shrinks meanwhile fails the upload): no copy
  // of a large file is made first. The callback gets no body; |progress| gets (bytes sent, bytes
  // expected). |identifier| labels the task (its taskDescription).
  TaskHandle backgroundUploadWithPath(const std::string& path, const Parameters& data,
                                      const std::string& identifier, const std::string& file,
                                      DataCallback callback, ProgressCallback progress);
  // As above, with |parameters| as form fields before the file part, which is named |fileName|
  // and sent as "fileName.fileExtension" with |mimeType|. The query string carries |parameters|
  // completed with the session parameter and tokens.
  TaskHandle uploadFileWithPath(const std::string& path, const Parameters& parameters,
                                const std::string& identifier, const std::string& filePath,
                                const std::string& fileName, const std::string& mimeType,
                                const std::string& fileExtension, DataCallback callback,
                                ProgressCallback progress);

  // "Boundary-" followed by a fresh upper-case UUID. No upload uses it.
  static std::string generateBoundaryString();
  // Writes the form fields of |parameters|, the file part (|inputStream|'s bytes) and the
  // closing line to |outputStream|; returns the bytes written (the body's Content-Length).
  static int64_t createBodyWithBoundary(const std::string& boundary, const Parameters& parameters,
                                        std::istream& inputStream, std::ostream& outputStream,
                                        const std::string& name, const std::string& fileName,
                                        const std::string& contentType);
  // The same with no form fields and a fixed "file" part of type video/mp4.
  static int64_t createBodyWithBoundaryStreamed(const std::string& boundary,
                                                std::istream& inputStream,
                                                std::ostream& outputStream,
                                                const std::string& filename);
  static int64_t streamWriteString(const std::string& text, std::ostream& to);
  // Copies |from| to |to| in blocks of kCopyBlockSize bytes; returns the bytes copied.
  static int64_t blockCopyFrom(std::istream& from, std::ostream& to);

  // The request as logged: URL, method, headers, body (ASCII only, else "(null)").
  static std::string formatURLRequest(const HttpRequest& request);

  std::optional<std::string> getServerAuthToken() const;
  void setServerAuthToken(std::optional<std::string> token);
  std::optional<std::string> getClientAuthToken() const;
  void setClientAuthToken(std::optional<std::string> token);
  std::optional<std::string> getSessionKey() const;
  void setSessionKey(std::optional<std::string> key);
  std::optional<std::string> getSessionValue() const;
  void setSessionValue(std::optional<std::string> value);

  // Upload events from the SDK's HTTP client (the connection's own; not for hosts): progress (bytes
  // sent now, so far, expected) and completion. Each goes to the task's context; an unknown task is
  // logged and ignored.
  void URLSession(HttpClient& session, HttpTask& task, int64_t bytesSent, int64_t totalBytesSent,
                  int64_t totalBytesExpectedToSend);
  void URLSession(HttpClient& session, HttpTask& task, const OptionalError& error);
  // The host's signal that the system woke it for the "uploadingSession" background session:
  // completes the oldest running upload's context without an error.
  void appWakeupSignalTaskComplete(const std::string& identifier);

 private:
  TaskHandle startForegroundRequest(HttpRequest request, DataCallback callback);
  TaskHandle startUpload(HttpRequest request, const std::string& identifier,
                         std::unique_ptr<HttpBodyFile> body, OptionalError bodyError,
                         DataCallback callback, ProgressCallback progress);
  TaskHandle failRequest(const std::string& method, const std::string& path, Error error,
                         DataCallback callback);
  std::string resolveUrl(const std::string& path);
  std::string videoCollectionUrl(const std::string& path);
  std::shared_ptr<BackgroundTaskContext> takeContext(uint64_t taskIdentifier);

  Nembra& application_;

  mutable std::mutex mutex_;
  std::optional<std::string> serverAuthToken_;  // guarded by mutex_
  std::optional<std::string> clientAuthToken_;  // guarded by mutex_
  std::optional<std::string> sessionKey_;       // guarded by mutex_
  std::optional<std::string> sessionValue_;     // guarded by mutex_
  // Ordered by task identifier, so "the first context" is the oldest upload.
  std::map<uint64_t, std::shared_ptr<BackgroundTaskContext>> taskContexts_;  // guarded by mutex_

  // Taken without waiting and given back when an upload completes: it records whether an upload
  // is in flight but never holds one back (kept so: uploads start at once, side by side).
  std::counting_semaphore<> uploadSemaphore_{1};
  std::unique_ptr<ConcurrentQueue> uploadQueue_;  // "com.gcd.nembraUploadQueue"
  // Last: destroyed first, so no callback runs once the members above are gone.
  std::unique_ptr<HttpClient> client_;
};

}  // namespace nembra
