#include "nembra/player_config.h"

#include "api/config_line.h"
#include "api/extra_args.h"

namespace nembra {

void PlayerConfig::setExtraArgs(const Json& args) { extraArgs_ = extraArgsCopy(args); }

void PlayerConfig::addExtraArgs(const Json& args) {
  extraArgs_ = mergedExtraArgs(extraArgs_, args);
}

std::string PlayerConfig::toString() const {
  return configFieldLine("PlayerConfig", {{"extraArgs", dictionaryDescription(extraArgs_)},
                                          {"shouldShowSubtitles", flagText(shouldShowSubtitles_)},
                                          {"isMuted", flagText(isMuted_)},
                                          {"isCachingEnabled", flagText(isCachingEnabled_)},
                                          {"shouldPreload", flagText(shouldPreload_)},
                                          {"adsUri", adsUri_}});
}

std::string PlayerConfig::stringValueConfig() const {
  return configJsonLine(
      {{"shouldShowSubtitles", flagText(shouldShowSubtitles_)}, {"isMuted", flagText(isMuted_)}});
}

}  // namespace nembra
