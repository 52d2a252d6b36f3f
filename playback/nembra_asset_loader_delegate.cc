#include "playback/nembra_asset_loader_delegate.h"

#include <cinttypes>
#include <cstdio>

#include "api/reachability.h"
#include "platform/http/http_curl_client.h"

namespace nembra {

namespace H = NembraAssetLoaderHelpers;

namespace {

// Any always-resolvable name: only the state of the local network is asked about.
constexpr const char* kReachabilityProbeHost = "example.com";
// The code of "wrong range of data or empty data" (bad server response).
constexpr int kBadServerResponse = -1011;

bool defaultNetworkReachable() {
  static std::shared_ptr<Reachability> probe =
      Reachability::reachabilityWithHostName(kReachabilityProbeHost);
  auto flags = probe->reachabilityFlags();
  return flags && (*flags & ReachabilityFlag::kReachable) &&
         !(*flags & ReachabilityFlag::kConnectionRequired);
}

std::string rangeHeader(const AssetLoadingRequest& request) {
  char text[64];
  const DataRequest& data = *request.dataRequest();
  if (request.hasContentInformationRequest()) {
    return "bytes=0-1";
  } else if (data.requestsAllDataToEndOfResource) {
    std::snprintf(text, sizeof(text), "bytes=%lld-", static_cast<long long>(data.requestedOffset));
  } else {
    std::snprintf(text, sizeof(text), "bytes=%lld-%lld",
                  static_cast<long long>(data.requestedOffset),
                  static_cast<long long>(data.requestedOffset + data.requestedLength - 1));
  }
  return text;
}

bool isNetworkLevel(const Error& error) {
  return error.kind == ErrorKind::Transport || error.kind == ErrorKind::Timeout;
}

}  // namespace

NembraAssetLoaderError NembraAssetLoaderError::loaderErrorWithError(Error error) {
  return {std::move(error), std::chrono::steady_clock::now()};
}

std::shared_ptr<HttpClient> NembraAssetLoaderDelegate::defaultSession() {
  static auto* session = new std::shared_ptr<HttpClient>(std::make_shared<CurlHttpClient>());
  return *session;
}

std::shared_ptr<NembraAssetLoaderDelegate> NembraAssetLoaderDelegate::initWithURL(
    const std::string& url, Options options, OptionalError& error) {
  if (!options.session) options.session = defaultSession();
  auto store = SpanStore::create(options.storeParentDirectory, error);
  if (!store) return nullptr;
  return std::shared_ptr<NembraAssetLoaderDelegate>(
      new NembraAssetLoaderDelegate(url, std::move(options), std::move(store)));
}

NembraAssetLoaderDelegate::NembraAssetLoaderDelegate(std::string url, Options options,
                                                     std::unique_ptr<SpanStore> store)
    : originalURL_(std::move(url)),
      originalScheme_(H::schemeOfUrl(originalURL_)),
      isNetworkReachable_(options.isNetworkReachable ? std::move(options.isNetworkReachable)
                                                     : defaultNetworkReachable),
      store_(std::move(store)),
      session_(std::move(options.session)) {}

NembraAssetLoaderDelegate::~NembraAssetLoaderDelegate() { cancelRequests(); }

void NembraAssetLoaderDelegate::setDelegate(
    std::weak_ptr<NembraAssetLoaderDelegatesDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void NembraAssetLoaderDelegate::removeDelegate(const NembraAssetLoaderDelegatesDelegate& delegate) {
  std::lock_guard lock(mutex_);
  if (delegate_.lock().get() == &delegate) delegate_.reset();
}

double NembraAssetLoaderDelegate::networkTimeout() const {
  std::lock_guard lock(mutex_);
  return networkTimeout_;
}

void NembraAssetLoaderDelegate::setNetworkTimeout(double seconds) {
  std::lock_guard lock(mutex_);
  networkTimeout_ = seconds;
}

bool NembraAssetLoaderDelegate::isNetworkReachable() { return isNetworkReachable_(); }

bool NembraAssetLoaderDelegate::shouldWaitForLoadingOfRequestedResource(
    std::shared_ptr<AssetLoadingRequest> request) {
  std::lock_guard lock(mutex_);
  if (H::schemeOfUrl(request->request().url) != scheme()) return false;

  if (networkError_) {
    if (isNetworkReachable()) {
      networkError_.reset();
    } else {
      std::chrono::duration<double> age = std::chrono::steady_clock::now() - networkError_->date;
      if (age.count() <= networkTimeout_) {
        request->finishLoadingWithError(networkError_->error);
        return true;
      }
      reportError(networkError_->error, nullptr, request);
      return false;
    }
  }

  const auto& wanted = request->dataRequest();
  for (const Entry& entry : entries_) {
    const auto& pending = entry.request->dataRequest();
    if (entry.request->request().url == request->request().url &&
        entry.request->request().headers == request->request().headers &&
        pending.has_value() == wanted.has_value() &&
        (!pending || (pending->requestedOffset == wanted->requestedOffset &&
                      pending->requestedLength == wanted->requestedLength))) {
      return false;
    }
  }
  if (!wanted || !session_) return false;

  HttpRequest http;
  http.url = H::urlWithScheme(request->request().url, originalScheme_);
  http.headers = {{"Range", rangeHeader(*request)}};

  Entry entry;
  entry.request = request;
  if (!request->hasContentInformationRequest()) {
    OptionalError error;
    entry.span = store_->begin(static_cast<uint64_t>(wanted->requestedOffset), error);
    if (!entry.span) {
      request->finishLoadingWithError(*error);
      reportError(*error, nullptr, request);
      return true;
    }
  }
  std::weak_ptr<NembraAssetLoaderDelegate> weak = weak_from_this();
  HttpTaskEvents events;
  events.head = [weak](HttpTask& task, const HttpResponse& response) {
    if (auto self = weak.lock()) self->didReceiveResponse(task, response);
  };
  events.data = [weak](HttpTask& task, std::vector<uint8_t> data) {
    if (auto self = weak.lock()) self->didReceiveData(task, std::move(data));
  };
  events.completion = [weak](HttpTask& task, std::vector<uint8_t>, const HttpResponse& response,
                             const OptionalError& error) {
    auto self = weak.lock();
    if (!self) return;
    // A response with no body at all has had no head yet.
    {
      std::lock_guard lock(self->mutex_);
      if (auto index = self->indexOfTask(task);
          index && !self->entries_[*index].haveResponse && response.status != 0) {
        self->didReceiveResponse(task, response);
      }
    }
    self->didCompleteWithError(task, error);
  };
  entry.task = session_->dataTask(std::move(http), std::move(events));
  entries_.push_back(entry);
  entries_.back().task->resume();
  return true;
}

void NembraAssetLoaderDelegate::didCancelLoadingRequest(
    const std::shared_ptr<AssetLoadingRequest>& request) {
  std::lock_guard lock(mutex_);
  for (const Entry& entry : entries_) {
    if (entry.request == request) entry.task->cancel();
  }
}

void NembraAssetLoaderDelegate::cancelRequests() {
  std::lock_guard lock(mutex_);
  for (const Entry& entry : entries_) entry.task->cancel();
  session_.reset();
}

std::optional<size_t> NembraAssetLoaderDelegate::indexOfTask(const HttpTask& task) const {
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].task->taskIdentifier() == task.taskIdentifier()) return i;
  }
  return std::nullopt;
}

