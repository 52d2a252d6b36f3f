// One HttpTask carried by a curl easy handle.
//
// Threading: the HttpTask operations may be called from any thread; they change the state
// under a lock and post the work to the network thread. open/finish/fail/release and the curl
// callbacks run on the network thread only.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

#include "nembra/http_task.h"
#include "platform/http/http_body_file.h"
#include "platform/http/http_ca_bundle.h"
#include "platform/http/http_client.h"

namespace nembra {

class CurlMultiLoop;

// Connection limits shared by every transfer of one client.
struct CurlTransferSettings {
  std::chrono::milliseconds connectTimeout{30000};
  // Requests without a body file: see CurlHttpClient::Options::firstByteTimeout. 0: none.
  std::chrono::milliseconds firstByteTimeout{5000};
  // A transfer slower than lowSpeedLimit bytes per second for lowSpeedTime is aborted. There is
  // no overall limit: a large upload on a slow link may take as long as it keeps moving.
  long lowSpeedLimit = 1;
  std::chrono::seconds lowSpeedTime{60};
  // Trusted roots replacing the system bundle; null keeps curl's own.
  std::shared_ptr<const HttpCaBundle> caBundle;
};

class CurlTransfer final : public HttpTask, public std::enable_shared_from_this<CurlTransfer> {
 public:
  // |body|, when given, is sent instead of request.body. A |presetError| makes the task
  // complete with it as soon as it is resumed, without sending anything.
  CurlTransfer(uint64_t identifier, HttpRequest request, HttpTaskEvents events,
               std::weak_ptr<CurlMultiLoop> loop,
               std::shared_ptr<const CurlTransferSettings> settings,
               std::unique_ptr<HttpBodyFile> body, OptionalError presetError);
  ~CurlTransfer() override;

  uint64_t taskIdentifier() const override { return identifier_; }
  const HttpRequest& originalRequest() const override { return request_; }
  HttpResponse response() const override;
  HttpTaskState state() const override;
  std::string taskDescription() const override;
  void setTaskDescription(std::string description) override;
  void resume() override;
  void suspend() override;
  void cancel() override;

  // Network thread. Creates the configured easy handle, or returns null and sets |error|.
  CURL* open(CurlMultiLoop& loop, OptionalError& error);
  // Network thread. The multi handle reports the transfer done with |result|.
  void finish(CURLcode result);
  // Network thread. Completes the task with |error| (at most once over the task's life).
  void fail(Error error);
  // Network thread. Frees the easy handle once it is out of the multi handle.
  void release();
  bool completed() const { return completed_; }

 private:
  static size_t onWrite(char* data, size_t size, size_t count, void* self);
  static size_t onHeader(char* data, size_t size, size_t count, void* self);
  static size_t onRead(char* buffer, size_t size, size_t count, void* self);
  static int onSeek(void* self, curl_off_t offset, int origin);
  static int onProgress(void* self, curl_off_t downloadTotal, curl_off_t downloaded,
                        curl_off_t uploadTotal, curl_off_t uploaded);

  int64_t bodyLength() const;
  void reportProgress(int64_t totalSent);
  // Callback queue. Reports what was sent since the last event.
  void deliverProgress(int64_t expected);
  void complete(HttpResponse response, OptionalError error);
  Error transportError(CURLcode result) const;
  // Whether a request waiting for its answer has waited past the first-byte deadline.
  bool answerOverdue(curl_off_t uploaded);

  const uint64_t identifier_;
  const HttpRequest request_;
  const HttpTaskEvents events_;
  const std::weak_ptr<CurlMultiLoop> loop_;
  const std::shared_ptr<const CurlTransferSettings> settings_;

  mutable std::mutex mutex_;
  HttpTaskState state_ = HttpTaskState::Suspended;  // guarded by mutex_
  bool started_ = false;                            // guarded by mutex_
  HttpResponse response_;                           // guarded by mutex_
  std::string description_;                         // guarded by mutex_

  // Network thread only from here on.
  std::unique_ptr<HttpBodyFile> body_;
  OptionalError presetError_;
  OptionalError bodyError_;
  CurlMultiLoop* runningLoop_ = nullptr;
  CURL* easy_ = nullptr;
  curl_slist* headerList_ = nullptr;
  std::vector<uint8_t> received_;
  HttpHeaders receivedHeaders_;
  // Progress crosses to the callback queue at most once per kProgressInterval, and one event
  // at a time: while one is on its way, later counts only raise latestSent_, which that event
  // reads when it runs. The last count always goes.
  static constexpr std::chrono::milliseconds kProgressInterval{20};
  std::chrono::steady_clock::time_point progressPosted_;
  int64_t postedSent_ = 0;
  std::atomic<int64_t> latestSent_{0};
  std::atomic<bool> progressPending_{false};
  int64_t deliveredSent_ = 0;  // callback queue only
  bool completed_ = false;
  // The first-byte deadline: the answer has begun, the last time the body moved, and whether
  // the deadline ended the transfer.
  bool answered_ = false;
  curl_off_t lastUploaded_ = -1;
  std::chrono::steady_clock::time_point waitingSince_;
  bool answerTimedOut_ = false;
  char errorBuffer_[CURL_ERROR_SIZE] = {};
};

}  // namespace nembra
