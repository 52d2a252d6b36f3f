#include "api/upload_file_stamp.h"

#include <chrono>
#include <filesystem>

namespace nembra {

std::optional<UploadFileStamp> UploadFileStamp::of(const std::string& path) {
  std::error_code ec;
  uint64_t size = std::filesystem::file_size(path, ec);
  if (ec) return std::nullopt;
  auto written = std::filesystem::last_write_time(path, ec);
  if (ec) return std::nullopt;
  return UploadFileStamp{
      size,
      std::chrono::duration_cast<std::chrono::nanoseconds>(written.time_since_epoch()).count()};
}

}  // namespace nembra
