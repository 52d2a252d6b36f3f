#include "platform/ffmpeg/ffmpeg_aac_encoder.h"

#include <algorithm>
#include <string>

#include "platform/ffmpeg/ffmpeg_av_support.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace nembra {

namespace {

constexpr int kFrameSamples = 1024;

}  // namespace

std::unique_ptr<MediaEncoderAAC> MediaEncoderAAC::create(const AudioEncoderSettings& settings,
                                                         OptionalError& error) {
  if (settings.sampleRate <= 0 || settings.channels <= 0 || settings.channels > 8 ||
      settings.bitrate <= 0) {
    error = Error::invalidArgument("AAC needs a positive rate and bitrate and 1 to 8 channels");
    return nullptr;
  }
  std::unique_ptr<MediaEncoderAAC> encoder(new MediaEncoderAAC(settings));
  error = encoder->open();
  if (error) encoder.reset();
  return encoder;
}

MediaEncoderAAC::~MediaEncoderAAC() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  if (fifo_) av_audio_fifo_free(fifo_);
  swr_free(&resampler_);
  avcodec_free_context(&context_);
}

OptionalError MediaEncoderAAC::open() {
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (!codec) return Error::media("this FFmpeg has no aac encoder");
  context_ = avcodec_alloc_context3(codec);
  frame_ = av_frame_alloc();
  packet_ = av_packet_alloc();
  if (!context_ || !frame_ || !packet_) return Error::internal("out of memory opening aac");
  context_->sample_rate = settings_.sampleRate;
  context_->sample_fmt = AV_SAMPLE_FMT_FLTP;
  av_channel_layout_default(&context_->ch_layout, settings_.channels);
  context_->bit_rate = settings_.bitrate;
  context_->time_base = {1, settings_.sampleRate};
  context_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  int rc = avcodec_open2(context_, codec, nullptr);
  if (rc < 0) return Error::media("can't open the aac encoder: " + avErrorText(rc));
  if (context_->frame_size != kFrameSamples) {
    return Error::media("the aac encoder wants " + std::to_string(context_->frame_size) +
                        " samples per frame");
  }
  if (context_->extradata_size >= 2) asc_ = {context_->extradata[0], context_->extradata[1]};
  fifo_ = av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, settings_.channels, kFrameSamples * 4);
  if (!fifo_) return Error::internal("out of memory opening aac");
  return std::nullopt;
}

OptionalError MediaEncoderAAC::configureResampler(const AVFrame* frame) {
  if (resampler_ && frame->format == inputFormat_ && frame->sample_rate == inputRate_ &&
      frame->ch_layout.nb_channels == inputChannels_) {
    return std::nullopt;
  }
  swr_free(&resampler_);
  AVChannelLayout inputLayout{};
  if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
    av_channel_layout_default(&inputLayout, frame->ch_layout.nb_channels);
  } else {
    av_channel_layout_copy(&inputLayout, &frame->ch_layout);
  }
  const int rc = swr_alloc_set_opts2(
      &resampler_, &context_->ch_layout, AV_SAMPLE_FMT_FLTP, settings_.sampleRate, &inputLayout,
      static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
  av_channel_layout_uninit(&inputLayout);
  if (rc < 0 || swr_init(resampler_) < 0) {
    swr_free(&resampler_);
    return Error::media("can't convert " + std::to_string(frame->sample_rate) +
                        " Hz audio for aac");
  }
  inputFormat_ = frame->format;
  inputRate_ = frame->sample_rate;
  inputChannels_ = frame->ch_layout.nb_channels;
  return std::nullopt;
}

OptionalError MediaEncoderAAC::encode(const RawMediaFrame& frame,
                                      std::vector<EncodedAudioSample>& out) {
  const AVFrame* source = frame.avFrame();
  if (!source || frame.kind() != RawMediaFrame::Kind::Audio || source->sample_rate <= 0 ||
      source->ch_layout.nb_channels <= 0) {
    return Error::invalidArgument("the audio encoder takes PCM only");
  }
  if (OptionalError error = configureResampler(source)) return error;
  if (!firstPts_) firstPts_ = frame.pts();

  const int capacity = swr_get_out_samples(resampler_, source->nb_samples);
  if (capacity < 0) return Error::media("can't convert audio for aac");
  uint8_t** converted = nullptr;
  if (av_samples_alloc_array_and_samples(&converted, nullptr, settings_.channels,
                                         std::max(capacity, 1), AV_SAMPLE_FMT_FLTP, 0) < 0) {
    return Error::internal("out of memory for audio");
  }
  const int produced =
      swr_convert(resampler_, converted, capacity,
                  const_cast<const uint8_t**>(source->extended_data), source->nb_samples);
  OptionalError error;
  if (produced < 0) {
    error = Error::media("can't convert audio for aac");
  } else if (produced > 0 &&
             av_audio_fifo_write(fifo_, reinterpret_cast<void**>(converted), produced) < produced) {
    error = Error::internal("out of memory for audio");
  }
  av_freep(&converted[0]);
  av_freep(&converted);
  if (error) return error;
  return encodeBuffered(false, out);
}

OptionalError MediaEncoderAAC::flush(std::vector<EncodedAudioSample>& out) {
  if (OptionalError error = encodeBuffered(true, out)) return error;
  const int rc = avcodec_send_frame(context_, nullptr);
  if (rc < 0 && rc != AVERROR_EOF) return Error::media("aac refused to drain: " + avErrorText(rc));
  return receive(out);
}

OptionalError MediaEncoderAAC::encodeBuffered(bool drain, std::vector<EncodedAudioSample>& out) {
  for (;;) {
    const int available = av_audio_fifo_size(fifo_);
    if (available == 0 || (available < kFrameSamples && !drain)) return std::nullopt;
    const int count = std::min(available, kFrameSamples);
    av_frame_unref(frame_);
    frame_->nb_samples = count;
    frame_->format = AV_SAMPLE_FMT_FLTP;
    frame_->sample_rate = settings_.sampleRate;
    av_channel_layout_copy(&frame_->ch_layout, &context_->ch_layout);
    if (av_frame_get_buffer(frame_, 0) < 0) return Error::internal("out of memory for audio");
    if (av_audio_fifo_read(fifo_, reinterpret_cast<void**>(frame_->data), count) < count) {
      return Error::internal("audio buffer underrun");
    }
    frame_->pts = samplesQueued_;
    samplesQueued_ += count;
    const int rc = avcodec_send_frame(context_, frame_);
    if (rc < 0) return Error::media("aac refused audio: " + avErrorText(rc));
    if (OptionalError error = receive(out)) return error;
  }
}

OptionalError MediaEncoderAAC::receive(std::vector<EncodedAudioSample>& out) {
  for (;;) {
    const int rc = avcodec_receive_packet(context_, packet_);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::nullopt;
    if (rc < 0) return Error::media("aac failed: " + avErrorText(rc));
    EncodedAudioSample sample;
    sample.data.assign(packet_->data, packet_->data + packet_->size);
    sample.asc = asc_;
    // The encoder's priming delay makes the first packets start before the first sample.
    sample.pts = std::max(
        0.0, firstPts_.value_or(0.0) + static_cast<double>(packet_->pts) / settings_.sampleRate);
    av_packet_unref(packet_);
    out.push_back(std::move(sample));
  }
}

}  // namespace nembra