void NembraAssetLoaderDelegate::removeEntry(size_t index) {
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(index));
}

void NembraAssetLoaderDelegate::didReceiveResponse(HttpTask& task, const HttpResponse& response) {
  std::lock_guard lock(mutex_);
  auto index = indexOfTask(task);
  if (!index) return;
  Entry& entry = entries_[*index];
  entry.response = response;
  entry.haveResponse = true;
  entry.request->setResponse(response);
  if (!entry.request->hasContentInformationRequest()) return;

  ContentInformation information;
  information.contentType = response.header("Content-Type").value_or("");
  information.byteRangeAccessSupported = response.header("Accept-Ranges").value_or("") == "bytes";
  if (response.header("Content-Range")) {
    information.contentLength = static_cast<int64_t>(H::fullLengthFromResponse(response));
  } else if (auto length = response.header("Content-Length")) {
    information.contentLength = std::atoll(length->c_str());
  }
  entry.request->setContentInformation(information);
  entry.request->finishLoading();
  std::shared_ptr<HttpTask> running = entry.task;
  removeEntry(*index);
  running->cancel();
}

void NembraAssetLoaderDelegate::didReceiveData(HttpTask& task, std::vector<uint8_t> data) {
  std::lock_guard lock(mutex_);
  auto index = indexOfTask(task);
  if (!index) return;
  Entry& entry = entries_[*index];
  const DataRequest& wanted = *entry.request->dataRequest();
  const uint64_t pieceStart = H::responseStart(entry.response) + entry.received;
  entry.received += data.size();
  bytesReceived_ += data.size();

  OptionalError error;
  std::span<const uint8_t> bytes(data);
  bool mismatched = false;
  const int status = entry.response.status;
  if (status < 200 || status >= 400) {
    error = Error::http(status, "Server returned failure status code");
  } else if (!H::isRangeOfRequestEqualsToRangeOfResponse(
                 H::rangeFromRequest(task.originalRequest()), H::rangeFromResponse(entry.response),
                 wanted.requestsAllDataToEndOfResource)) {
    mismatched = true;
    std::optional<uint64_t> requestEnd;
    if (!wanted.requestsAllDataToEndOfResource) {
      requestEnd = static_cast<uint64_t>(wanted.requestedOffset + wanted.requestedLength - 1);
    }
    auto cut = H::subdataFromData(pieceStart, data.size(), H::responseStart(entry.response),
                                  static_cast<uint64_t>(wanted.requestedOffset), requestEnd);
    if (!cut) {
      error =
          Error::transport("Server returned wrong range of data or empty data", kBadServerResponse);
    } else {
      bytes = bytes.subspan(cut->from, cut->count);
    }
  }
  if (!error && !bytes.empty()) store_->append(entry.span, bytes, error);
  if (error) {
    entry.request->finishLoadingWithError(*error);
    entry.task->cancel();
    reportError(*error, entry.task, entry.request);
    return;
  }

  const uint64_t delivered =
      static_cast<uint64_t>(entry.request->currentOffset() - wanted.requestedOffset);
  const uint64_t buffered = store_->length(entry.span);
  if (wanted.requestsAllDataToEndOfResource) {
    if (buffered > delivered) entry.request->respondWithData(buffered - delivered);
    return;
  }
  if (buffered < delivered) {
    entry.request->finishLoading();
    std::shared_ptr<HttpTask> running = entry.task;
    removeEntry(*index);
    running->cancel();
    return;
  }
  const uint64_t length = static_cast<uint64_t>(wanted.requestedLength);
  const uint64_t answer = std::min(length - std::min(length, delivered), buffered - delivered);
  if (answer > 0) entry.request->respondWithData(answer);
  // A server that ignores the range would go on sending the whole file for nothing.
  if (mismatched && buffered >= length) entry.task->cancel();
}

