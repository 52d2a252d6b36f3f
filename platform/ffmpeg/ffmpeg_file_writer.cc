#include "platform/ffmpeg/ffmpeg_file_writer.h"

#include <cmath>
#include <vector>

#include "platform/dispatch/thread_name.h"
#include "platform/ffmpeg/ffmpeg_av_support.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace nembra {

namespace {

constexpr AVRational kVideoTimeBase{1, 1000};
// How far (in frames) a picture may stray from its slot before it is dropped or the gap before
// it filled: arrival times jitter by a fraction of a frame.
constexpr double kSlotTolerance = 1.1;
// Pictures waiting for the encoder: enough to ride out a busy moment. A capture thread that
// finds the queue full waits (a screen grab then catches up by itself).
constexpr size_t kQueuedPictures = 8;

// RMS of interleaved or planar samples in dBFS.
float rmsDecibels(const AVFrame& frame) {
  const auto format = static_cast<AVSampleFormat>(frame.format);
  const int channels = frame.ch_layout.nb_channels;
  const bool planar = av_sample_fmt_is_planar(format);
  const int planes = planar ? channels : 1;
  const int perPlane = planar ? frame.nb_samples : frame.nb_samples * channels;
  double sum = 0;
  int64_t count = 0;
  for (int p = 0; p < planes; ++p) {
    for (int i = 0; i < perPlane; ++i) {
      double v = 0;
      switch (av_get_packed_sample_fmt(format)) {
        case AV_SAMPLE_FMT_S16:
          v = reinterpret_cast<const int16_t*>(frame.extended_data[p])[i] / 32768.0;
          break;
        case AV_SAMPLE_FMT_S32:
          v = reinterpret_cast<const int32_t*>(frame.extended_data[p])[i] / 2147483648.0;
          break;
        case AV_SAMPLE_FMT_FLT:
          v = reinterpret_cast<const float*>(frame.extended_data[p])[i];
          break;
        default:
          continue;
      }
      sum += v * v;
      ++count;
    }
  }
  if (count == 0 || sum <= 0) return -160.0f;
  return std::max(-160.0f, static_cast<float>(10.0 * std::log10(sum / count)));
}

}  // namespace

std::unique_ptr<FfmpegFileWriter> FfmpegFileWriter::create(const MediaFileWriterSettings& settings,
                                                           OptionalError& error) {
  std::unique_ptr<FfmpegFileWriter> writer(new FfmpegFileWriter(settings));
  error = writer->open();
  if (error) return nullptr;
  return writer;
}

void FfmpegFileWriter::stopVideoThread() {
  {
    std::lock_guard lock(mutex_);
    stopEncoding_ = true;
  }
  queueChanged_.notify_all();
  if (videoThread_.joinable()) videoThread_.join();
}

FfmpegFileWriter::~FfmpegFileWriter() {
  stopVideoThread();
  for (QueuedPicture& queued : queue_) av_frame_free(&queued.picture);
  if (format_) {
    if (format_->pb) avio_closep(&format_->pb);
    avformat_free_context(format_);
  }
  avcodec_free_context(&video_);
  avcodec_free_context(&audio_);
  av_packet_free(&packet_);
  av_packet_free(&videoPacket_);
  av_frame_free(&picture_);
  av_frame_free(&block_);
  sws_freeContext(scaler_);
  swr_free(&resampler_);
  if (fifo_) av_audio_fifo_free(fifo_);
}

Error FfmpegFileWriter::failure(const std::string& what, int code) {
  const std::string text = what + " " + settings_.path + ": " + avErrorText(code);
  return code == AVERROR(ENOSPC) || code == AVERROR(EACCES) || code == AVERROR(ENOENT) ||
                 code == AVERROR(EIO)
             ? Error::file(text, AVUNERROR(code))
             : Error::media(text);
}

OptionalError FfmpegFileWriter::open() {
  if (settings_.width <= 0 && settings_.audioCodec.empty()) {
    return Error::invalidArgument("a media file needs pictures or sound");
  }
  int rc = avformat_alloc_output_context2(&format_, nullptr, settings_.container.c_str(),
                                          settings_.path.c_str());
  if (rc < 0 || !format_) return Error::media("no " + settings_.container + " muxer");
  packet_ = av_packet_alloc();
  videoPacket_ = av_packet_alloc();
  if (!packet_ || !videoPacket_) return Error::internal("out of memory");
  if (settings_.width > 0) {
    if (auto error = openVideo()) return error;
  }
  if (!settings_.audioCodec.empty()) {
    if (auto error = openAudio()) return error;
  }
  rc = avio_open(&format_->pb, settings_.path.c_str(), AVIO_FLAG_WRITE);
  if (rc < 0) return failure("can't create", rc);
  rc = avformat_write_header(format_, nullptr);
  if (rc < 0) return failure("can't write to", rc);
  headerWritten_ = true;
  if (video_) videoThread_ = std::thread([this] { encodePictures(); });
  return std::nullopt;
}

