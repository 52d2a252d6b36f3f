// Converts a local video to a small MP4 ("video.mp4" in the documents directory, replaced) on a
// background queue before it is uploaded; a file that cannot be converted, or whose conversion
// fails, goes as it is.
//
// Threading: call from the main queue; |upload| runs on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/dispatch/concurrent_queue.h"
#include "platform/media/media_converter.h"

namespace nembra {

class Nembra;

class VideoConversion {
 public:
  // Called with the file to upload: the converted one, or the source.
  using UploadStep = std::function<void(const std::string& path)>;

  // An empty |converter| gets the platform's when first needed. The owner must outlive this.
  VideoConversion(Nembra& application, std::unique_ptr<MediaConverter> converter);
  ~VideoConversion();

  VideoConversion(const VideoConversion&) = delete;
  VideoConversion& operator=(const VideoConversion&) = delete;

  void convertThenUpload(const std::string& path, UploadStep upload);

 private:
  MediaConverter& converter();

  Nembra& application_;
  std::unique_ptr<MediaConverter> converter_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  // Last: destroyed first, running what is posted to it while the members above still live.
  ConcurrentQueue background_{"com.nembra.conversion.background", 1};
};

}  // namespace nembra
