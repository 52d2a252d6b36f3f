#include "nembra/nembra_connect.h"

#include <cstring>
#include <istream>
#include <ostream>
#include <random>

#include "api/background_task_context.h"
#include "api/media_urls.h"
#include "api/percent_encoding.h"
#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_uploading_handler.h"
#include "platform/dispatch/concurrent_queue.h"
#include "platform/http/http_body_file.h"
#include "platform/http/http_curl_client.h"
#include "platform/http/url_redaction.h"

namespace nembra {

static_assert(
    std::is_same_v<NembraConnect::ProgressCallback, BackgroundTaskContext::ProgressHandler>,
    "the public header names the context's progress handler type itself");

namespace {

constexpr const char* kSessionPath = "/session";
constexpr const char* kWakeupSessionIdentifier = "uploadingSession";
constexpr const char* kFormContentType = "application/x-www-form-urlencoded";
// What a missing text prints as in the log lines.
constexpr const char* kNullText = "(null)";

std::string queryString(const Json& parameters) {
  std::string query;
  if (!parameters.is_object()) return query;
  // Names go in as they are, values percent-encoded, and every entry ends in "&", the last one
  // too: kept, the service parses exactly this form.
  for (const auto& entry : parameters.items()) {
    query += entry.key() + "=" +
             percentEncode(Utils::textualForm(entry.value()), PercentEncodingSet::UrlQueryAllowed) +
             "&";
  }
  return query;
}

bool isValidUtf8(const std::vector<uint8_t>& bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    uint8_t lead = bytes[i];
    size_t length;
    uint32_t codePoint;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2;
      codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3;
      codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4;
      codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (i + length > bytes.size()) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (bytes[i + k] & 0x3F);
    }
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallest[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

std::string textOrNull(const std::vector<uint8_t>& bytes) {
  return isValidUtf8(bytes) ? std::string(bytes.begin(), bytes.end()) : kNullText;
}

struct ShapedJson {
  std::optional<Json> json;
  OptionalError error;
};

ShapedJson shapeJson(const std::vector<uint8_t>& body, const HttpResponse& response,
                     const OptionalError& error) {
  ShapedJson shaped{std::nullopt, error};
  // Two bytes or fewer ("{}", "[]", "") carry nothing worth parsing: no JSON and no error.
  if (body.size() <= 2 || error) return shaped;
  try {
    Json parsed = Json::parse(body.begin(), body.end());
    if (parsed.is_object() || parsed.is_array()) {
      shaped.json = std::move(parsed);
    } else {
      shaped.error = Error::parse("the reply from " + redactUrl(response.url) +
                                  " is JSON but neither an object nor an array");
    }
  } catch (const Json::exception& e) {
    shaped.error = Error::parse("the reply from " + redactUrl(response.url) +
                                " is not valid JSON: " + e.what());
  }
  return shaped;
}

bool hasScheme(const std::string& path) {
  return path.find("https://") != std::string::npos || path.find("http://") != std::string::npos;
}

// The multipart body around the file's bytes: the form fields and the file part's header before
// them, the closing line after.
struct MultipartFrame {
  std::string head;
  std::string tail;
};

MultipartFrame multipartFrame(const std::string& boundary, const Json& parameters,
                              const std::string& name, const std::string& fileName,
                              const std::string& contentType) {
  MultipartFrame frame;
  if (parameters.is_object()) {
    for (const auto& entry : parameters.items()) {
      frame.head += "--" + boundary + "\r\n";
      frame.head += "Content-Disposition: form-data; name=\"" + entry.key() + "\"\r\n\r\n";
      frame.head += Utils::textualForm(entry.value()) + "\r\n";
    }
  }
  frame.head += "--" + boundary + "\r\n";
  // The ";" after the file name is part of the layout the storage side has always accepted.
  frame.head +=
      "Content-Disposition: form-data; name=\"" + name + "\"; filename=\"" + fileName + "\";\r\n";
  frame.head += "Content-Type: " + contentType + "\r\n\r\n";
  frame.tail = "\r\n--" + boundary + "--\r\n";
  return frame;
}

// The multipart body of an upload of |filePath|, laid out as it is sent: the file goes out
// straight from where it is, with no copy of it made first.
std::unique_ptr<HttpBodyFile> openUploadBody(const std::string& filePath, MultipartFrame frame,
                                             OptionalError& error) {
  return HttpBodyFile::open(filePath, error, std::move(frame.head), std::move(frame.tail));
}

HttpHeaders multipartHeaders(int64_t length) {
  return {{"Content-Type",
           std::string("multipart/form-data; boundary=") + NembraConnect::kMultipartBoundary},
          {"Content-Length", std::to_string(length)}};
}

}  // namespace

NembraConnect::NembraConnect(Nembra& application)
    : NembraConnect(application, std::make_unique<CurlHttpClient>()) {}

NembraConnect::NembraConnect(Nembra& application, std::unique_ptr<HttpClient> client)
    : application_(application),
      uploadQueue_(std::make_unique<ConcurrentQueue>("com.gcd.nembraUploadQueue")),
      client_(std::move(client)) {}

NembraConnect::~NembraConnect() = default;

NembraConnect::TaskHandle NembraConnect::requestWithMethod(const std::string& method,
                                                           const std::string& path,
                                                           const Parameters& data,
                                                           DataCallback callback) {
  if (!data.is_null() && !data.is_object()) {
    return failRequest(method, path,
                       Error::invalidArgument("the parameters of " + method + " " + path +
                                              " must be a JSON object, not " + data.type_name()),
                       std::move(callback));
  }
  return addSessionData(
      data, path,
      [this, method, path, callback = std::move(callback)](const Parameters& completed) {
        std::string query = queryString(completed);
        HttpRequest request;
        request.method = method;
        // Only a POST keeps its parameters out of the URL; any other method gets "?" and the
        // query, a bare "?" when there is none (kept as is).
        request.url = resolveUrl(method == "POST" ? path : path + "?" + query);
        if (method == "POST") {
          request.body = Bytes(query.begin(), query.end());
          request.headers = {{"Content-Type", kFormContentType},
                             {"Content-Length", std::to_string(query.size())}};
        }
        return startForegroundRequest(std::move(request), callback);
      });
}

NembraConnect::TaskHandle NembraConnect::requestStringWithMethod(const std::string& method,
                                                                 const std::string& path,
                                                                 const Parameters& data,
                                                                 StringCallback callback) {
  return requestWithMethod(
      method, path, data,
      [callback = std::move(callback)](const Bytes& body, const HttpResponse& response,
                                       const OptionalError& error) {
        if (!callback) return;
        if (error) {
          callback(std::nullopt, response, error);
        } else if (!isValidUtf8(body)) {
          // Not text: nothing to hand over, and nothing went wrong with the request.
          callback(std::nullopt, response, std::nullopt);
        } else {
          callback(std::string(body.begin(), body.end()), response, std::nullopt);
        }
      });
}

NembraConnect::TaskHandle NembraConnect::requestJSONWithMethod(const std::string& method,
                                                               const std::string& path,
                                                               const Parameters& data,
                                                               JsonCallback callback) {
  application_.log("requestJSONWithMethod: " + path);
  return requestWithMethod(
      method, path, data,
      [this, callback = std::move(callback)](const Bytes& body, const HttpResponse& response,
                                             const OptionalError& error) {
        ShapedJson shaped = shapeJson(body, response, error);
        // "respone" is the log text as the support tools search for it.
        if (shaped.error && !body.empty()) application_.log("respone: " + textOrNull(body) + "\n");
        if (callback) callback(shaped.json, response, shaped.error);
      });
}

NembraConnect::TaskHandle NembraConnect::requestJSONArrayWithMethod(const std::string& method,
                                                                    const std::string& path,
                                                                    const Parameters& data,
                                                                    JsonCallback callback) {
  return requestWithMethod(
      method, path, data,
      [callback = std::move(callback)](const Bytes& body, const HttpResponse& response,
                                       const OptionalError& error) {
        ShapedJson shaped = shapeJson(body, response, error);
        if (callback) callback(shaped.json, response, shaped.error);
      });
}

NembraConnect::TaskHandle NembraConnect::getWithPath(const std::string& path,
                                                     const Parameters& data,
                                                     DataCallback callback) {
  return requestWithMethod("GET", path, data, std::move(callback));
}

NembraConnect::TaskHandle NembraConnect::getStringWithPath(const std::string& path,
                                                           const Parameters& data,
                                                           StringCallback callback) {
  return requestStringWithMethod("GET", path, data, std::move(callback));
}

NembraConnect::TaskHandle NembraConnect::getJsonWithPath(const std::string& path,
                                                         const Parameters& data,
                                                         JsonCallback callback) {
  return requestJSONWithMethod("GET", path, data, std::move(callback));
}

NembraConnect::TaskHandle NembraConnect::getJsonArrayWithPath(const std::string& path,
                                                              const Parameters& data,
                                                              JsonCallback callback) {
  return requestJSONArrayWithMethod("GET", path, data, std::move(callback));
}

NembraConnect::TaskHandle NembraConnect::postWithPath(const std::string& path,
                                                      const Parameters& data,
                                                      DataCallback callback) {
  return requestWithMethod("POST", path, data, std::move(callback));
}

NembraConnect::TaskHandle NembraConnect::postJsonWithPath(const std::string& path,
                                                          const Parameters& data,
                                                          JsonCallback callback) {
  return requestJSONWithMethod("POST", path, data, std::move(callback));
}

NembraConnect::TaskHandle NembraConnect::deleteWithPath(const std::string& path,
                                                        const Parameters& data,
                                                        DataCallback callback) {
  return requestWithMethod("DELETE", path, data, std::move(callback));
}

NembraConnect::TaskHandle NembraConnect::deleteJsonWithPath(const std::string& path,
                                                            const Parameters& data,
                                                            JsonCallback callback) {
  return requestJSONWithMethod("DELETE", path, data, std::move(callback));
}

NembraConnect::TaskHandle NembraConnect::postRawDataWithPath(const std::string& path,
                                                             const Bytes& data,
                                                             const Parameters& params,
                                                             DataCallback callback) {
  if (!params.is_null() && !params.is_object()) {
    return failRequest("POST", path,
                       Error::invalidArgument("the parameters of POST " + path +
                                              " must be a JSON object, not " + params.type_name()),
                       std::move(callback));
  }
  return addSessionData(
      params, path,
      [this, path, data, callback = std::move(callback)](const Parameters& completed) {
        HttpRequest request;
        request.method = "POST";
        request.url = resolveUrl(path + "?" + queryString(completed));
        request.headers = {{"Content-Type", kFormContentType},
                           {"Content-Length", std::to_string(data.size())}};
        request.body = data;
        return startForegroundRequest(std::move(request), callback);
      });
}

NembraConnect::TaskHandle NembraConnect::addSessionData(const Parameters& data,
                                                        const std::string& path,
                                                        ParametersCallback callback) {
  if (!callback) return nullptr;
  // The session request itself carries neither the session nor the tokens.
  if (path == kSessionPath) return callback(data);
  return getSession(
      [this, data, callback = std::move(callback)](const std::optional<std::string>& key,
                                                   const std::optional<std::string>& value) {
        Parameters completed = data.is_object() ? data : Parameters::object();
        if (key) {
          if (value) {
            completed[*key] = *value;
          } else {
            completed.erase(*key);
          }
        }
        std::optional<std::string> clientAuth = getClientAuthToken();
        std::optional<std::string> serverAuth = getServerAuthToken();
        if (clientAuth) completed["client_auth"] = *clientAuth;
        if (serverAuth) completed["server_auth"] = *serverAuth;
        return callback(completed);
      });
}

NembraConnect::TaskHandle NembraConnect::getSession(SessionCallback callback) {
  std::optional<std::string> key;
  std::optional<std::string> value;
  {
    std::lock_guard lock(mutex_);
    key = sessionKey_;
    value = sessionValue_;
  }
  if (value) return callback ? callback(key, value) : nullptr;
  // A failed fetch leaves the value absent: this request goes without it, the next one asks
  // again. Two requests racing here both ask; the last answer wins.
  return postJsonWithPath(
      kSessionPath, nullptr,
      [this, callback = std::move(callback)](const std::optional<Json>& json, const HttpResponse&,
                                             const OptionalError&) {
        std::optional<std::string> value;
        if (json && json->is_object()) {
          auto token = json->find("token");
          if (token != json->end() && !token->is_null()) value = Utils::textualForm(*token);
        }
        std::string key = std::string(kSessionKeyPrefix) + application_.token();
        {
          std::lock_guard lock(mutex_);
          sessionValue_ = value;
          sessionKey_ = key;
        }
        if (callback) callback(key, value);
      });
}

NembraConnect::TaskHandle NembraConnect::backgroundUploadWithPath(
    const std::string& path, const Parameters& data, const std::string& identifier,
    const std::string& file, DataCallback callback, ProgressCallback progress) {
  if (!data.is_null() && !data.is_object()) {
    HttpRequest request{"POST", path, {}, std::nullopt};
    return startUpload(std::move(request), identifier, nullptr,
                       Error::invalidArgument("the parameters of the upload to " + path +
                                              " must be a JSON object, not " + data.type_name()),
                       std::move(callback), std::move(progress));
  }
  return addSessionData(
      data, path,
      [this, path, identifier, file, callback = std::move(callback),
       progress = std::move(progress)](const Parameters& completed) {
        HttpRequest request;
        request.method = "POST";
        request.url =
            (hasScheme(path) ? path : videoCollectionUrl(path)) + "?" + queryString(completed);
        OptionalError error;
        auto body = openUploadBody(
            file, multipartFrame(kMultipartBoundary, nullptr, "file", "video.mp4", "video/mp4"),
            error);
        request.headers = multipartHeaders(body ? body->size() : 0);
        application_.log("background request from file");
        return startUpload(std::move(request), identifier, std::move(body), std::move(error),
                           callback, progress);
      });
}

NembraConnect::TaskHandle NembraConnect::uploadFileWithPath(
    const std::string& path, const Parameters& parameters, const std::string& identifier,
    const std::string& filePath, const std::string& fileName, const std::string& mimeType,
    const std::string& fileExtension, DataCallback callback, ProgressCallback progress) {
  if (!parameters.is_null() && !parameters.is_object()) {
    HttpRequest request{"POST", path, {}, std::nullopt};
    return startUpload(
        std::move(request), identifier, nullptr,
        Error::invalidArgument("the form fields of the upload to " + path +
                               " must be a JSON object, not " + parameters.type_name()),
        std::move(callback), std::move(progress));
  }
  return addSessionData(
      parameters, path,
      [this, path, parameters, identifier, filePath, fileName, mimeType, fileExtension,
       callback = std::move(callback),
       progress = std::move(progress)](const Parameters& completed) {
        HttpRequest request;
        request.method = "POST";
        request.url =
            (hasScheme(path) ? path : videoCollectionUrl(path)) + "?" + queryString(completed);
        // The form carries the caller's fields only; the session and tokens ride in the query.
        OptionalError error;
        auto body = openUploadBody(filePath,
                                   multipartFrame(kMultipartBoundary, parameters, fileName,
                                                  fileName + "." + fileExtension, mimeType),
                                   error);
        request.headers = multipartHeaders(body ? body->size() : 0);
        application_.log("background request from file");
        return startUpload(std::move(request), identifier, std::move(body), std::move(error),
                           callback, progress);
      });
}

std::string NembraConnect::generateBoundaryString() {
  thread_local std::mt19937_64 random{std::random_device{}()};
  uint8_t bytes[16];
  for (size_t i = 0; i < sizeof(bytes); i += 8) {
    uint64_t value = random();
    std::memcpy(bytes + i, &value, 8);
  }
  bytes[6] = (bytes[6] & 0x0F) | 0x40;  // version 4
  bytes[8] = (bytes[8] & 0x3F) | 0x80;  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text = "Boundary-";
  for (size_t i = 0; i < sizeof(bytes); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0x0F];
  }
  return text;
}

int64_t NembraConnect::createBodyWithBoundary(const std::string& boundary,
                                              const Parameters& parameters,
                                              std::istream& inputStream, std::ostream& outputStream,
                                              const std::string& name, const std::string& fileName,
                                              const std::string& contentType) {
  MultipartFrame frame = multipartFrame(boundary, parameters, name, fileName, contentType);
  int64_t written = streamWriteString(frame.head, outputStream);
  written += blockCopyFrom(inputStream, outputStream);
  return written + streamWriteString(frame.tail, outputStream);
}

int64_t NembraConnect::createBodyWithBoundaryStreamed(const std::string& boundary,
                                                      std::istream& inputStream,
                                                      std::ostream& outputStream,
                                                      const std::string& filename) {
  return createBodyWithBoundary(boundary, nullptr, inputStream, outputStream, "file", filename,
                                "video/mp4");
}

int64_t NembraConnect::streamWriteString(const std::string& text, std::ostream& to) {
  to.write(text.data(), static_cast<std::streamsize>(text.size()));
  return static_cast<int64_t>(text.size());
}

int64_t NembraConnect::blockCopyFrom(std::istream& from, std::ostream& to) {
  std::vector<char> block(kCopyBlockSize);
  int64_t total = 0;
  while (from) {
    from.read(block.data(), static_cast<std::streamsize>(block.size()));
    std::streamsize got = from.gcount();
    if (got > 0) {
      to.write(block.data(), got);
      total += got;
    }
  }
  return total;
}

std::string NembraConnect::formatURLRequest(const HttpRequest& request) {
  std::string text = "---REQUEST------------------\n";
  text += "URL: " + request.url + "\n";
  text += "METHOD: " + request.method + "\n";
  for (const auto& [name, value] : request.headers) text += name + ": " + value + "\n";
  std::string body = kNullText;
  if (request.body) {
    bool ascii = true;
    for (uint8_t byte : *request.body) ascii = ascii && byte < 0x80;
    if (ascii) body.assign(request.body->begin(), request.body->end());
  }
  text += "BODY: " + body + "\n";
  text += "----------------------------\n";
  return text;
}

std::optional<std::string> NembraConnect::getServerAuthToken() const {
  std::lock_guard lock(mutex_);
  return serverAuthToken_;
}

void NembraConnect::setServerAuthToken(std::optional<std::string> token) {
  std::lock_guard lock(mutex_);
  serverAuthToken_ = std::move(token);
}

std::optional<std::string> NembraConnect::getClientAuthToken() const {
  std::lock_guard lock(mutex_);
  return clientAuthToken_;
}

void NembraConnect::setClientAuthToken(std::optional<std::string> token) {
  std::lock_guard lock(mutex_);
  clientAuthToken_ = std::move(token);
}

std::optional<std::string> NembraConnect::getSessionKey() const {
  std::lock_guard lock(mutex_);
  return sessionKey_;
}

void NembraConnect::setSessionKey(std::optional<std::string> key) {
  std::lock_guard lock(mutex_);
  sessionKey_ = std::move(key);
}

std::optional<std::string> NembraConnect::getSessionValue() const {
  std::lock_guard lock(mutex_);
  return sessionValue_;
}

void NembraConnect::setSessionValue(std::optional<std::string> value) {
  std::lock_guard lock(mutex_);
  sessionValue_ = std::move(value);
}

void NembraConnect::URLSession(HttpClient&, HttpTask& task, int64_t, int64_t totalBytesSent,
                               int64_t totalBytesExpectedToSend) {
  application_.log("uploading task progress: " + std::to_string(totalBytesSent) + "/" +
                   std::to_string(totalBytesExpectedToSend));
  std::shared_ptr<BackgroundTaskContext> context;
  {
    std::lock_guard lock(mutex_);
    auto found = taskContexts_.find(task.taskIdentifier());
    if (found != taskContexts_.end()) context = found->second;
  }
  if (!context) {
    application_.log("context was not found");
    return;
  }
  if (context->backgroundTaskProgressHandler) {
    context->backgroundTaskProgressHandler(totalBytesSent, totalBytesExpectedToSend);
  }
}

void NembraConnect::URLSession(HttpClient&, HttpTask& task, const OptionalError& error) {
  application_.log("task " + std::to_string(task.taskIdentifier()) +
                   " complete, error = " + (error ? error->message : kNullText));
  std::shared_ptr<BackgroundTaskContext> context = takeContext(task.taskIdentifier());
  if (!context) {
    application_.log("context was not found");
    return;
  }
  if (context->backgroundTaskCompletionHandler) {
    context->backgroundTaskCompletionHandler(context->responseData, task.response(), error);
  }
}

void NembraConnect::appWakeupSignalTaskComplete(const std::string& identifier) {
  if (identifier != kWakeupSessionIdentifier) return;
  std::shared_ptr<BackgroundTaskContext> context;
  {
    std::lock_guard lock(mutex_);
    if (taskContexts_.empty()) return;
    context = taskContexts_.begin()->second;
    taskContexts_.erase(taskContexts_.begin());
  }
  if (context->backgroundTaskCompletionHandler) {
    context->backgroundTaskCompletionHandler(
        context->responseData, context->task ? context->task->response() : HttpResponse{},
        std::nullopt);
  }
}

NembraConnect::TaskHandle NembraConnect::startForegroundRequest(HttpRequest request,
                                                                DataCallback callback) {
  application_.log("foreground request");
  HttpTaskEvents events;
  events.completion = [callback = std::move(callback)](HttpTask&, Bytes body,
                                                       const HttpResponse& response,
                                                       const OptionalError& error) {
    if (callback) callback(body, response, error);
  };
  TaskHandle task = client_->dataTask(request, std::move(events));
  application_.log("request dump: " + formatURLRequest(request));
  task->resume();
  return task;
}

NembraConnect::TaskHandle NembraConnect::startUpload(HttpRequest request,
                                                     const std::string& identifier,
                                                     std::unique_ptr<HttpBodyFile> body,
                                                     OptionalError bodyError, DataCallback callback,
                                                     ProgressCallback progress) {
  HttpTaskEvents events;
  events.progress = [this](HttpTask& task, int64_t bytesSent, int64_t totalBytesSent,
                           int64_t totalBytesExpectedToSend) {
    URLSession(*client_, task, bytesSent, totalBytesSent, totalBytesExpectedToSend);
  };
  events.completion = [this](HttpTask& task, Bytes, const HttpResponse&,
                             const OptionalError& error) { URLSession(*client_, task, error); };
  TaskHandle task = body ? client_->uploadTask(request, std::move(body), events)
                         : client_->failedTask(request, std::move(*bodyError), events);
  task->setTaskDescription(identifier);
  application_.log("task " + std::to_string(task->taskIdentifier()) + " created");

  auto completion = [this, callback = std::move(callback)](const Bytes& data,
                                                           const HttpResponse& response,
                                                           const OptionalError& error) {
    uploadSemaphore_.release();
    if (callback) callback(data, response, error);
  };
  {
    std::lock_guard lock(mutex_);
    taskContexts_[task->taskIdentifier()] =
        std::make_shared<BackgroundTaskContext>(std::move(completion), std::move(progress), task);
  }
  uploadQueue_->async([this, task] {
    // Never waits: the upload starts whether or not another is in flight.
    (void)uploadSemaphore_.try_acquire();
    task->resume();
  });
  application_.log("request dump: " + formatURLRequest(request));
  return task;
}

NembraConnect::TaskHandle NembraConnect::failRequest(const std::string& method,
                                                     const std::string& path, Error error,
                                                     DataCallback callback) {
  HttpRequest request;
  request.method = method;
  request.url = resolveUrl(path);
  HttpTaskEvents events;
  events.completion = [callback = std::move(callback)](HttpTask&, Bytes body,
                                                       const HttpResponse& response,
                                                       const OptionalError& error) {
    if (callback) callback(body, response, error);
  };
  TaskHandle task = client_->failedTask(std::move(request), std::move(error), std::move(events));
  task->resume();
  return task;
}

std::string NembraConnect::resolveUrl(const std::string& path) {
  if (!path.empty() && path.front() == '/') return application_.config().server_api_url + path;
  return path;
}

std::string NembraConnect::videoCollectionUrl(const std::string& path) {
  return MediaUrls::of(application_).apiUrl(VIDEO, path);
}

std::shared_ptr<BackgroundTaskContext> NembraConnect::takeContext(uint64_t taskIdentifier) {
  std::lock_guard lock(mutex_);
  auto found = taskContexts_.find(taskIdentifier);
  if (found == taskContexts_.end()) return nullptr;
  std::shared_ptr<BackgroundTaskContext> context = std::move(found->second);
  taskContexts_.erase(found);
  return context;
}

}  // namespace nembra
