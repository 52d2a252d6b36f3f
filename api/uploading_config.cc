#include "nembra/uploading_config.h"

namespace nembra {

void UploadingConfig::setLostConnectionAction(int32_t action) {
  lostConnectionAction_ = action >= 0 ? action : UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION;
}

void UploadingConfig::setSyncInterval(int64_t interval) {
  syncInterval_ = interval > 0 ? interval : DEFAULT_SYNC_INTERVAL;
}

void UploadingConfig::setExtraArgs(const Json& args) {
  extraArgs_ = args.is_object() ? args : Json::object();
}

void UploadingConfig::addExtraArgs(const Json& args) {
  if (!args.is_object()) return;
  Json merged = extraArgs_;
  for (const auto& entry : args.items()) merged[entry.key()] = entry.value();
  extraArgs_ = std::move(merged);
}

std::string UploadingConfig::stringValueConfig() const {
  return "{" + std::string(23, ' ') +
         "\"shouldUseWifiOnly\": " + std::to_string(shouldUseWifiOnly_ ? 1 : 0) + "," +
         std::string(24, ' ') + "\"syncInterval\": " + std::to_string(syncInterval_) + "," +
         std::string(24, ' ') +
         "\"shouldTurnOffUploader\": " + std::to_string(shouldTurnOffUploader_ ? 1 : 0) + "," +
         std::string(24, ' ') +
         "\"lostConnectionAction\": " + std::to_string(lostConnectionAction_) + "}";
}

}  // namespace nembra
