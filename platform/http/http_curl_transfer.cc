#include "platform/http/http_curl_transfer.h"

#include <algorithm>
#include <cstring>

#include "platform/http/http_curl_loop.h"
#include "platform/http/http_header_line.h"
#include "platform/http/url_redaction.h"

namespace nembra {

namespace {

constexpr long kMaxRedirects = 16;

}  // namespace

CurlTransfer::CurlTransfer(uint64_t identifier, HttpRequest request, HttpTaskEvents events,
                           std::weak_ptr<CurlMultiLoop> loop,
                           std::shared_ptr<const CurlTransferSettings> settings,
                           std::unique_ptr<HttpBodyFile> body, OptionalError presetError)
    : identifier_(identifier),
      request_(std::move(request)),
      events_(std::move(events)),
      loop_(std::move(loop)),
      settings_(std::move(settings)),
      body_(std::move(body)),
      presetError_(std::move(presetError)) {}

CurlTransfer::~CurlTransfer() { release(); }

HttpResponse CurlTransfer::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

HttpTaskState CurlTransfer::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

std::string CurlTransfer::taskDescription() const {
  std::lock_guard lock(mutex_);
  return description_;
}

void CurlTransfer::setTaskDescription(std::string description) {
  std::lock_guard lock(mutex_);
  description_ = std::move(description);
}

void CurlTransfer::resume() {
  auto loop = loop_.lock();
  if (!loop) return;
  std::lock_guard lock(mutex_);
  if (state_ != HttpTaskState::Suspended) return;
  state_ = HttpTaskState::Running;
  if (started_) {
    loop->setPaused(shared_from_this(), false);
  } else {
    started_ = true;
    loop->start(shared_from_this());
  }
}

void CurlTransfer::suspend() {
  auto loop = loop_.lock();
  if (!loop) return;
  std::lock_guard lock(mutex_);
  if (state_ != HttpTaskState::Running) return;
  state_ = HttpTaskState::Suspended;
  loop->setPaused(shared_from_this(), true);
}

void CurlTransfer::cancel() {
  auto loop = loop_.lock();
  if (!loop) return;
  std::lock_guard lock(mutex_);
  if (state_ != HttpTaskState::Suspended && state_ != HttpTaskState::Running) return;
  state_ = HttpTaskState::Canceling;
  loop->cancel(shared_from_this());
}

CURL* CurlTransfer::open(CurlMultiLoop& loop, OptionalError& error) {
  if (presetError_) {
    error = std::move(presetError_);
    return nullptr;
  }
  CURL* easy = curl_easy_init();
  if (!easy) {
    error = Error::internal("cannot create a curl handle");
    return nullptr;
  }
  easy_ = easy;
  runningLoop_ = &loop;

  curl_easy_setopt(easy, CURLOPT_URL, request_.url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  auto connectTimeout = settings_->connectTimeout;
  if (!body_ && settings_->firstByteTimeout.count() > 0) {
    connectTimeout = std::min(connectTimeout, settings_->firstByteTimeout);
  }
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTimeout.count()));
  waitingSince_ = std::chrono::steady_clock::now();
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, settings_->lowSpeedLimit);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME,
                   static_cast<long>(settings_->lowSpeedTime.count()));
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (settings_->caBundle) {
    const std::string& pem = settings_->caBundle->pem();
    curl_blob blob{const_cast<char*>(pem.data()), pem.size(), CURL_BLOB_NOCOPY};
    curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob);
  }
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer_);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlTransfer::onWrite);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlTransfer::onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &CurlTransfer::onProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);

  for (const auto& [name, value] : request_.headers) {
    // "Name:" would remove the header; "Name;" is how an empty value is sent.
    std::string line = value.empty() ? name + ";" : name + ": " + value;
    headerList_ = curl_slist_append(headerList_, line.c_str());
  }
  // Bodies go at once: waiting for "100 Continue" costs a second on servers that never send it.
  headerList_ = curl_slist_append(headerList_, "Expect:");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList_);

  const bool hasBody = body_ || request_.body;
  if (body_) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodyLength()));
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &CurlTransfer::onRead);
    curl_easy_setopt(easy, CURLOPT_READDATA, this);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &CurlTransfer::onSeek);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, this);
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(HttpBodyFile::kBlockSize));
  } else if (request_.body) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodyLength()));
    // Never a null pointer: curl would then read the body from standard input.
    const char* data =
        request_.body->empty() ? "" : reinterpret_cast<const char*>(request_.body->data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, data);
  }
  if (hasBody) {
    if (request_.method != "POST") {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
    }
  } else if (request_.method == "GET") {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else if (request_.method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
  }
  return easy;
}

