#include "platform/ffmpeg/ffmpeg_x264_encoder.h"

#include <cmath>
#include <string>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/media/media_encoder_h264_units.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace nembra {

std::unique_ptr<MediaEncoderX264> MediaEncoderX264::create(const VideoEncoderSettings& settings,
                                                           OptionalError& error) {
  if (settings.width <= 0 || settings.height <= 0 || settings.width % 2 || settings.height % 2) {
    error = Error::invalidArgument("video size must be positive and even, not " +
                                   std::to_string(settings.width) + "x" +
                                   std::to_string(settings.height));
    return nullptr;
  }
  if (settings.framerate <= 0 || settings.bitrate <= 0) {
    error = Error::invalidArgument("frame rate and bitrate must be positive");
    return nullptr;
  }
  std::unique_ptr<MediaEncoderX264> encoder(new MediaEncoderX264(settings));
  error = encoder->open();
  if (error) encoder.reset();
  return encoder;
}

MediaEncoderX264::~MediaEncoderX264() {
  sws_freeContext(scaler_);
  av_packet_free(&packet_);
  av_frame_free(&scaled_);
  avcodec_free_context(&context_);
}

OptionalError MediaEncoderX264::open() {
  const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
  if (!codec) return Error::media("this FFmpeg has no libx264 encoder");
  context_ = avcodec_alloc_context3(codec);
  scaled_ = av_frame_alloc();
  packet_ = av_packet_alloc();
  if (!context_ || !scaled_ || !packet_) return Error::internal("out of memory opening libx264");

  context_->width = settings_.width;
  context_->height = settings_.height;
  context_->pix_fmt = AV_PIX_FMT_YUV420P;
  context_->time_base = {1, settings_.framerate};
  context_->framerate = {settings_.framerate, 1};
  context_->bit_rate = settings_.bitrate;
  context_->gop_size = settings_.framerate * 2;
  context_->max_b_frames = 0;
  // Parameter sets go to the extradata instead of in front of every key frame: the streamer
  // places them itself.
  context_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av_opt_set(context_->priv_data, "profile", "baseline", 0);
  av_opt_set(context_->priv_data, "preset", kPreset, 0);
  av_opt_set(context_->priv_data, "tune", "zerolatency", 0);
  const int rc = avcodec_open2(context_, codec, nullptr);
  if (rc < 0) return Error::media("can't open libx264: " + avErrorText(rc));

  std::vector<uint8_t> ignored;
  h264::repackAccessUnit(
      h264::splitAnnexB({context_->extradata, static_cast<size_t>(context_->extradata_size)}),
      ignored, sps_, pps_);
  if (sps_.empty() || pps_.empty()) return Error::media("libx264 gave no parameter sets");

  scaled_->format = AV_PIX_FMT_YUV420P;
  scaled_->width = settings_.width;
  scaled_->height = settings_.height;
  if (av_frame_get_buffer(scaled_, 0) < 0) return Error::internal("out of memory for pictures");
  return std::nullopt;
}

OptionalError MediaEncoderX264::encode(const RawMediaFrame& frame, double pts,
                                       std::vector<EncodedVideoSample>& out) {
  const AVFrame* source = frame.avFrame();
  if (!source || frame.kind() != RawMediaFrame::Kind::Video) {
    return Error::invalidArgument("the video encoder takes pictures only");
  }
  const AVFrame* input = source;
  if (source->format != AV_PIX_FMT_YUV420P || source->width != settings_.width ||
      source->height != settings_.height) {
    scaler_ = sws_getCachedContext(scaler_, source->width, source->height,
                                   static_cast<AVPixelFormat>(source->format), settings_.width,
                                   settings_.height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                   nullptr, nullptr);
    if (!scaler_) return Error::media("can't convert the pictures for libx264");
    if (av_frame_make_writable(scaled_) < 0) return Error::internal("out of memory for pictures");
    sws_scale(scaler_, source->data, source->linesize, 0, source->height, scaled_->data,
              scaled_->linesize);
    input = scaled_;
  }
  // libx264 wants a frame index on its own time base; the caller's stamp rides along beside it.
  AVFrame* stamped = av_frame_clone(input);
  if (!stamped) return Error::internal("out of memory for pictures");
  stamped->pts = nextFrameIndex_++;
  stamped->pict_type = AV_PICTURE_TYPE_NONE;
  stamps_.emplace_back(stamped->pts, pts);
  OptionalError error = send(stamped, out);
  av_frame_free(&stamped);
  return error;
}

OptionalError MediaEncoderX264::flush(std::vector<EncodedVideoSample>& out) {
  return send(nullptr, out);
}

OptionalError MediaEncoderX264::send(const AVFrame* frame, std::vector<EncodedVideoSample>& out) {
  int rc = avcodec_send_frame(context_, frame);
  if (rc < 0 && rc != AVERROR_EOF)
    return Error::media("libx264 refused a picture: " + avErrorText(rc));
  for (;;) {
    rc = avcodec_receive_packet(context_, packet_);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::nullopt;
    if (rc < 0) return Error::media("libx264 failed: " + avErrorText(rc));
    EncodedVideoSample sample;
    h264::repackAccessUnit(h264::splitAnnexB({packet_->data, static_cast<size_t>(packet_->size)}),
                           sample.data, sps_, pps_);
    sample.sps = sps_;
    sample.pps = pps_;
    sample.keyFrame = (packet_->flags & AV_PKT_FLAG_KEY) != 0;
    while (!stamps_.empty() && stamps_.front().first < packet_->pts) stamps_.pop_front();
    if (!stamps_.empty() && stamps_.front().first == packet_->pts) {
      sample.pts = stamps_.front().second;
      stamps_.pop_front();
    } else {
      sample.pts = static_cast<double>(packet_->pts) / settings_.framerate;
    }
    av_packet_unref(packet_);
    if (!sample.data.empty()) out.push_back(std::move(sample));
  }
}

}  // namespace nembra
