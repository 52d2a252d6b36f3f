// One request of the player for bytes of an asset, as the caching loader answers it: the
// content information (type, size, whether ranges work) and/or a run of bytes. The consumer
// (the asset's byte source) makes it and waits on it; the loader fills it in.
//
// The bytes themselves land in the loader's span store; respondWithData only counts them, so
// a consumer reads what currentOffset says has arrived from the store.
//
// Threading: any thread; the state is locked, and waiters wake on every change.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/http_message.h"

namespace nembra {

struct ContentInformation {
  std::string contentType;
  bool byteRangeAccessSupported = false;
  int64_t contentLength = 0;
};

struct DataRequest {
  int64_t requestedOffset = 0;
  int64_t requestedLength = 0;
  bool requestsAllDataToEndOfResource = false;
};

class AssetLoadingRequest {
 public:
  // |request|: the asset's URL (private scheme) and header fields.
  AssetLoadingRequest(HttpRequest request, bool wantsContentInformation,
                      std::optional<DataRequest> dataRequest);

  const HttpRequest& request() const { return request_; }
  bool hasContentInformationRequest() const { return wantsContentInformation_; }
  const std::optional<DataRequest>& dataRequest() const { return dataRequest_; }
  int64_t currentOffset() const;

  // Loader side.
  void setResponse(HttpResponse response);
  void setContentInformation(ContentInformation information);
  // |length| more bytes from currentOffset are in the store.
  void respondWithData(uint64_t length);
  void finishLoading();
  void finishLoadingWithError(Error error);

  // Consumer side.
  bool isFinished() const;
  OptionalError error() const;
  std::optional<ContentInformation> contentInformation() const;
  std::optional<HttpResponse> response() const;
  // Waits until the request changes (more bytes, finished) or |timeout| passes.
  void waitForChange(int64_t seenOffset, std::chrono::milliseconds timeout) const;
  void waitUntilFinished(std::chrono::milliseconds timeout) const;
  // Wakes the waiters without a change (the consumer is cancelling).
  void wake() const;

 private:
  const HttpRequest request_;
  const bool wantsContentInformation_;
  const std::optional<DataRequest> dataRequest_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  int64_t currentOffset_;                          // guarded by mutex_
  bool finished_ = false;                          // guarded by mutex_
  OptionalError error_;                            // guarded by mutex_
  std::optional<ContentInformation> information_;  // guarded by mutex_
  std::optional<HttpResponse> response_;           // guarded by mutex_
  mutable uint64_t generation_ = 0;                // guarded by mutex_
};

}  // namespace nembra