OptionalError FfmpegFileWriter::openVideo() {
  const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
  if (!codec) return Error::media("this FFmpeg has no libx264 encoder");
  video_ = avcodec_alloc_context3(codec);
  if (!video_) return Error::internal("out of memory");
  // 4:2:0 wants even sides.
  video_->width = settings_.width & ~1;
  video_->height = settings_.height & ~1;
  video_->pix_fmt = AV_PIX_FMT_YUV420P;
  video_->time_base = kVideoTimeBase;
  video_->framerate = {settings_.frameRate, 1};
  video_->gop_size = settings_.frameRate * 2;
  if (format_->oformat->flags & AVFMT_GLOBALHEADER) video_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av_opt_set(video_->priv_data, "preset", "veryfast", 0);
  // libavcodec's default is one thread, which a 1080p screen at 30 frames/s outruns.
  video_->thread_count = 0;
  int rc = avcodec_open2(video_, codec, nullptr);
  if (rc < 0) return Error::media("can't open the H.264 encoder: " + avErrorText(rc));
  videoStream_ = avformat_new_stream(format_, nullptr);
  if (!videoStream_) return Error::internal("out of memory");
  videoStream_->time_base = kVideoTimeBase;
  avcodec_parameters_from_context(videoStream_->codecpar, video_);
  picture_ = av_frame_alloc();
  if (!picture_) return Error::internal("out of memory");
  picture_->format = video_->pix_fmt;
  picture_->width = video_->width;
  picture_->height = video_->height;
  rc = av_frame_get_buffer(picture_, 0);
  if (rc < 0) return Error::internal("out of memory");
  return std::nullopt;
}

OptionalError FfmpegFileWriter::openAudio() {
  const AVCodec* codec = avcodec_find_encoder_by_name(settings_.audioCodec.c_str());
  if (!codec) return Error::media("this FFmpeg has no " + settings_.audioCodec + " encoder");
  audio_ = avcodec_alloc_context3(codec);
  if (!audio_) return Error::internal("out of memory");
  // 16-bit when the codec takes it (ALAC does): a microphone gives no more.
  audio_->sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
  for (const AVSampleFormat* f = codec->sample_fmts; f && *f != AV_SAMPLE_FMT_NONE; ++f) {
    if (*f == AV_SAMPLE_FMT_S16P) audio_->sample_fmt = *f;
  }
  audio_->sample_rate = settings_.sampleRate;
  av_channel_layout_default(&audio_->ch_layout, settings_.channels);
  audio_->time_base = {1, settings_.sampleRate};
  if (settings_.audioBitRate > 0) audio_->bit_rate = settings_.audioBitRate;
  if (format_->oformat->flags & AVFMT_GLOBALHEADER) audio_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  int rc = avcodec_open2(audio_, codec, nullptr);
  if (rc < 0) {
    return Error::media("can't open the " + settings_.audioCodec + " encoder: " + avErrorText(rc));
  }
  audioStream_ = avformat_new_stream(format_, nullptr);
  if (!audioStream_) return Error::internal("out of memory");
  audioStream_->time_base = audio_->time_base;
  avcodec_parameters_from_context(audioStream_->codecpar, audio_);
  fifo_ = av_audio_fifo_alloc(audio_->sample_fmt, settings_.channels, 4096);
  block_ = av_frame_alloc();
  if (!fifo_ || !block_) return Error::internal("out of memory");
  return std::nullopt;
}

int64_t FfmpegFileWriter::slotPts(int64_t slot) const {
  return std::llround(static_cast<double>(slot) * 1000.0 / settings_.frameRate);
}

OptionalError FfmpegFileWriter::encode(AVCodecContext* codec, AVStream* stream, AVFrame* frame,
                                       AVPacket* packet) {
  int rc = avcodec_send_frame(codec, frame);
  if (rc < 0 && rc != AVERROR_EOF) return failure("can't encode for", rc);
  for (;;) {
    rc = avcodec_receive_packet(codec, packet);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::nullopt;
    if (rc < 0) return failure("can't encode for", rc);
    av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
    packet->stream_index = stream->index;
    std::lock_guard mux(muxMutex_);
    rc = av_interleaved_write_frame(format_, packet);
    if (rc < 0) return failure("can't write to", rc);
  }
}

