// How uploads behave: whether they run at all, whether they wait for Wi-Fi, and what happens to
// a file whose transfer fails.
//
// Threading: a plain value; read and replace it from the main queue (the upload handler reads
// it there when a flow starts and when a transfer ends).
#pragma once

#include <cstdint>
#include <string>

#include "nembra/json.h"

namespace nembra {

// What to do with a file whose transfer to storage failed.
inline constexpr int32_t UPLOADING_ERROR_ACTION_CONTINUE_UPLOADING_MEDIA = 551;  // keep it
inline constexpr int32_t UPLOADING_ERROR_ACTION_RELOAD_MEDIA = 552;              // start again
inline constexpr int32_t UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION = 553;        // tell the user
inline constexpr int32_t UPLOADING_ERROR_ACTION_DELETE_MEDIA = 554;              // delete the file

inline constexpr int64_t DEFAULT_SYNC_INTERVAL = 7200000;

class UploadingConfig {
 public:
  bool getShouldTurnOffUploader() const { return shouldTurnOffUploader_; }
  bool shouldTurnOffUploader() const { return shouldTurnOffUploader_; }
  // When true no upload starts at all.
  void setShouldTurnOffUploader(bool value) { shouldTurnOffUploader_ = value; }

  bool getShouldUseWifiOnly() const { return shouldUseWifiOnly_; }
  bool shouldUseWifiOnly() const { return shouldUseWifiOnly_; }
  // When true a running transfer is held while the network is reachable only over cellular.
  void setShouldUseWifiOnly(bool value) { shouldUseWifiOnly_ = value; }

  bool getShouldStartAsForeground() const { return shouldStartAsForeground_; }
  bool shouldStartAsForeground() const { return shouldStartAsForeground_; }
  // Stored and read back only.
  void setShouldStartAsForeground(bool value) { shouldStartAsForeground_ = value; }

  int32_t getLostConnectionAction() const { return lostConnectionAction_; }
  int32_t lostConnectionAction() const { return lostConnectionAction_; }
  // Keeps any value of 0 or more, unchecked against the four actions (an unknown one acts as
  // 551); a negative value becomes 553, not the default 551. Both kept as they are: hosts pass
  // codes of their own and rely on the negative fallback notifying the user.
  void setLostConnectionAction(int32_t action);

  int64_t getSyncInterval() const { return syncInterval_; }
  int64_t syncInterval() const { return syncInterval_; }
  // Keeps a value above 0; 0 or less restores DEFAULT_SYNC_INTERVAL. Stored and reported only:
  // nothing in the SDK schedules from it.
  void setSyncInterval(int64_t interval);

  // Extra request arguments other components add to their requests; an object.
  const Json& getExtraArgs() const { return extraArgs_; }
  const Json& extraArgs() const { return extraArgs_; }
  // Stores a copy; anything other than an object stores an empty object.
  void setExtraArgs(const Json& args);
  // Merges |args| over the present entries: a key given again wins.
  void addExtraArgs(const Json& args);

  // The one-line form of configuration reports, blanks included as the report tools expect.
  std::string stringValueConfig() const;

 private:
  bool shouldTurnOffUploader_ = false;
  bool shouldUseWifiOnly_ = false;
  bool shouldStartAsForeground_ = false;
  int32_t lostConnectionAction_ = UPLOADING_ERROR_ACTION_CONTINUE_UPLOADING_MEDIA;
  int64_t syncInterval_ = DEFAULT_SYNC_INTERVAL;
  Json extraArgs_ = Json::object();
};

}  // namespace nembra
