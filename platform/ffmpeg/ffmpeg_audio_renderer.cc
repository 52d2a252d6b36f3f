#include "platform/ffmpeg/ffmpeg_audio_renderer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

namespace nembra::player {

AudioRenderer::AudioRenderer(FrameQueue& frames, const PacketQueue& packets, Clock& clock,
                             std::function<void()> afterFill)
    : frames_(frames), packets_(packets), clock_(clock), afterFill_(std::move(afterFill)) {}

AudioRenderer::~AudioRenderer() {
  stop();
  swr_free(&resampler_);
}

OptionalError AudioRenderer::start(AudioOutput& output, int sampleRate, int channels) {
  AudioSpec wanted;
  wanted.sampleRate = sampleRate > 0 ? sampleRate : 48000;
  wanted.channels = std::clamp(channels, 1, 2);
  output_ = &output;
  if (auto error =
          output.start(wanted, [this](int16_t* samples, size_t count) { fill(samples, count); })) {
    output_ = nullptr;
    return error;
  }
  spec_ = output.spec();
  return std::nullopt;
}

void AudioRenderer::stop() {
  if (output_) output_->stop();
  output_ = nullptr;
}

bool AudioRenderer::drained(int serial) const {
  return drainedSerial_.load() == serial && frames_.size() == 0;
}

double AudioRenderer::starvedFor() const {
  const double since = emptySince_.load();
  return since < 0 ? 0 : Clock::now() - since;
}

bool AudioRenderer::nextChunk(int serial) {
  for (;;) {
    DecodedFrame* decoded = frames_.peek();
    if (!decoded) return false;
    if (decoded->serial != serial) {
      frames_.pop();  // from before a seek
      continue;
    }
    const AVFrame& frame = *decoded->frame;
    const uint64_t layout =
        frame.ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? frame.ch_layout.u.mask : 0;
    if (!resampler_ || frame.sample_rate != resamplerRate_ || frame.format != resamplerFormat_ ||
        layout != resamplerLayout_ || frame.ch_layout.nb_channels != resamplerChannels_) {
      swr_free(&resampler_);
      AVChannelLayout outLayout;
      av_channel_layout_default(&outLayout, spec_.channels);
      int rc = swr_alloc_set_opts2(&resampler_, &outLayout, AV_SAMPLE_FMT_S16, spec_.sampleRate,
                                   const_cast<AVChannelLayout*>(&frame.ch_layout),
                                   static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0,
                                   nullptr);
      av_channel_layout_uninit(&outLayout);
      if (rc < 0 || swr_init(resampler_) < 0) {
        swr_free(&resampler_);
        frames_.pop();  // unplayable: skipped, the clock runs on
        continue;
      }
      resamplerRate_ = frame.sample_rate;
      resamplerFormat_ = frame.format;
      resamplerLayout_ = layout;
      resamplerChannels_ = frame.ch_layout.nb_channels;
    }
    const int capacity = swr_get_out_samples(resampler_, frame.nb_samples);
    pending_.resize(static_cast<size_t>(std::max(capacity, 0)) * spec_.channels);
    uint8_t* out = reinterpret_cast<uint8_t*>(pending_.data());
    const int converted =
        swr_convert(resampler_, &out, capacity, const_cast<const uint8_t**>(frame.extended_data),
                    frame.nb_samples);
    pending_.resize(static_cast<size_t>(std::max(converted, 0)) * spec_.channels);
    pendingFrom_ = 0;
    const double end =
        std::isnan(decoded->pts) ? chunkEnd_ + decoded->duration : decoded->pts + decoded->duration;
    chunkEnd_ = end;
    chunkSerial_ = serial;
    frames_.pop();
    return true;
  }
}

void AudioRenderer::fill(int16_t* samples, size_t count) {
  const double calledAt = Clock::now();
  const double bufferedBefore = output_ ? output_->bufferedSeconds() : 0;
  const int serial = packets_.serial();
  if (chunkSerial_ != serial) pending_.clear();
  const size_t channels = static_cast<size_t>(spec_.channels);
  const size_t wanted = count * channels;
  size_t written = 0;
  const bool muted = muted_.load();
  while (written < wanted) {
    if (pendingFrom_ >= pending_.size() && !nextChunk(serial)) break;
    const size_t n = std::min(wanted - written, pending_.size() - pendingFrom_);
    if (muted) {
      std::memset(samples + written, 0, n * sizeof(int16_t));
    } else {
      std::memcpy(samples + written, pending_.data() + pendingFrom_, n * sizeof(int16_t));
    }
    written += n;
    pendingFrom_ += n;
  }
  std::memset(samples + written, 0, (wanted - written) * sizeof(int16_t));
  if (written == 0 && handedSerial_.load() == serial) {
    // Nothing to play: the last sound handed over has been heard, and the clock holds there
    // instead of running ahead of the sound.
    clock_.setAt(handedUntil_.load() - bufferedBefore, serial, calledAt);
  }
  if (written > 0) {
    emptySince_.store(-1);
  } else if (emptySince_.load() < 0) {
    emptySince_.store(calledAt);
  }
  if (written > 0 && chunkSerial_ == serial) {
    const double rate = spec_.sampleRate;
    const double stillPending = static_cast<double>(pending_.size() - pendingFrom_) / channels;
    const double handedEnd = chunkEnd_ - stillPending / rate;
    const double heardNow =
        handedEnd - static_cast<double>(written / channels) / rate - bufferedBefore;
    clock_.setAt(heardNow, serial, calledAt);
    handedUntil_.store(handedEnd);
    handedSerial_.store(serial);
  }
  drainedSerial_.store(pendingFrom_ >= pending_.size() ? serial : -1);
  if (afterFill_) afterFill_();
}

}  // namespace nembra::player
