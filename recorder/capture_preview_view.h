// The camera preview: a view whose layer shows the pictures of a capture session (a CameraFeed)
// on a screen's video surface. The layer's video gravity decides how a picture meets the area:
// aspect fit shows it whole (the surface letterboxes), aspect fill crops it to the area's aspect
// ratio, resize shows it whole and lets the surface stretch it. Preview-layer coordinates are the
// pixels of the picture the layer presents; toLayer converts a rectangle of a captured frame into
// them, and the overlay (the face outlines) draws on each picture in them before it is shown.
//
// Threading: setters on the main queue; the layer's frames arrive on the feed's thread. The
// gravity and size are read under a lock.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "nembra/aspect_ratio.h"
#include "platform/ui/video_surface.h"
#include "recorder/camera_feed.h"
#include "recorder/face.h"

namespace nembra {

enum class VideoGravity { ResizeAspect, ResizeAspectFill, Resize };

class CapturePreviewLayer final : public CaptureFrameObserver {
 public:
  using Overlay = std::function<void(VideoFrame& picture)>;

  // |surface| may be null (a terminal shows no video); it must outlive the layer's use.
  explicit CapturePreviewLayer(VideoSurface* surface) : surface_(surface) {}

  void setVideoGravity(VideoGravity gravity);
  VideoGravity videoGravity() const;
  // The area's size in pixels; 0 × 0 (unknown) shows pictures whole.
  void setLayerSize(int width, int height);
  void setOverlay(Overlay overlay);

  // The part of a |frameWidth| × |frameHeight| capture that is shown, in its pixels (even
  // offsets, so the chroma planes crop with it).
  FaceRect visibleRegion(int frameWidth, int frameHeight) const;
  // |rect| of such a capture in preview-layer coordinates.
  FaceRect toLayer(const FaceRect& rect, int frameWidth, int frameHeight) const;

  // The picture as presented (cropped and overlaid); also what the surface got.
  static std::shared_ptr<VideoFrame> crop(const VideoFrame& frame, const FaceRect& region);

  void onVideoFrame(const SharedVideoFrame& frame) override;

 private:
  VideoSurface* surface_;
  mutable std::mutex mutex_;
  VideoGravity gravity_ = VideoGravity::ResizeAspectFill;  // guarded by mutex_
  int layerWidth_ = 0;                                     // guarded by mutex_
  int layerHeight_ = 0;                                    // guarded by mutex_
  Overlay overlay_;                                        // guarded by mutex_
};

class CapturePreviewView {
 public:
  explicit CapturePreviewView(VideoSurface* surface)
      : layer_(std::make_shared<CapturePreviewLayer>(surface)) {}
  ~CapturePreviewView() { setSession(nullptr); }

  CapturePreviewView(const CapturePreviewView&) = delete;
  CapturePreviewView& operator=(const CapturePreviewView&) = delete;

  const std::shared_ptr<CameraFeed>& session() const { return session_; }
  // Moves the layer from the old session's pictures to the new one's.
  void setSession(std::shared_ptr<CameraFeed> session);
  CapturePreviewLayer& videoPreviewLayer() { return *layer_; }

 private:
  std::shared_ptr<CapturePreviewLayer> layer_;
  std::shared_ptr<CameraFeed> session_;
};

}  // namespace nembra
