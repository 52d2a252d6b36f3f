#include "platform/ffmpeg/ffmpeg_raw_frame_reader.h"

#include <algorithm>

#include "platform/ffmpeg/ffmpeg_av_support.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace nembra {

FfmpegRawFrameReader::~FfmpegRawFrameReader() {
  sws_freeContext(scaler_);
  swr_free(&resampler_);
}

SharedVideoFrame FfmpegRawFrameReader::picture(const RawMediaFrame& frame, int maxWidth,
                                               int maxHeight, OptionalError& error) {
  const AVFrame* picture = frame.avFrame();
  if (frame.kind() != RawMediaFrame::Kind::Video || !picture || picture->width <= 0 ||
      picture->height <= 0) {
    error = Error::invalidArgument("not a picture");
    return nullptr;
  }
  int width = picture->width;
  int height = picture->height;
  if (maxWidth > 0 && maxHeight > 0 && (width > maxWidth || height > maxHeight)) {
    const double scale =
        std::min(static_cast<double>(maxWidth) / width, static_cast<double>(maxHeight) / height);
    width = std::max(2, static_cast<int>(width * scale) & ~1);
    height = std::max(2, static_cast<int>(height * scale) & ~1);
  }
  auto out = std::make_shared<VideoFrame>();
  out->width = width;
  out->height = height;
  out->pts = frame.pts();
  if (picture->sample_aspect_ratio.num > 0 && picture->sample_aspect_ratio.den > 0) {
    out->sampleAspectNum = picture->sample_aspect_ratio.num;
    out->sampleAspectDen = picture->sample_aspect_ratio.den;
  }
  const int chromaWidth = (width + 1) / 2;
  const int chromaHeight = (height + 1) / 2;
  out->strides[0] = width;
  out->strides[1] = out->strides[2] = chromaWidth;
  out->planes[0].resize(static_cast<size_t>(width) * height);
  out->planes[1].resize(static_cast<size_t>(chromaWidth) * chromaHeight);
  out->planes[2].resize(static_cast<size_t>(chromaWidth) * chromaHeight);
  scaler_ = sws_getCachedContext(scaler_, picture->width, picture->height,
                                 static_cast<AVPixelFormat>(picture->format), width, height,
                                 AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
  if (!scaler_) {
    const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(picture->format));
    error =
        Error::media(std::string("can't convert pictures of format ") + (name ? name : "unknown"));
    return nullptr;
  }
  uint8_t* planes[4] = {out->planes[0].data(), out->planes[1].data(), out->planes[2].data(),
                        nullptr};
  int strides[4] = {out->strides[0], out->strides[1], out->strides[2], 0};
  if (sws_scale(scaler_, picture->data, picture->linesize, 0, picture->height, planes, strides) <=
      0) {
    error = Error::media("picture conversion failed");
    return nullptr;
  }
  return out;
}

OptionalError FfmpegRawFrameReader::samples(const RawMediaFrame& frame,
                                            std::vector<int16_t>& samples, int& channels) {
  const AVFrame* audio = frame.avFrame();
  samples.clear();
  if (frame.kind() != RawMediaFrame::Kind::Audio || !audio || audio->nb_samples <= 0) {
    return Error::invalidArgument("not an audio frame");
  }
  channels = audio->ch_layout.nb_channels;
  if (channels <= 0) return Error::media("audio frame without channels");
  if (audio->format == AV_SAMPLE_FMT_S16) {
    const auto* from = reinterpret_cast<const int16_t*>(audio->data[0]);
    samples.assign(from, from + static_cast<size_t>(audio->nb_samples) * channels);
    return std::nullopt;
  }
  if (!resampler_ || resamplerFormat_ != audio->format || resamplerRate_ != audio->sample_rate ||
      resamplerChannels_ != channels) {
    swr_free(&resampler_);
    // Same rate and layout, only the sample format changes.
    AVChannelLayout layout = audio->ch_layout;
    int rc = swr_alloc_set_opts2(&resampler_, &layout, AV_SAMPLE_FMT_S16, audio->sample_rate,
                                 &layout, static_cast<AVSampleFormat>(audio->format),
                                 audio->sample_rate, 0, nullptr);
    if (rc >= 0) rc = swr_init(resampler_);
    if (rc < 0) {
      swr_free(&resampler_);
      return Error::media("can't convert audio samples: " + avErrorText(rc));
    }
    resamplerFormat_ = audio->format;
    resamplerRate_ = audio->sample_rate;
    resamplerChannels_ = channels;
  }
  samples.resize(static_cast<size_t>(audio->nb_samples) * channels);
  uint8_t* out[1] = {reinterpret_cast<uint8_t*>(samples.data())};
  const int converted =
      swr_convert(resampler_, out, audio->nb_samples,
                  const_cast<const uint8_t**>(audio->extended_data), audio->nb_samples);
  if (converted < 0) return Error::media("can't convert audio samples: " + avErrorText(converted));
  samples.resize(static_cast<size_t>(converted) * channels);
  return std::nullopt;
}

OptionalError FfmpegRawFrameReader::encodeJpeg(const VideoFrame& picture, int quality,
                                               std::vector<uint8_t>& jpeg) {
  if (picture.width <= 0 || picture.height <= 0) return Error::invalidArgument("empty picture");
  AvFrame frame = allocateAvPicture(AV_PIX_FMT_YUVJ420P, picture.width, picture.height);
  if (!frame) return Error::internal("out of memory for a JPEG picture");
  const int widths[3] = {picture.width, (picture.width + 1) / 2, (picture.width + 1) / 2};
  const int heights[3] = {picture.height, (picture.height + 1) / 2, (picture.height + 1) / 2};
  for (int plane = 0; plane < 3; ++plane) {
    if (picture.planes[plane].size() <
        static_cast<size_t>(picture.strides[plane]) * (heights[plane] - 1) + widths[plane]) {
      return Error::invalidArgument("picture planes smaller than its size");
    }
    for (int row = 0; row < heights[plane]; ++row) {
      std::copy_n(picture.planes[plane].data() + static_cast<size_t>(row) * picture.strides[plane],
                  widths[plane],
                  frame->data[plane] + static_cast<ptrdiff_t>(row) * frame->linesize[plane]);
    }
  }
  return encodeAvJpeg(*frame, quality, jpeg);
}

}  // namespace nembra
