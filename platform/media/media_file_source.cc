#include "platform/media/media_file_source.h"

#include "platform/media/media_backend.h"
#include "platform/media/mp4/media_source_mp4.h"

namespace nembra {

std::unique_ptr<MediaSource> openMediaFileSource(const std::string& path, OptionalError& error) {
  OptionalError builtIn;
  if (auto source = MediaSourceMp4::open(path, builtIn)) return source;
  // A file that cannot be read is that for every reader; anything else may suit FFmpeg.
  if (builtIn && builtIn->kind != ErrorKind::Media) {
    error = builtIn;
    return nullptr;
  }
  return MediaBackend::shared().openFile(path, error);
}

}  // namespace nembra
