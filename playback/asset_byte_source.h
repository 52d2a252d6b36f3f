// The player engine's byte source over the caching loader: each read the engine makes is
// served from the loader's store, and a read of bytes not fetched yet becomes a loading
// request (to the end of the file, or up to the next range already held, so nothing is
// fetched twice); a seek far from the running download cancels it and starts another.
//
// Threading: as MediaByteSource (read/seek/size on the engine's demux thread, cancel from any).
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "platform/media/media_player_engine.h"
#include "playback/asset_loading_request.h"

namespace nembra {

class NembraAssetLoaderDelegate;

class AssetByteSource final : public MediaByteSource {
 public:
  // |assetUrl| carries the loader's private scheme.
  AssetByteSource(std::shared_ptr<NembraAssetLoaderDelegate> loader, std::string assetUrl);
  ~AssetByteSource() override;

  int64_t read(uint8_t* buffer, size_t size) override;
  bool seek(int64_t offset) override;
  int64_t size() override;
  void cancel() override;

  // Why the last read failed; empty otherwise.
  OptionalError lastError() const;

 private:
  std::shared_ptr<AssetLoadingRequest> load(bool contentInformation, int64_t offset, int64_t length,
                                            bool toEnd);
  bool covers(const AssetLoadingRequest& request, int64_t position) const;
  void fail(Error error);

  const std::shared_ptr<NembraAssetLoaderDelegate> loader_;
  const std::string assetUrl_;
  std::atomic<bool> cancelled_{false};

  // Demux thread only.
  int64_t position_ = 0;
  int64_t size_ = -1;
  std::string contentType_;
  int fruitlessRequests_ = 0;

  mutable std::mutex mutex_;
  std::shared_ptr<AssetLoadingRequest> active_;  // guarded by mutex_
  OptionalError lastError_;                      // guarded by mutex_
};

}  // namespace nembra
