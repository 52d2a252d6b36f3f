#include "playback/asset_loading_request.h"

namespace nembra {

AssetLoadingRequest::AssetLoadingRequest(HttpRequest request, bool wantsContentInformation,
                                         std::optional<DataRequest> dataRequest)
    : request_(std::move(request)),
      wantsContentInformation_(wantsContentInformation),
      dataRequest_(dataRequest),
      currentOffset_(dataRequest ? dataRequest->requestedOffset : 0) {}

int64_t AssetLoadingRequest::currentOffset() const {
  std::lock_guard lock(mutex_);
  return currentOffset_;
}

void AssetLoadingRequest::setResponse(HttpResponse response) {
  std::lock_guard lock(mutex_);
  response_ = std::move(response);
}

void AssetLoadingRequest::setContentInformation(ContentInformation information) {
  std::lock_guard lock(mutex_);
  information_ = std::move(information);
}

void AssetLoadingRequest::respondWithData(uint64_t length) {
  {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    currentOffset_ += static_cast<int64_t>(length);
    ++generation_;
  }
  changed_.notify_all();
}

void AssetLoadingRequest::finishLoading() {
  {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    finished_ = true;
    ++generation_;
  }
  changed_.notify_all();
}

void AssetLoadingRequest::finishLoadingWithError(Error error) {
  {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    finished_ = true;
    error_ = std::move(error);
    ++generation_;
  }
  changed_.notify_all();
}

bool AssetLoadingRequest::isFinished() const {
  std::lock_guard lock(mutex_);
  return finished_;
}

OptionalError AssetLoadingRequest::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

std::optional<ContentInformation> AssetLoadingRequest::contentInformation() const {
  std::lock_guard lock(mutex_);
  return information_;
}

std::optional<HttpResponse> AssetLoadingRequest::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

void AssetLoadingRequest::waitForChange(int64_t seenOffset,
                                        std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  uint64_t generation = generation_;
  changed_.wait_for(lock, timeout, [&] {
    return finished_ || currentOffset_ > seenOffset || generation_ != generation;
  });
}

void AssetLoadingRequest::waitUntilFinished(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  uint64_t generation = generation_;
  changed_.wait_for(lock, timeout, [&] { return finished_ || generation_ != generation; });
}

void AssetLoadingRequest::wake() const {
  {
    std::lock_guard lock(mutex_);
    ++generation_;
  }
  changed_.notify_all();
}

}  // namespace nembra
