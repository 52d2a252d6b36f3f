#include "playback/nembra_url_asset.h"

#include "api/utils.h"
#include "playback/asset_byte_source.h"

namespace nembra {

bool NembraURLAsset::isLocal(const std::string& url) {
  return url.rfind("file://", 0) == 0 || url.find("://") == std::string::npos;
}

std::shared_ptr<NembraURLAsset> NembraURLAsset::initWithURL(
    const std::string& url, NembraAssetLoaderDelegate::Options options, OptionalError& error) {
  return initWithURL(url, std::move(options), 15.0, error);
}

std::shared_ptr<NembraURLAsset> NembraURLAsset::initWithURL(
    const std::string& url, NembraAssetLoaderDelegate::Options options, double networkTimeout,
    OptionalError& error) {
  auto asset = std::make_shared<NembraURLAsset>();
  if (isLocal(url)) {
    asset->url_ = Utils::pathFromFileUrl(url).value_or(url);
    return asset;
  }
  asset->url_ = NembraAssetLoaderHelpers::urlWithScheme(url, NembraAssetLoaderDelegate::scheme());
  asset->loaderDelegate_ = NembraAssetLoaderDelegate::initWithURL(url, std::move(options), error);
  if (!asset->loaderDelegate_) return nullptr;
  asset->loaderDelegate_->setNetworkTimeout(networkTimeout);
  return asset;
}

MediaPlayerItem NembraURLAsset::playerItem() const {
  if (!loaderDelegate_) return MediaPlayerItem::file(url_);
  MediaPlayerItem item;
  item.source = std::make_shared<AssetByteSource>(loaderDelegate_, url_);
  item.name = loaderDelegate_->originalURL();
  return item;
}

}  // namespace nembra
