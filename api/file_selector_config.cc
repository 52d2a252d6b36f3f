#include "nembra/file_selector_config.h"

#include "api/config_line.h"
#include "api/extra_args.h"
#include "nembra/media_type.h"

namespace nembra {

FileSelectorConfig::FileSelectorConfig() : mediaType_(VIDEO | AUDIO | IMAGE) {}

void FileSelectorConfig::setExtraArgs(const Json& args) { extraArgs_ = extraArgsCopy(args); }

void FileSelectorConfig::addExtraArgs(const Json& args) {
  extraArgs_ = mergedExtraArgs(extraArgs_, args);
}

std::string FileSelectorConfig::stringValueConfig() const {
  return configJsonLine(
      {{"maxDuration", std::to_string(maxDuration_)},
       {"mediaType", std::to_string(mediaType_)},
       {"shouldAllowMultipleSelection", flagText(shouldAllowMultipleSelection_)}});
}

}  // namespace nembra