OptionalError FfmpegFileWriter::appendVideo(const RawMediaFrame& frame, double seconds) {
  std::unique_lock lock(mutex_);
  if (failed_) return failed_;
  if (!video_ || finished_ || frame.kind() != RawMediaFrame::Kind::Video) return std::nullopt;
  const AVFrame* source = frame.avFrame();
  if (seconds <= lastSeconds_) return std::nullopt;
  lastSeconds_ = seconds;
  // The movie keeps a constant frame rate: each picture takes the next slot of 1/frameRate s. A
  // picture more than a slot early (two arrived close together) is dropped; one late by more
  // than a slot (the machine was busy) also fills the slots before it that no picture took, so
  // that the movie neither runs fast nor loses time. The file starts at 0 with its first
  // picture.
  const double ideal = seconds * settings_.frameRate;
  int64_t first = nextSlot_ < 0 ? 0 : nextSlot_;
  int64_t slot = first;
  if (nextSlot_ < 0 || ideal > static_cast<double>(nextSlot_) + kSlotTolerance) {
    slot = std::max<int64_t>(first, std::llround(ideal));
  } else if (ideal < static_cast<double>(nextSlot_) - kSlotTolerance) {
    return std::nullopt;
  }
  AVFrame* picture = av_frame_clone(source);
  if (!picture) return failed_ = Error::internal("out of memory");
  nextSlot_ = slot + 1;
  queueChanged_.wait(lock, [this] { return queue_.size() < kQueuedPictures || failed_; });
  if (failed_) {
    av_frame_free(&picture);
    return failed_;
  }
  queue_.push_back({picture, first, slot});
  videoFrames_ += slot - first + 1;
  queueChanged_.notify_all();
  return std::nullopt;
}

void FfmpegFileWriter::encodePictures() {
  setCurrentThreadName("com.nembra.fileWriter.video");
  std::unique_lock lock(mutex_);
  for (;;) {
    queueChanged_.wait(lock, [this] { return !queue_.empty() || stopEncoding_; });
    if (queue_.empty()) return;
    QueuedPicture queued = queue_.front();
    queue_.pop_front();
    queueChanged_.notify_all();
    if (!failed_) {
      lock.unlock();
      OptionalError error = encodePicture(queued.picture, queued.firstSlot, queued.lastSlot);
      lock.lock();
      if (error && !failed_) {
        failed_ = error;
        queueChanged_.notify_all();
      }
    }
    av_frame_free(&queued.picture);
  }
}

OptionalError FfmpegFileWriter::encodePicture(AVFrame* source, int64_t first, int64_t slot) {
  if (!scaler_ || scalerFormat_ != source->format || scalerWidth_ != source->width ||
      scalerHeight_ != source->height) {
    sws_freeContext(scaler_);
    scaler_ = sws_getContext(
        source->width, source->height, static_cast<AVPixelFormat>(source->format), video_->width,
        video_->height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!scaler_) return Error::media("can't convert the pictures to 4:2:0");
    scalerFormat_ = source->format;
    scalerWidth_ = source->width;
    scalerHeight_ = source->height;
  }
  int rc = av_frame_make_writable(picture_);
  if (rc < 0) return Error::internal("out of memory");
  sws_scale(scaler_, source->data, source->linesize, 0, source->height, picture_->data,
            picture_->linesize);
  for (int64_t taken = first; taken <= slot; ++taken) {
    picture_->pts = slotPts(taken);
    if (auto error = encode(video_, videoStream_, picture_, videoPacket_)) return error;
  }
  return std::nullopt;
}

