#include "api/video_conversion.h"

#include <filesystem>

#include "nembra/application.h"
#include "platform/files/file_system.h"

namespace nembra {

VideoConversion::VideoConversion(Nembra& application, std::unique_ptr<MediaConverter> converter)
    : application_(application), converter_(std::move(converter)) {}

VideoConversion::~VideoConversion() { *alive_ = false; }

MediaConverter& VideoConversion::converter() {
  if (!converter_) converter_ = makeMediaConverter();
  return *converter_;
}

void VideoConversion::convertThenUpload(const std::string& path, UploadStep upload) {
  const std::string target = FileSystem::shared().documentsDirectory() + "/video.mp4";
  std::error_code ec;
  // Converting a file onto itself would delete it first: it goes as it is.
  const bool sameFile = std::filesystem::equivalent(path, target, ec);
  if (!sameFile && FileSystem::fileExists(target)) FileSystem::removeItem(target);
  MediaConverter* media = &converter();
  std::weak_ptr<bool> alive = alive_;
  background_.async([this, alive, media, path, target, sameFile, upload = std::move(upload)] {
    std::string chosen = path;
    if (!sameFile && media->canConvert(path)) {
      if (auto error = media->convert(path, target, ConvertOptions{})) {
        application_.log("conversion of " + path +
                         " failed, uploading it as it is: " + error->message);
      } else {
        chosen = target;
      }
    }
    application_.mainQueue().async([alive, upload, chosen] {
      if (alive.lock() && upload) upload(chosen);
    });
  });
}

}  // namespace nembra
