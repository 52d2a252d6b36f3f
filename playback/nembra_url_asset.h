// A media asset for the player: a local file plays as it is; any other URL gets the private
// scheme and a NembraAssetLoaderDelegate of its own, whose byte source feeds the engine, so
// every byte of it comes through the caching loader.
//
// Threading: made on the main queue; the item it gives is for the engine.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"
#include "platform/media/media_player_engine.h"
#include "playback/nembra_asset_loader_delegate.h"

namespace nembra {

class AssetByteSource;

class NembraURLAsset {
 public:
  // A "file://" URL or a plain path is local: no loader. Otherwise the loader is made with
  // |options| and |networkTimeout|; null with |error| set when it cannot be.
  static std::shared_ptr<NembraURLAsset> initWithURL(const std::string& url,
                                                     NembraAssetLoaderDelegate::Options options,
                                                     double networkTimeout, OptionalError& error);
  static std::shared_ptr<NembraURLAsset> initWithURL(const std::string& url,
                                                     NembraAssetLoaderDelegate::Options options,
                                                     OptionalError& error);

  static bool isLocal(const std::string& url);

  // The URL the asset was made on: the private-scheme copy, or the local path.
  const std::string& url() const { return url_; }
  // Null for a local file.
  const std::shared_ptr<NembraAssetLoaderDelegate>& resourceLoaderDelegate() const {
    return loaderDelegate_;
  }
  // The engine's item for the asset (a new byte source each time, over the same loader).
  MediaPlayerItem playerItem() const;

 private:
  std::string url_;
  std::shared_ptr<NembraAssetLoaderDelegate> loaderDelegate_;
};

}  // namespace nembra
