#include "playback/asset_byte_source.h"

#include "playback/nembra_asset_loader_delegate.h"

namespace nembra {

namespace {

// A read this far past what the running download has delivered starts a download of its own.
constexpr int64_t kLookahead = 2 << 20;
// How long a wait lasts before cancellation is looked at again.
constexpr std::chrono::milliseconds kWaitSlice{50};
// A request that ends without bringing a single wanted byte, this many times in a row at one
// place, means the server cannot serve it.
constexpr int kMaxFruitlessRequests = 3;

}  // namespace

AssetByteSource::AssetByteSource(std::shared_ptr<NembraAssetLoaderDelegate> loader,
                                 std::string assetUrl)
    : loader_(std::move(loader)), assetUrl_(std::move(assetUrl)) {}

AssetByteSource::~AssetByteSource() { cancel(); }

OptionalError AssetByteSource::lastError() const {
  std::lock_guard lock(mutex_);
  return lastError_;
}

void AssetByteSource::fail(Error error) {
  std::lock_guard lock(mutex_);
  lastError_ = std::move(error);
}

std::shared_ptr<AssetLoadingRequest> AssetByteSource::load(bool contentInformation, int64_t offset,
                                                           int64_t length, bool toEnd) {
  auto request =
      std::make_shared<AssetLoadingRequest>(HttpRequest{"GET", assetUrl_, {}, std::nullopt},
                                            contentInformation, DataRequest{offset, length, toEnd});
  if (!loader_->shouldWaitForLoadingOfRequestedResource(request)) {
    fail(Error::transport("the loader declined the request for " + assetUrl_));
    return nullptr;
  }
  return request;
}

int64_t AssetByteSource::size() {
  if (size_ >= 0 || cancelled_) return size_;
  auto request = load(true, 0, 2, false);
  if (!request) return -1;
  {
    std::lock_guard lock(mutex_);
    active_ = request;
  }
  while (!request->isFinished() && !cancelled_) request->waitUntilFinished(kWaitSlice);
  {
    std::lock_guard lock(mutex_);
    active_.reset();
  }
  if (auto error = request->error()) {
    fail(*error);
    return -1;
  }
  auto response = request->response();
  if (response && (response->status < 200 || response->status >= 400)) {
    fail(Error::http(response->status, "HTTP " + std::to_string(response->status) + " for " +
                                           loader_->originalURL()));
    return -1;
  }
  auto information = request->contentInformation();
  if (!information || information->contentLength <= 0) {
    fail(Error::media("no content length for " + loader_->originalURL()));
    return -1;
  }
  contentType_ = information->contentType;
  size_ = information->contentLength;
  return size_;
}

bool AssetByteSource::seek(int64_t offset) {
  if (offset < 0 || (size_ >= 0 && offset > size_)) return false;
  position_ = offset;
  return true;
}

bool AssetByteSource::covers(const AssetLoadingRequest& request, int64_t position) const {
  const DataRequest& data = *request.dataRequest();
  const int64_t end =
      data.requestsAllDataToEndOfResource ? size_ : data.requestedOffset + data.requestedLength;
  return data.requestedOffset <= position && position < end &&
         position < request.currentOffset() + kLookahead;
}

int64_t AssetByteSource::read(uint8_t* buffer, size_t wanted) {
  if (size() < 0) return -1;
  for (;;) {
    if (cancelled_) return -1;
    if (position_ >= size_) return 0;
    const size_t count = static_cast<size_t>(std::min<int64_t>(wanted, size_ - position_));
    int64_t got = loader_->store().readAt(static_cast<uint64_t>(position_), buffer, count);
    if (got > 0) {
      position_ += got;
      fruitlessRequests_ = 0;
      return got;
    }
    if (got < 0) {
      fail(Error::file("cannot read the loader's store"));
      return -1;
    }

    std::shared_ptr<AssetLoadingRequest> active;
    {
      std::lock_guard lock(mutex_);
      active = active_;
    }
    if (active && covers(*active, position_)) {
      if (!active->isFinished()) {
        active->waitForChange(position_, kWaitSlice);
        continue;
      }
      if (auto error = active->error()) {
        fail(*error);
        return -1;
      }
    }
    // A new download from here: to the next range already held, or to the end.
    if (active && !active->isFinished()) loader_->didCancelLoadingRequest(active);
    if (++fruitlessRequests_ > kMaxFruitlessRequests) {
      fail(Error::transport("the server sent none of the bytes at " + std::to_string(position_) +
                            " of " + loader_->originalURL()));
      return -1;
    }
    auto next = loader_->store().nextSpanStart(static_cast<uint64_t>(position_));
    const int64_t end = next ? std::min<int64_t>(static_cast<int64_t>(*next), size_) : size_;
    auto request = load(false, position_, end - position_, end >= size_);
    if (!request) return -1;
    std::lock_guard lock(mutex_);
    active_ = request;
  }
}

void AssetByteSource::cancel() {
  cancelled_ = true;
  std::shared_ptr<AssetLoadingRequest> active;
  {
    std::lock_guard lock(mutex_);
    active = active_;
  }
  if (active) {
    active->wake();
    if (!active->isFinished()) loader_->didCancelLoadingRequest(active);
  }
}

}  // namespace nembra
