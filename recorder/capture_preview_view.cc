#include "recorder/capture_preview_view.h"

#include <algorithm>

namespace nembra {

void CapturePreviewLayer::setVideoGravity(VideoGravity gravity) {
  std::lock_guard lock(mutex_);
  gravity_ = gravity;
}

VideoGravity CapturePreviewLayer::videoGravity() const {
  std::lock_guard lock(mutex_);
  return gravity_;
}

void CapturePreviewLayer::setLayerSize(int width, int height) {
  std::lock_guard lock(mutex_);
  layerWidth_ = width;
  layerHeight_ = height;
}

void CapturePreviewLayer::setOverlay(Overlay overlay) {
  std::lock_guard lock(mutex_);
  overlay_ = std::move(overlay);
}

FaceRect CapturePreviewLayer::visibleRegion(int frameWidth, int frameHeight) const {
  std::lock_guard lock(mutex_);
  const FaceRect whole{0, 0, static_cast<double>(frameWidth), static_cast<double>(frameHeight)};
  if (gravity_ != VideoGravity::ResizeAspectFill || layerWidth_ <= 0 || layerHeight_ <= 0 ||
      frameWidth <= 0 || frameHeight <= 0) {
    return whole;
  }
  const AspectRatio area = AspectRatio::of(layerWidth_, layerHeight_);
  const AspectRatio frame = AspectRatio::of(frameWidth, frameHeight);
  const int order = frame.compareTo(area);
  if (order == 0) return whole;
  if (order > 0) {
    // Wider than the area: keep the full height, cut the sides.
    const int width =
        std::min(frameWidth, static_cast<int>(int64_t{frameHeight} * area.getX() / area.getY())) &
        ~1;
    const int left = ((frameWidth - width) / 2) & ~1;
    return {static_cast<double>(left), 0, static_cast<double>(width),
            static_cast<double>(frameHeight)};
  }
  const int height =
      std::min(frameHeight, static_cast<int>(int64_t{frameWidth} * area.getY() / area.getX())) & ~1;
  const int top = ((frameHeight - height) / 2) & ~1;
  return {0, static_cast<double>(top), static_cast<double>(frameWidth),
          static_cast<double>(height)};
}

FaceRect CapturePreviewLayer::toLayer(const FaceRect& rect, int frameWidth, int frameHeight) const {
  const FaceRect region = visibleRegion(frameWidth, frameHeight);
  return {rect.x - region.x, rect.y - region.y, rect.width, rect.height};
}

std::shared_ptr<VideoFrame> CapturePreviewLayer::crop(const VideoFrame& frame,
                                                      const FaceRect& region) {
  auto out = std::make_shared<VideoFrame>();
  const int left = static_cast<int>(region.x);
  const int top = static_cast<int>(region.y);
  out->width = static_cast<int>(region.width);
  out->height = static_cast<int>(region.height);
  out->sampleAspectNum = frame.sampleAspectNum;
  out->sampleAspectDen = frame.sampleAspectDen;
  out->pts = frame.pts;
  for (int plane = 0; plane < 3; ++plane) {
    const int shift = plane == 0 ? 0 : 1;
    const int width = plane == 0 ? out->width : (out->width + 1) / 2;
    const int height = plane == 0 ? out->height : (out->height + 1) / 2;
    out->strides[plane] = width;
    out->planes[plane].reserve(static_cast<size_t>(width) * height);
    for (int row = 0; row < height; ++row) {
      const uint8_t* from = frame.planes[plane].data() +
                            static_cast<size_t>((top >> shift) + row) * frame.strides[plane] +
                            (left >> shift);
      out->planes[plane].insert(out->planes[plane].end(), from, from + width);
    }
  }
  return out;
}

void CapturePreviewLayer::onVideoFrame(const SharedVideoFrame& frame) {
  Overlay overlay;
  {
    std::lock_guard lock(mutex_);
    if (!surface_) return;
    overlay = overlay_;
  }
  const FaceRect region = visibleRegion(frame->width, frame->height);
  const bool whole = region.width == frame->width && region.height == frame->height;
  if (whole && !overlay) {
    surface_->present(frame);
    return;
  }
  std::shared_ptr<VideoFrame> picture =
      whole ? std::make_shared<VideoFrame>(*frame) : crop(*frame, region);
  if (overlay) overlay(*picture);
  surface_->present(std::move(picture));
}

void CapturePreviewView::setSession(std::shared_ptr<CameraFeed> session) {
  if (session_) session_->removeObserver(layer_.get());
  session_ = std::move(session);
  if (session_) session_->addObserver(layer_);
}

}  // namespace nembra
