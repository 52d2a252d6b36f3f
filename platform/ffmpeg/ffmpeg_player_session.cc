#include "platform/ffmpeg/ffmpeg_player_session.h"

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/cpu.h>
}

namespace nembra::player {

namespace {
// How close the clock must come to the end of the last picture or sound for the item to count
// as played to its end.
constexpr double kEndSlack = 0.02;
// How long the sound may run dry before the player counts as waiting: shorter gaps are hiccups
// of a busy machine, not a stalled source.
constexpr double kStarvedAfter = 0.1;
}  // namespace

PlayerSession::PlayerSession(uint64_t id, MediaPlayerItem item,
                             std::shared_ptr<VideoSurface> surface, AudioOutput* output,
                             Listener& listener)
    : id_(id),
      item_(std::move(item)),
      surface_(std::move(surface)),
      output_(output),
      listener_(listener),
      demuxer_(std::make_unique<Demuxer>(item_, videoPackets_, audioPackets_)) {}

PlayerSession::~PlayerSession() { close(); }

void PlayerSession::start(bool paused, bool muted) {
  {
    std::lock_guard lock(mutex_);
    paused_ = paused;
    pausedNow_.store(paused);
    muted_ = muted;
  }
  audioClock_.setPaused(paused);
  videoClock_.setPaused(paused);
  externalClock_.setPaused(paused);
  demuxer_->start(*this);
}

void PlayerSession::close() {
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    closed_ = true;
  }
  // The demux thread makes the other pieces: once it has ended, they are all there to stop.
  demuxer_->stop();
  if (audioRenderer_) audioRenderer_->stop();
  videoPackets_.abort();
  audioPackets_.abort();
  videoFrames_.abort();
  audioFrames_.abort();
  if (videoDecoder_) videoDecoder_->stop();
  if (audioDecoder_) audioDecoder_->stop();
  if (videoRenderer_) videoRenderer_->stop();
}

uint64_t PlayerSession::droppedPictures() {
  std::lock_guard lock(mutex_);
  return videoRenderer_ ? static_cast<uint64_t>(videoRenderer_->droppedCount()) : 0;
}

AvCodecContext PlayerSession::openCodec(AVFormatContext* input, int index, std::string& error) {
  const AVStream* stream = input->streams[index];
  const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
  if (!codec) {
    error = std::string("no decoder for ") + avcodec_get_name(stream->codecpar->codec_id);
    return nullptr;
  }
  AvCodecContext context(avcodec_alloc_context3(codec));
  if (!context) {
    error = "out of memory";
    return nullptr;
  }
  int rc = avcodec_parameters_to_context(context.get(), stream->codecpar);
  if (rc >= 0) {
    context->pkt_timebase = stream->time_base;
    // One thread per core, no more: each frame thread holds pictures of its own, and FFmpeg's
    // automatic choice (cores + 1) adds a whole picture set for little gain.
    context->thread_count =
        stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO ? std::clamp(av_cpu_count(), 1, 4) : 1;
    rc = avcodec_open2(context.get(), codec, nullptr);
  }
  if (rc < 0) {
    error = std::string("can't open the ") + codec->name + " decoder: " + avErrorText(rc);
    return nullptr;
  }
  return context;
}

