// A video's cover picture: fetched from the service ("/<token>/image" under the video base) or
// grabbed from a local file at 0 s (at most 1920×1080), and kept in a thumbnail cache under the
// token or the path.
//
// Threading: call from the main queue. Callbacks run on the main queue; a picture found in the
// cache is answered at once, on the caller's stack.
#pragma once

#include <memory>
#include <string>

#include "nembra/media_callbacks.h"
#include "nembra/thumbnail_cache.h"
#include "platform/dispatch/concurrent_queue.h"
#include "platform/media/frame_grabber.h"
#include "platform/media/image_codec.h"

namespace nembra {

class Nembra;

class VideoCovers {
 public:
  using TaskHandle = MediaCallbacks::TaskHandle;
  using ImageCallback = MediaCallbacks::ImageCallback;
  using LocalImageCallback = MediaCallbacks::LocalImageCallback;

  // Empty seams get the platform's own when first needed. The owner must outlive this.
  VideoCovers(Nembra& application, std::unique_ptr<FrameGrabber> grabber,
              std::unique_ptr<ImageCodec> codec);
  ~VideoCovers();

  VideoCovers(const VideoCovers&) = delete;
  VideoCovers& operator=(const VideoCovers&) = delete;

  // |cache| must outlive this object.
  TaskHandle fetch(const std::string& token, const Json& data, ThumbnailCache& cache,
                   ImageCallback callback);
  void grab(const std::string& path, ThumbnailCache& cache, LocalImageCallback callback);

 private:
  void onMain(std::function<void()> task);
  // The media seams are made on first use: a process that only moves files never loads the
  // media libraries.
  FrameGrabber& frameGrabber();
  ImageCodec& imageCodec();

  Nembra& application_;
  std::unique_ptr<FrameGrabber> grabber_;
  std::unique_ptr<ImageCodec> codec_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  // Last: destroyed first, running what is posted to it while the members above still live.
  ConcurrentQueue background_{"com.nembra.covers.background", 1};
};

}  // namespace nembra