void NembraAssetLoaderDelegate::didCompleteWithError(HttpTask& task, const OptionalError& error) {
  std::lock_guard lock(mutex_);
  auto index = indexOfTask(task);
  if (!index) return;
  Entry entry = entries_[*index];
  if (error) {
    entry.request->finishLoadingWithError(*error);
  } else {
    entry.request->finishLoading();
  }
  processData(entry, H::fullLengthFromResponse(entry.response),
              entry.response.header("Content-Type").value_or(""));
  removeEntry(*index);
  if (error && isNetworkLevel(*error)) {
    networkError_ = NembraAssetLoaderError::loaderErrorWithError(*error);
  } else if (error && error->kind != ErrorKind::Cancelled) {
    reportError(*error, entry.task, entry.request);
  }
}

void NembraAssetLoaderDelegate::processData(const Entry& entry, uint64_t fullLength,
                                            const std::string& mimeType) {
  if (!entry.span) return;
  const uint64_t length = store_->length(entry.span);
  if (fullLength == 0 || length == 0) {
    store_->discard(entry.span);
    return;
  }
  store_->commit(entry.span);
  const LoaderRange range{static_cast<uint64_t>(entry.request->dataRequest()->requestedOffset),
                          length};
  auto delegate = delegate_.lock();
  if (delegate && delegate->didLoadDataForRange) {
    delegate->didLoadDataForRange(*this, {store_->pathOf(entry.span), 0, length}, range,
                                  originalURL_);
  }
  if (wholeFileHandedOver_) return;
  OptionalError error;
  auto whole = store_->concatenate(fullLength, error);
  if (!whole) {
    if (error) reportError(*error, entry.task, entry.request);
    return;
  }
  wholeFileHandedOver_ = true;
  if (!delegate) return;
  LoadedData data{*whole, 0, fullLength};
  if (delegate->didLoadDataForURL) delegate->didLoadDataForURL(*this, data, originalURL_);
  if (delegate->didLoadDataForURLWithMIMEType) {
    delegate->didLoadDataForURLWithMIMEType(*this, data, originalURL_, mimeType);
  }
}

void NembraAssetLoaderDelegate::reportError(const Error& error, std::shared_ptr<HttpTask> task,
                                            std::shared_ptr<AssetLoadingRequest> request) {
  auto delegate = delegate_.lock();
  if (delegate && delegate->didRecieveLoadingErrorWithDataTaskForRequest) {
    delegate->didRecieveLoadingErrorWithDataTaskForRequest(*this, error, std::move(task),
                                                           std::move(request));
  }
}

std::vector<LoaderRange> NembraAssetLoaderDelegate::datasForSavingToCache() const {
  return store_->ranges();
}

size_t NembraAssetLoaderDelegate::pendingRequestCount() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

uint64_t NembraAssetLoaderDelegate::bytesReceived() const {
  std::lock_guard lock(mutex_);
  return bytesReceived_;
}

}  // namespace nembra