HttpResponse CurlTransfer::currentHead() const {
  HttpResponse response;
  long status = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  response.status = static_cast<int>(status);
  const char* url = nullptr;
  curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &url);
  response.url = url ? url : request_.url;
  response.headers = receivedHeaders_;
  return response;
}

void CurlTransfer::deliverHead() {
  if (headDelivered_) return;
  headDelivered_ = true;
  HttpResponse head = currentHead();
  if (head.status == 0 || !events_.head || !runningLoop_) return;
  runningLoop_->deliver(
      [self = shared_from_this(), head = std::move(head)] { self->events_.head(*self, head); });
}

void CurlTransfer::chunkTaken(int64_t length) {
  int64_t left = inFlight_.fetch_sub(length) - length;
  if (left < HttpTaskEvents::kStreamWindow / 2 && writePaused_.exchange(false)) {
    if (auto loop = loop_.lock(); loop && state() == HttpTaskState::Running) {
      loop->setPaused(shared_from_this(), false);
    }
  }
}

void CurlTransfer::finish(CURLcode result) {
  if (streamed() && result == CURLE_OK) deliverHead();
  HttpResponse response = currentHead();
  receivedHeaders_.clear();

  OptionalError error;
  if (bodyError_) {
    error = std::move(bodyError_);
  } else if (result == CURLE_ABORTED_BY_CALLBACK && answerTimedOut_) {
    Error timeout = Error::timeout(request_.method + " " + redactUrl(request_.url) +
                                   " failed: no answer within " +
                                   std::to_string(settings_->firstByteTimeout.count()) + " ms");
    timeout.code = CURLE_OPERATION_TIMEDOUT;
    error = std::move(timeout);
  } else if (result != CURLE_OK) {
    error = transportError(result);
  } else {
    reportProgress(bodyLength());
  }
  complete(std::move(response), std::move(error));
}

void CurlTransfer::fail(Error error) { complete(HttpResponse{}, std::move(error)); }

void CurlTransfer::release() {
  if (easy_) curl_easy_cleanup(easy_);
  easy_ = nullptr;
  if (headerList_) curl_slist_free_all(headerList_);
  headerList_ = nullptr;
}

int64_t CurlTransfer::bodyLength() const {
  if (body_) return body_->size();
  return request_.body ? static_cast<int64_t>(request_.body->size()) : 0;
}

void CurlTransfer::reportProgress(int64_t totalSent) {
  if (!events_.progress || !runningLoop_) return;
  // This thread alone stores the count: reading it back needs no ordering.
  int64_t latest = latestSent_.load(std::memory_order_relaxed);
  if (totalSent > latest) latestSent_.store(latest = totalSent);
  if (latest <= postedSent_) return;
  // A wake-up of two threads per block would cost a large upload more than its sends.
  auto now = std::chrono::steady_clock::now();
  if (latest < bodyLength() && now - progressPosted_ < kProgressInterval) return;
  if (progressPending_.exchange(true)) return;
  progressPosted_ = now;
  postedSent_ = latest;
  runningLoop_->deliver(
      [self = shared_from_this(), expected = bodyLength()] { self->deliverProgress(expected); });
}