OptionalError FfmpegFileWriter::appendAudio(const RawMediaFrame& frame) {
  std::lock_guard lock(mutex_);
  if (failed_) return failed_;
  if (!audio_ || finished_ || frame.kind() != RawMediaFrame::Kind::Audio) return std::nullopt;
  const AVFrame* source = frame.avFrame();
  if (!resampler_ || resamplerFormat_ != source->format || resamplerRate_ != source->sample_rate ||
      resamplerChannels_ != source->ch_layout.nb_channels) {
    swr_free(&resampler_);
    AVChannelLayout inputLayout;
    if (source->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
      av_channel_layout_default(&inputLayout, source->ch_layout.nb_channels);
    } else {
      av_channel_layout_copy(&inputLayout, &source->ch_layout);
    }
    int rc = swr_alloc_set_opts2(
        &resampler_, &audio_->ch_layout, audio_->sample_fmt, audio_->sample_rate, &inputLayout,
        static_cast<AVSampleFormat>(source->format), source->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&inputLayout);
    if (rc < 0 || swr_init(resampler_) < 0) {
      return failed_ = Error::media("can't convert the sound for " + settings_.path);
    }
    resamplerFormat_ = source->format;
    resamplerRate_ = source->sample_rate;
    resamplerChannels_ = source->ch_layout.nb_channels;
  }
  const int capacity = swr_get_out_samples(resampler_, source->nb_samples);
  AVFrame* converted = av_frame_alloc();
  if (!converted) return failed_ = Error::internal("out of memory");
  struct Free {
    AVFrame* f;
    ~Free() { av_frame_free(&f); }
  } freeConverted{converted};
  converted->format = audio_->sample_fmt;
  converted->sample_rate = audio_->sample_rate;
  av_channel_layout_copy(&converted->ch_layout, &audio_->ch_layout);
  converted->nb_samples = std::max(capacity, 1);
  if (av_frame_get_buffer(converted, 0) < 0) return failed_ = Error::internal("out of memory");
  const int produced =
      swr_convert(resampler_, converted->extended_data, converted->nb_samples,
                  const_cast<const uint8_t**>(source->extended_data), source->nb_samples);
  if (produced < 0) return failed_ = Error::media("can't convert the sound for " + settings_.path);
  converted->nb_samples = produced;
  if (produced > 0) {
    level_ = rmsDecibels(*converted);
    if (av_audio_fifo_write(fifo_, reinterpret_cast<void**>(converted->extended_data), produced) <
        produced) {
      return failed_ = Error::internal("out of memory");
    }
    audioQueued_ += produced;
  }
  if (auto error = encodeAudioFifo(false)) return failed_ = error;
  return std::nullopt;
}

OptionalError FfmpegFileWriter::encodeAudioFifo(bool drain) {
  const int frameSize = audio_->frame_size > 0 ? audio_->frame_size : 1024;
  const bool shortLast = audio_->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME;
  while (av_audio_fifo_size(fifo_) >= frameSize || (drain && av_audio_fifo_size(fifo_) > 0)) {
    const int available = av_audio_fifo_size(fifo_);
    const int take = std::min(available, frameSize);
    av_frame_unref(block_);
    block_->format = audio_->sample_fmt;
    block_->sample_rate = audio_->sample_rate;
    av_channel_layout_copy(&block_->ch_layout, &audio_->ch_layout);
    // A codec that wants whole frames gets the last one padded with silence.
    block_->nb_samples = take < frameSize && !shortLast ? frameSize : take;
    if (av_frame_get_buffer(block_, 0) < 0) return Error::internal("out of memory");
    if (block_->nb_samples > take) {
      av_samples_set_silence(block_->extended_data, 0, block_->nb_samples, settings_.channels,
                             audio_->sample_fmt);
    }
    av_audio_fifo_read(fifo_, reinterpret_cast<void**>(block_->extended_data), take);
    block_->pts = audioEncoded_;
    audioEncoded_ += block_->nb_samples;
    if (auto error = encode(audio_, audioStream_, block_, packet_)) return error;
  }
  return std::nullopt;
}

OptionalError FfmpegFileWriter::finish() {
  {
    std::lock_guard lock(mutex_);
    if (finished_) return failed_;
    finished_ = true;
  }
  // Every picture handed over is encoded before the encoders are drained.
  stopVideoThread();
  std::lock_guard lock(mutex_);
  if (!failed_ && audio_) {
    failed_ = encodeAudioFifo(true);
    if (!failed_) failed_ = encode(audio_, audioStream_, nullptr, packet_);
  }
  if (!failed_ && video_) failed_ = encode(video_, videoStream_, nullptr, videoPacket_);
  if (headerWritten_) {
    const int rc = av_write_trailer(format_);
    if (rc < 0 && !failed_) failed_ = failure("can't finish", rc);
  }
  if (format_->pb) {
    const int rc = avio_closep(&format_->pb);
    if (rc < 0 && !failed_) failed_ = failure("can't close", rc);
  }
  return failed_;
}

int64_t FfmpegFileWriter::videoFramesWritten() const {
  std::lock_guard lock(mutex_);
  return videoFrames_;
}

int64_t FfmpegFileWriter::audioSamplesWritten() const {
  std::lock_guard lock(mutex_);
  return audioQueued_;
}

float FfmpegFileWriter::lastAudioLevel() const {
  std::lock_guard lock(mutex_);
  return level_;
}

}  // namespace nembra
