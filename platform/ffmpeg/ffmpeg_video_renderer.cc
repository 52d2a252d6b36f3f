#include "platform/ffmpeg/ffmpeg_video_renderer.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "platform/dispatch/thread_name.h"

namespace nembra::player {

namespace {
// Below this difference from the master clock a picture is shown as timed; above it, the wait
// for the next one absorbs the whole difference. The audio clock is smooth enough (it is set on
// every pull of the output) for a tolerance well below a picture's duration.
constexpr double kSyncTolerance = 0.01;
// A picture this late restarts the timing from now instead of rushing the next ones.
constexpr double kLateRestart = 0.1;
// Differences beyond this are a timestamp jump, not drift: not corrected.
constexpr double kMaxFrameDuration = 10.0;
constexpr double kIdleWait = 0.01;
}  // namespace

VideoRenderer::VideoRenderer(FrameQueue& frames, const PacketQueue& packets, Clock& videoClock,
                             std::function<double(int)> masterClock,
                             std::shared_ptr<VideoSurface> surface, Listener& listener)
    : frames_(frames),
      packets_(packets),
      videoClock_(videoClock),
      masterClock_(std::move(masterClock)),
      surface_(std::move(surface)),
      listener_(listener) {}

VideoRenderer::~VideoRenderer() { stop(); }

void VideoRenderer::start() {
  thread_ = std::thread([this] {
    setCurrentThreadName("com.nembra.player.vsync");
    run();
  });
}

void VideoRenderer::setPaused(bool paused) {
  std::lock_guard lock(mutex_);
  paused_ = paused;
  wake_.notify_all();
}

void VideoRenderer::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void VideoRenderer::sleepFor(double seconds) {
  std::unique_lock lock(mutex_);
  const bool paused = paused_;
  wake_.wait_for(lock, std::chrono::duration<double>(seconds),
                 [&] { return stopping_ || paused_ != paused; });
}

void VideoRenderer::run() {
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
    }
    const double wait = refresh();
    if (wait > 0) {
      if (frames_.size() == 0) {
        frames_.waitForFrame(std::chrono::milliseconds(10));
      } else {
        sleepFor(wait);
      }
    }
  }
}

double VideoRenderer::targetDelay(double delay, int serial) {
  const double diff = videoClock_.get(serial) - masterClock_(serial);
  if (!std::isnan(diff) && std::fabs(diff) < kMaxFrameDuration &&
      std::fabs(diff) > kSyncTolerance) {
    delay = std::max(0.0, delay + diff);
  }
  return delay;
}

void VideoRenderer::prepare(const DecodedFrame& frame) {
  if (!surface_ || preparedFrom_ == frame.frame.get()) return;
  prepared_ = converter_.convert(*frame.frame, frame.pts);
  preparedFrom_ = frame.frame.get();
}

void VideoRenderer::popHead() {
  // A picture prepared is always the head's: it goes with it.
  prepared_.reset();
  preparedFrom_ = nullptr;
  frames_.pop();
}

void VideoRenderer::show(DecodedFrame& frame, bool first) {
  const int serial = frame.serial;
  const double pts = frame.pts;
  const double duration = frame.duration;
  prepare(frame);
  if (prepared_) surface_->present(std::move(prepared_));
  popHead();
  shown_.fetch_add(1);
  lastShownEnd_.store(pts + duration);
  lastShownSerial_.store(serial);
  listener_.videoShown(serial, pts, first);
}

double VideoRenderer::refresh() {
  DecodedFrame* frame = frames_.peek();
  if (!frame) {
    listener_.videoIdle();
    return kIdleWait;
  }
  const int serial = packets_.serial();
  if (frame->serial != serial) {
    popHead();  // decoded before a seek
    return 0;
  }
  const double now = Clock::now();
  if (frame->serial != serial_) {
    // Opening or a seek: show the picture at once and start timing from it.
    serial_ = frame->serial;
    frameTimer_ = now;
    lastPts_ = frame->pts;
    lastDuration_ = frame->duration;
    videoClock_.set(frame->pts, serial);
    show(*frame, true);
    return 0;
  }

  bool paused;
  {
    std::lock_guard lock(mutex_);
    paused = paused_;
  }
  if (paused) {
    if (pausedAt_ < 0) pausedAt_ = now;
    listener_.videoIdle();
    return kIdleWait;
  }
  if (pausedAt_ >= 0) {
    frameTimer_ += now - pausedAt_;  // the pause does not make the next picture late
    pausedAt_ = -1;
  }

  double lastDuration = frame->pts - lastPts_;
  if (std::isnan(lastDuration) || lastDuration <= 0 || lastDuration > kMaxFrameDuration) {
    lastDuration = lastDuration_;
  }
  const double delay = targetDelay(lastDuration, serial);
  if (now < frameTimer_ + delay) {
    prepare(*frame);
    listener_.videoIdle();
    return std::min(frameTimer_ + delay - Clock::now(), kIdleWait);
  }
  frameTimer_ += delay;
  if (delay > 0 && now - frameTimer_ > kLateRestart) frameTimer_ = now;

  lastPts_ = frame->pts;
  lastDuration_ = frame->duration;
  videoClock_.set(frame->pts, serial);
  // Late enough that the next picture is due as well: skip this one.
  if (DecodedFrame* next = frames_.peekNext(); next && next->serial == serial) {
    double duration = next->pts - frame->pts;
    if (std::isnan(duration) || duration <= 0 || duration > kMaxFrameDuration) {
      duration = frame->duration;
    }
    if (now > frameTimer_ + duration) {
      popHead();
      dropped_.fetch_add(1);
      return 0;
    }
  }
  show(*frame, false);
  return 0;
}

}  // namespace nembra::player