OptionalError PlayerSession::demuxerOpened(Demuxer::Opened& opened) {
  const std::string name = !item_.name.empty() ? item_.name : item_.path;
  std::string videoError;
  std::string audioError;
  AvCodecContext video;
  AvCodecContext audio;
  if (opened.videoStream >= 0) video = openCodec(opened.input, opened.videoStream, videoError);
  // Without an output the sound is not decoded at all: pictures are timed by the system clock.
  if (opened.audioStream >= 0 && output_) {
    audio = openCodec(opened.input, opened.audioStream, audioError);
  }
  if (!video) opened.videoStream = -1;
  if (!audio) opened.audioStream = -1;
  if (!video && !audio) {
    return Error::media("can't play " + name + ": " +
                        (!videoError.empty()  ? videoError
                         : audioError.empty() ? "no stream to play"
                                              : audioError));
  }

  bool paused;
  {
    std::lock_guard lock(mutex_);
    paused = paused_;
    hasVideo_.store(static_cast<bool>(video));
    if (audio) {
      const AVStream* stream = opened.input->streams[opened.audioStream];
      const int rate = audio->sample_rate;
      const int channels = audio->ch_layout.nb_channels;
      audioDecoder_ = std::make_unique<Decoder>(std::move(audio), stream->time_base,
                                                opened.startTime, 0.0, audioPackets_, audioFrames_);
      audioRenderer_ = std::make_unique<AudioRenderer>(audioFrames_, audioPackets_, audioClock_,
                                                       [this] { afterAudioFill(); });
      audioRenderer_->setMuted(muted_);
      if (audioRenderer_->start(*output_, rate, channels)) {
        // No device: the pictures are timed by the system clock instead.
        audioRenderer_.reset();
        audioDecoder_.reset();
        opened.audioStream = -1;
      }
    }
    if (video) {
      AVStream* stream = opened.input->streams[opened.videoStream];
      const AVRational rate = av_guess_frame_rate(opened.input, stream, nullptr);
      const double frameDuration = rate.num > 0 && rate.den > 0 ? av_q2d(av_inv_q(rate)) : 0.04;
      videoDecoder_ =
          std::make_unique<Decoder>(std::move(video), stream->time_base, opened.startTime,
                                    frameDuration, videoPackets_, videoFrames_);
      videoRenderer_ = std::make_unique<VideoRenderer>(
          videoFrames_, videoPackets_, videoClock_,
          [this](int serial) { return masterClock(serial); }, surface_,
          static_cast<VideoRenderer::Listener&>(*this));
      videoRenderer_->setPaused(paused);
    }
    if (opened.videoStream < 0 && opened.audioStream < 0) {
      return Error::media("can't play " + name + ": no audio output for its only stream");
    }
    hasAudio_.store(opened.audioStream >= 0);
    duration_.store(opened.duration);
    if (audioDecoder_) audioDecoder_->start("com.nembra.player.adecode");
    if (videoDecoder_) videoDecoder_->start("com.nembra.player.vdecode");
    if (videoRenderer_) videoRenderer_->start();
    if (audioRenderer_ && !paused) output_->pause(false);
  }
  opened_.store(true);
  listener_.sessionReady(*this);
  return std::nullopt;
}

void PlayerSession::demuxerFailed(const Error& error) { listener_.sessionFailed(*this, error); }

void PlayerSession::demuxerSeeked(double seconds) {
  // Only the latest request counts: an older one that was replaced is no end of waiting.
  if (seconds != seekTarget_.load()) return;
  const int serial = videoPackets_.serial();
  if (!hasAudio_.load()) externalClock_.set(seconds, serial);
  seekSerial_.store(serial);
}

double PlayerSession::masterClock(int serial) const {
  return hasAudio_.load() ? audioClock_.get(serial) : externalClock_.get(serial);
}

// Either flag changing is reported; the listener reads waiting() for the combined answer.
void PlayerSession::setWaiting(bool waiting) {
  if (waiting_.exchange(waiting) != waiting)
    listener_.sessionWaitingChanged(*this, this->waiting());
}

void PlayerSession::setStarved(bool starved) {
  if (starved_.exchange(starved) != starved) listener_.sessionWaitingChanged(*this, waiting());
}

void PlayerSession::videoShown(int serial, double pts, bool first) {
  // After a seek the item stands at the target, which may lie inside the first picture.
  const bool seekedTo = first && seekSerial_.load() == serial;
  const double at = seekedTo ? std::max(pts, seekTarget_.load()) : pts;
  if (first && !hasAudio_.load()) {
    // Without sound the system clock starts from the first picture of each position.
    externalClock_.set(at, serial);
  }
  if (!std::isnan(at)) lastTime_.store(at);
  if (seeking_.load()) {
    if (seekSerial_.load() != serial) return;
    seeking_.store(false);
  }
  setWaiting(false);
}