void CurlTransfer::deliverProgress(int64_t expected) {
  // Cleared before the count is read: a count stored after this read posts an event of its own.
  progressPending_.store(false);
  int64_t totalSent = latestSent_.load();
  if (totalSent <= deliveredSent_) return;
  int64_t step = totalSent - deliveredSent_;
  deliveredSent_ = totalSent;
  events_.progress(*this, step, totalSent, expected);
}

void CurlTransfer::complete(HttpResponse response, OptionalError error) {
  if (completed_) return;
  completed_ = true;
  {
    std::lock_guard lock(mutex_);
    state_ = HttpTaskState::Completed;
    response_ = response;
  }
  auto loop = loop_.lock();
  if (!loop || !events_.completion) return;
  loop->deliver([self = shared_from_this(), body = std::move(received_),
                 response = std::move(response), error = std::move(error)]() mutable {
    self->events_.completion(*self, std::move(body), response, error);
  });
}

Error CurlTransfer::transportError(CURLcode result) const {
  std::string message =
      request_.method + " " + redactUrl(request_.url) + " failed: " + curl_easy_strerror(result);
  if (errorBuffer_[0] != '\0') message += std::string(" (") + errorBuffer_ + ")";
  if (result == CURLE_OPERATION_TIMEDOUT) {
    Error error = Error::timeout(std::move(message));
    error.code = result;
    return error;
  }
  return Error::transport(std::move(message), result);
}

bool CurlTransfer::answerOverdue(curl_off_t uploaded) {
  if (answered_ || body_ || settings_->firstByteTimeout.count() <= 0) return false;
  auto now = std::chrono::steady_clock::now();
  if (uploaded != lastUploaded_) {
    lastUploaded_ = uploaded;
    waitingSince_ = now;
    return false;
  }
  if (now - waitingSince_ < settings_->firstByteTimeout) return false;
  answerTimedOut_ = true;
  return true;
}

size_t CurlTransfer::onWrite(char* data, size_t size, size_t count, void* self) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  transfer->answered_ = true;
  if (transfer->streamed()) {
    if (transfer->inFlight_.load() >= HttpTaskEvents::kStreamWindow) {
      // Stop reading; the consumer resumes it. Checked again after the flag is up: a consumer
      // that drained in between would otherwise never see it.
      transfer->writePaused_.store(true);
      if (transfer->inFlight_.load() >= HttpTaskEvents::kStreamWindow ||
          !transfer->writePaused_.exchange(false)) {
        return CURL_WRITEFUNC_PAUSE;
      }
    }
    transfer->deliverHead();
    const int64_t length = static_cast<int64_t>(size * count);
    transfer->inFlight_.fetch_add(length);
    std::vector<uint8_t> chunk(data, data + length);
    transfer->runningLoop_->deliver(
        [self = transfer->shared_from_this(), chunk = std::move(chunk), length]() mutable {
          self->events_.data(*self, std::move(chunk));
          self->chunkTaken(length);
        });
    return size * count;
  }
  transfer->received_.insert(transfer->received_.end(), data, data + size * count);
  return size * count;
}

size_t CurlTransfer::onHeader(char* data, size_t size, size_t count, void* self) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  transfer->answered_ = true;
  HttpHeaderLine::apply(std::string_view(data, size * count), transfer->receivedHeaders_);
  return size * count;
}

size_t CurlTransfer::onRead(char* buffer, size_t size, size_t count, void* self) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  size_t got = transfer->body_->read(buffer, size * count, transfer->bodyError_);
  return transfer->bodyError_ ? CURL_READFUNC_ABORT : got;
}

int CurlTransfer::onSeek(void* self, curl_off_t offset, int origin) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  if (origin != SEEK_SET || !transfer->body_->seek(offset)) return CURL_SEEKFUNC_CANTSEEK;
  return CURL_SEEKFUNC_OK;
}

int CurlTransfer::onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded) {
  auto* transfer = static_cast<CurlTransfer*>(self);
  transfer->reportProgress(uploaded);
  // Non-zero aborts the transfer with CURLE_ABORTED_BY_CALLBACK.
  return transfer->answerOverdue(uploaded) ? 1 : 0;
}

}  // namespace nembra
