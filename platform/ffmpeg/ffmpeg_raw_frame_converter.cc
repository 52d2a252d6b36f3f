#include "platform/ffmpeg/ffmpeg_raw_frame_converter.h"

#include <algorithm>
#include <cstddef>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace nembra {

namespace {

// Averages |k| × |k| blocks of a plane into one pixel each.
void shrinkPlane(const uint8_t* source, int sourceStride, uint8_t* target, int targetStride,
                 int width, int height, int k) {
  if (k == 2) {
    // Two plain passes the compiler turns into vector code: the row pair summed, then the
    // neighbouring sums.
    std::vector<uint16_t> pairs(static_cast<size_t>(2 * width));
    for (int y = 0; y < height; ++y) {
      const uint8_t* top = source + static_cast<ptrdiff_t>(2 * y) * sourceStride;
      const uint8_t* bottom = top + sourceStride;
      uint16_t* sum = pairs.data();
      for (int i = 0; i < 2 * width; ++i) sum[i] = static_cast<uint16_t>(top[i] + bottom[i]);
      uint8_t* out = target + static_cast<ptrdiff_t>(y) * targetStride;
      for (int x = 0; x < width; ++x) {
        out[x] = static_cast<uint8_t>((sum[2 * x] + sum[2 * x + 1] + 2) >> 2);
      }
    }
    return;
  }
  const int area = k * k;
  std::vector<uint32_t> sums(static_cast<size_t>(width));
  for (int y = 0; y < height; ++y) {
    std::fill(sums.begin(), sums.end(), 0);
    for (int row = 0; row < k; ++row) {
      const uint8_t* line = source + static_cast<ptrdiff_t>(k * y + row) * sourceStride;
      for (int x = 0; x < width; ++x) {
        for (int column = 0; column < k; ++column) sums[x] += line[k * x + column];
      }
    }
    uint8_t* out = target + static_cast<ptrdiff_t>(y) * targetStride;
    for (int x = 0; x < width; ++x) out[x] = static_cast<uint8_t>((sums[x] + area / 2) / area);
  }
}

}  // namespace

FfmpegRawFrameConverter::~FfmpegRawFrameConverter() {
  sws_freeContext(scaler_);
  swr_free(&resampler_);
}

SharedVideoFrame FfmpegRawFrameConverter::picture(const RawMediaFrame& frame, int maxWidth) {
  const AVFrame* source = frame.avFrame();
  if (frame.kind() != RawMediaFrame::Kind::Video || !source || source->width < 2) return nullptr;
  int width = std::min(source->width, std::max(maxWidth, 2));
  int height = static_cast<int>(static_cast<int64_t>(source->height) * width / source->width);
  width &= ~1;
  height = std::max(height & ~1, 2);
  // A camera's 4:2:0 picture a whole number of times the preview's size (720p and 1080p for a
  // 640-wide preview) is shrunk by plain block averages: the preview is made 15 times a second
  // while recording, and the scaler costs several times as much.
  const int k = source->width / std::max(width, 1);
  if (source->format == AV_PIX_FMT_YUV420P && k >= 2 && source->width == k * width &&
      source->height == k * height) {
    auto picture = std::make_shared<VideoFrame>();
    picture->width = width;
    picture->height = height;
    picture->pts = frame.pts();
    for (int i = 0; i < 3; ++i) {
      const int planeWidth = i == 0 ? width : width / 2;
      const int planeHeight = i == 0 ? height : height / 2;
      picture->strides[i] = planeWidth;
      picture->planes[i].resize(static_cast<size_t>(planeWidth) * planeHeight);
      shrinkPlane(source->data[i], source->linesize[i], picture->planes[i].data(), planeWidth,
                  planeWidth, planeHeight, k);
    }
    return picture;
  }
  scaler_ = sws_getCachedContext(scaler_, source->width, source->height,
                                 static_cast<AVPixelFormat>(source->format), width, height,
                                 AV_PIX_FMT_YUV420P, SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
  if (!scaler_) return nullptr;
  auto picture = std::make_shared<VideoFrame>();
  picture->width = width;
  picture->height = height;
  picture->pts = frame.pts();
  uint8_t* planes[4] = {};
  int strides[4] = {};
  for (int i = 0; i < 3; ++i) {
    const int planeWidth = i == 0 ? width : (width + 1) / 2;
    const int planeHeight = i == 0 ? height : (height + 1) / 2;
    picture->strides[i] = planeWidth;
    picture->planes[i].resize(static_cast<size_t>(planeWidth) * planeHeight);
    planes[i] = picture->planes[i].data();
    strides[i] = planeWidth;
  }
  sws_scale(scaler_, source->data, source->linesize, 0, source->height, planes, strides);
  return picture;
}

bool FfmpegRawFrameConverter::pcm16(const RawMediaFrame& frame, std::vector<int16_t>& samples,
                                    int& channels) {
  const AVFrame* source = frame.avFrame();
  if (frame.kind() != RawMediaFrame::Kind::Audio || !source) return false;
  channels = std::max(source->ch_layout.nb_channels, 1);
  samples.resize(static_cast<size_t>(source->nb_samples) * channels);
  if (source->format == AV_SAMPLE_FMT_S16) {
    std::copy_n(reinterpret_cast<const int16_t*>(source->data[0]), samples.size(), samples.data());
    return true;
  }
  if (!resampler_ || resamplerFormat_ != source->format || resamplerRate_ != source->sample_rate ||
      resamplerChannels_ != channels) {
    swr_free(&resampler_);
    AVChannelLayout layout{};
    av_channel_layout_copy(&layout, &source->ch_layout);
    const int rc = swr_alloc_set_opts2(&resampler_, &layout, AV_SAMPLE_FMT_S16, source->sample_rate,
                                       &layout, static_cast<AVSampleFormat>(source->format),
                                       source->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&layout);
    if (rc < 0 || swr_init(resampler_) < 0) {
      swr_free(&resampler_);
      return false;
    }
    resamplerFormat_ = source->format;
    resamplerRate_ = source->sample_rate;
    resamplerChannels_ = channels;
  }
  uint8_t* out[1] = {reinterpret_cast<uint8_t*>(samples.data())};
  const int converted =
      swr_convert(resampler_, out, source->nb_samples,
                  const_cast<const uint8_t**>(source->extended_data), source->nb_samples);
  if (converted < 0) return false;
  samples.resize(static_cast<size_t>(converted) * channels);
  return true;
}

}  // namespace nembra
