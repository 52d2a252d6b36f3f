// The limits the host's file selector offers the user: which kinds of media, how long, and
// whether several files at once.
//
// Threading: a plain value; read and replace it from the main queue.
#pragma once

#include <cstdint>
#include <string>

#include "nembra/json.h"

namespace nembra {

class FileSelectorConfig {
 public:
  // Offers every kind of media: video, audio and image.
  FileSelectorConfig();

  bool getShouldAllowMultipleSelection() const { return shouldAllowMultipleSelection_; }
  bool shouldAllowMultipleSelection() const { return shouldAllowMultipleSelection_; }
  void setShouldAllowMultipleSelection(bool value) { shouldAllowMultipleSelection_ = value; }

  // A bit union of the media type codes offered; stored as given.
  int32_t getMediaType() const { return mediaType_; }
  void setMediaType(int32_t types) { mediaType_ = types; }

  // Seconds; 0 means no limit. Stored as given.
  int64_t getMaxDuration() const { return maxDuration_; }
  void setMaxDuration(int64_t seconds) { maxDuration_ = seconds; }
  int64_t getMinDuration() const { return minDuration_; }
  void setMinDuration(int64_t seconds) { minDuration_ = seconds; }

  // An object; stores a copy, anything other than an object stores an empty object.
  const Json& getExtraArgs() const { return extraArgs_; }
  const Json& extraArgs() const { return extraArgs_; }
  void setExtraArgs(const Json& args);
  // Merges |args| over the present entries: a key given again wins.
  void addExtraArgs(const Json& args);

  // Leaves out minDuration: the report tools read the fields they have always been given.
  std::string stringValueConfig() const;

 private:
  bool shouldAllowMultipleSelection_ = true;
  int32_t mediaType_;
  int64_t maxDuration_ = 0;
  int64_t minDuration_ = 0;
  Json extraArgs_ = Json::object();
};

}  // namespace nembra