void PlayerSession::videoIdle() { checkEnded(); }

void PlayerSession::afterAudioFill() {
  const int current = audioPackets_.serial();
  const bool atEnd =
      demuxer_->reachedEnd() && audioDecoder_ && audioDecoder_->finishedSerial() == current;
  setStarved(opened_.load() && !atEnd && audioRenderer_ &&
             audioRenderer_->starvedFor() > kStarvedAfter);
  if (!hasVideo_.load() && audioRenderer_ && audioRenderer_->handedSerial() >= 0) {
    const int serial = audioRenderer_->handedSerial();
    if (!seeking_.load() || seekSerial_.load() == serial) {
      seeking_.store(false);
      setWaiting(false);
    }
  }
  checkEnded();
}

void PlayerSession::checkEnded() {
  if (!opened_.load() || pausedNow_.load() || !demuxer_->reachedEnd()) return;
  const int serial = videoPackets_.serial();
  if (endedSerial_.load() == serial) return;
  // Everything of this position decoded and taken from the queues (shown, heard or dropped).
  const bool videoDone =
      !hasVideo_.load() || (videoDecoder_->finishedSerial() == serial && videoFrames_.size() == 0);
  const bool audioDone = !hasAudio_.load() || (audioDecoder_->finishedSerial() == serial &&
                                               audioRenderer_->drained(serial));
  if (!videoDone || !audioDone) return;
  if (seeking_.load()) {
    // A seek to the very end: nothing is left to show.
    if (seekSerial_.load() != serial) return;
    seeking_.store(false);
    setWaiting(false);
  }
  // Then the last picture has been up for its duration and the last sound has been heard.
  const double master = masterClock(serial);
  if (!std::isnan(master)) {
    if (hasVideo_.load() && videoRenderer_->lastShownSerial() == serial &&
        master < videoRenderer_->lastShownEnd() - kEndSlack) {
      return;
    }
    if (hasAudio_.load() && audioRenderer_->handedSerial() == serial &&
        master < audioRenderer_->handedUntil() - kEndSlack) {
      return;
    }
  }
  if (endedSerial_.exchange(serial) != serial) listener_.sessionEnded(*this);
}

void PlayerSession::setPaused(bool paused) {
  std::lock_guard lock(mutex_);
  if (closed_ || paused == paused_) return;
  paused_ = paused;
  pausedNow_.store(paused);
  audioClock_.setPaused(paused);
  videoClock_.setPaused(paused);
  externalClock_.setPaused(paused);
  if (videoRenderer_) videoRenderer_->setPaused(paused);
  if (audioRenderer_) output_->pause(paused);
}

void PlayerSession::seek(double seconds) {
  const double duration = duration_.load();
  seconds = std::max(0.0, duration > 0 ? std::min(seconds, duration) : seconds);
  seekTarget_.store(seconds);
  seekSerial_.store(-1);
  seeking_.store(true);
  lastTime_.store(seconds);
  setWaiting(true);
  demuxer_->seek(seconds);
}

void PlayerSession::setMuted(bool muted) {
  std::lock_guard lock(mutex_);
  muted_ = muted;
  if (audioRenderer_) audioRenderer_->setMuted(muted);
}

double PlayerSession::currentTime() const {
  if (seeking_.load() || !opened_.load()) return lastTime_.load();
  const int serial = videoPackets_.serial();
  double time = masterClock(serial);
  if (std::isnan(time)) return lastTime_.load();
  const double duration = duration_.load();
  time = std::max(0.0, duration > 0 ? std::min(time, duration) : time);
  return time;
}

}  // namespace nembra::player
