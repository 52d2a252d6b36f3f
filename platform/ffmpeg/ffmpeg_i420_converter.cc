#include "platform/ffmpeg/ffmpeg_i420_converter.h"

#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace nembra::player {

I420Converter::~I420Converter() { sws_freeContext(scaler_); }

std::unique_ptr<VideoFrame> I420Converter::reuse() {
  std::unique_ptr<VideoFrame> frame;
  {
    std::lock_guard lock(pool_->mutex);
    if (!pool_->kept.empty()) {
      frame = std::move(pool_->kept.back());
      pool_->kept.pop_back();
    }
  }
  if (!frame) return std::make_unique<VideoFrame>();
  // Emptied, not freed: the planes' capacity is what is reused.
  VideoFrame blank;
  for (int plane = 0; plane < 3; ++plane) {
    blank.planes[plane] = std::move(frame->planes[plane]);
    blank.planes[plane].clear();
  }
  *frame = std::move(blank);
  return frame;
}

size_t I420Converter::keptCount() const {
  std::lock_guard lock(pool_->mutex);
  return pool_->kept.size();
}

SharedVideoFrame I420Converter::convert(const AVFrame& picture, double pts) {
  if (picture.width <= 0 || picture.height <= 0) return nullptr;
  std::weak_ptr<Pool> weakPool = pool_;
  std::shared_ptr<VideoFrame> frame(reuse().release(), [weakPool](VideoFrame* released) {
    std::unique_ptr<VideoFrame> owned(released);
    auto pool = weakPool.lock();
    if (!pool) return;
    std::lock_guard lock(pool->mutex);
    if (pool->kept.size() < kKept) pool->kept.push_back(std::move(owned));
  });
  frame->width = picture.width;
  frame->height = picture.height;
  if (picture.sample_aspect_ratio.num > 0 && picture.sample_aspect_ratio.den > 0) {
    frame->sampleAspectNum = picture.sample_aspect_ratio.num;
    frame->sampleAspectDen = picture.sample_aspect_ratio.den;
  }
  frame->pts = pts;
  const int chromaWidth = (picture.width + 1) / 2;
  const int chromaHeight = (picture.height + 1) / 2;
  const int widths[3] = {picture.width, chromaWidth, chromaWidth};
  const int heights[3] = {picture.height, chromaHeight, chromaHeight};
  for (int plane = 0; plane < 3; ++plane) frame->strides[plane] = widths[plane];

  const auto format = static_cast<AVPixelFormat>(picture.format);
  if (format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P) {
    // Appended row by row: a resize would clear every byte first, a cost the size of the copy.
    for (int plane = 0; plane < 3; ++plane) {
      std::vector<uint8_t>& to = frame->planes[plane];
      to.reserve(static_cast<size_t>(widths[plane]) * heights[plane]);
      const uint8_t* from = picture.data[plane];
      for (int row = 0; row < heights[plane]; ++row) {
        const uint8_t* line = from + static_cast<ptrdiff_t>(row) * picture.linesize[plane];
        to.insert(to.end(), line, line + widths[plane]);
      }
    }
    return frame;
  }

  for (int plane = 0; plane < 3; ++plane) {
    frame->planes[plane].resize(static_cast<size_t>(widths[plane]) * heights[plane]);
  }

  scaler_ = sws_getCachedContext(scaler_, picture.width, picture.height, format, picture.width,
                                 picture.height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr,
                                 nullptr);
  if (!scaler_) return nullptr;
  uint8_t* planes[4] = {frame->planes[0].data(), frame->planes[1].data(), frame->planes[2].data(),
                        nullptr};
  int strides[4] = {frame->strides[0], frame->strides[1], frame->strides[2], 0};
  if (sws_scale(scaler_, picture.data, picture.linesize, 0, picture.height, planes, strides) <= 0) {
    return nullptr;
  }
  return frame;
}

}  // namespace nembra::player
