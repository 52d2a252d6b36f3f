// How the video player behaves and what its host view shows.
//
// Threading: a plain value; read and replace it from the main queue (the player reads it there
// when it is created and each time a video has loaded completely).
#pragma once

#include <string>

#include "nembra/json.h"
#include "nembra/player_style.h"

namespace nembra {

class PlayerConfig {
 public:
  // Read by the host view.
  bool getShouldShowSubtitles() const { return shouldShowSubtitles_; }
  bool shouldShowSubtitles() const { return shouldShowSubtitles_; }
  void setShouldShowSubtitles(bool value) { shouldShowSubtitles_ = value; }

  // Read by the host view.
  bool getShouldPreload() const { return shouldPreload_; }
  bool shouldPreload() const { return shouldPreload_; }
  void setShouldPreload(bool value) { shouldPreload_ = value; }

  // Applied to each player when it is created, not to players that exist.
  bool getIsMuted() const { return isMuted_; }
  bool isMuted() const { return isMuted_; }
  void setIsMuted(bool value) { isMuted_ = value; }

  // Whether a completely loaded video is written to the player's cache.
  bool getIsCachingEnabled() const { return isCachingEnabled_; }
  bool isCachingEnabled() const { return isCachingEnabled_; }
  void setIsCachingEnabled(bool value) { isCachingEnabled_ = value; }

  PlayerStyle& getStyle() { return style_; }
  const PlayerStyle& getStyle() const { return style_; }
  void setStyle(PlayerStyle style) { style_ = style; }

  // The ad tag URL the host view plays ads from; "" for none.
  const std::string& getAdsUri() const { return adsUri_; }
  void setAdsUri(std::string uri) { adsUri_ = std::move(uri); }

  // An object; stores a copy, anything other than an object stores an empty object.
  const Json& getExtraArgs() const { return extraArgs_; }
  const Json& extraArgs() const { return extraArgs_; }
  void setExtraArgs(const Json& args);
  // Merges |args| over the present entries: a key given again wins.
  void addExtraArgs(const Json& args);

  std::string toString() const;
  // Reports the subtitles and muted flags only: the report tools read no other field.
  std::string stringValueConfig() const;

 private:
  bool shouldShowSubtitles_ = false;
  bool shouldPreload_ = true;
  bool isMuted_ = false;
  bool isCachingEnabled_ = true;
  PlayerStyle style_;
  std::string adsUri_;
  Json extraArgs_ = Json::object();
};

}  // namespace nembra
