// Size and modification time of a file being uploaded: a file that differs at the end of its
// transfer changed while it was sent.
//
// Threading: a plain value; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace nembra {

struct UploadFileStamp {
  uint64_t size = 0;
  int64_t modifiedNs = 0;
  bool operator==(const UploadFileStamp&) const = default;

  // Nothing when the file cannot be read.
  static std::optional<UploadFileStamp> of(const std::string& path);
};

}  // namespace nembra
