#include "nembra/uploading_config.h"

#include "api/config_line.h"
#include "api/extra_args.h"

namespace nembra {

void UploadingConfig::setLostConnectionAction(int32_t action) {
  lostConnectionAction_ = action >= 0 ? action : UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION;
}

void UploadingConfig::setSyncInterval(int64_t interval) {
  syncInterval_ = interval > 0 ? interval : DEFAULT_SYNC_INTERVAL;
}

void UploadingConfig::setExtraArgs(const Json& args) { extraArgs_ = extraArgsCopy(args); }

void UploadingConfig::addExtraArgs(const Json& args) {
  extraArgs_ = mergedExtraArgs(extraArgs_, args);
}

// One blank fewer on each run than the other configuration objects: the collected reports of
// this object have always had these widths.
std::string UploadingConfig::stringValueConfig() const {
  return configJsonLine({{"shouldUseWifiOnly", flagText(shouldUseWifiOnly_)},
                         {"syncInterval", std::to_string(syncInterval_)},
                         {"shouldTurnOffUploader", flagText(shouldTurnOffUploader_)},
                         {"lostConnectionAction", std::to_string(lostConnectionAction_)}},
                        {.first = 23, .between = 24});
}

}  // namespace nembra
