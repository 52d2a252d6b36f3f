#include "streaming/live_publisher.h"

#include <algorithm>
#include <cmath>

#include "platform/dispatch/thread_name.h"
#include "streaming/stream_log.h"

namespace nembra {

namespace {

constexpr auto kSendPoll = std::chrono::milliseconds(50);
constexpr int kDefaultFramerate = 30;
// Already-encoded samples are paced in batches this long (see MediaSourcePacer): a real-time
// pass-through then wakes about ten times a second instead of once per sample.
constexpr auto kPassThroughBatch = std::chrono::milliseconds(100);

bool passesThrough(const MediaSourceInfo& info) {
  return !(info.hasVideo && !info.videoEncoded) && !(info.hasAudio && !info.audioEncoded);
}

}  // namespace

// Receives from the encoders (capture thread) and the streamer (receiving thread). Held by
// shared pointer because the encoders and the streamer keep their delegates weakly.
class LivePublisher::Sink final : public H264EncoderDelegate,
                                  public AACEncoderDelegate,
                                  public LiveStreamerDelegate {
 public:
  explicit Sink(LivePublisher& owner) : owner_(owner) {}

  void compressedVideoDataReceived(const EncodedVideoSample& sample) override {
    owner_.enqueue({sample, owner_.captureTime_});
  }
  void compressedAudioDataReceived(const std::vector<uint8_t>& data, std::array<uint8_t, 2> asc,
                                   double pts) override {
    owner_.enqueue({EncodedAudioSample{data, asc, pts}, owner_.captureTime_});
  }
  void onPublishStart() override {
    std::lock_guard lock(owner_.mutex_);
    owner_.publishStarted_ = true;
    owner_.changed_.notify_all();
  }
  void onError(const std::string& message) override { owner_.fail(message); }

 private:
  LivePublisher& owner_;
};

LivePublisher::LivePublisher(std::unique_ptr<MediaSource> source, LivePublisherOptions options)
    : source_(std::move(source)),
      options_(std::move(options)),
      sink_(std::make_shared<Sink>(*this)),
      pacer_(options_.realTime, passesThrough(source_->info())
                                    ? kPassThroughBatch
                                    : MediaSourcePacer::Clock::duration::zero()) {}

LivePublisher::~LivePublisher() { finish(); }

std::string LivePublisher::failure() const {
  std::lock_guard lock(mutex_);
  return failure_;
}

void LivePublisher::fail(const std::string& message) {
  std::lock_guard lock(mutex_);
  if (failure_.empty()) failure_ = message;
  failed_.store(true);
  changed_.notify_all();
  queued_.notify_all();
  room_.notify_all();
}

void LivePublisher::requestStop() {
  std::lock_guard lock(mutex_);
  stopRequested_.store(true);
  changed_.notify_all();
  queued_.notify_all();
  room_.notify_all();
}

bool LivePublisher::start(std::string& error) {
  const MediaSourceInfo& info = source_->info();
  if (info.hasVideo && !info.videoEncoded) {
    const int width = options_.width > 0 ? options_.width : info.width;
    const int height = options_.height > 0 ? options_.height : info.height;
    int framerate = options_.framerate;
    if (framerate <= 0) {
      framerate =
          info.frameRate > 0 ? static_cast<int>(std::lround(info.frameRate)) : kDefaultFramerate;
    }
    videoEncoder_ = std::make_unique<H264Encoder>(width, height, options_.videoBitrate, framerate);
    if (!videoEncoder_->isReady()) {
      error = videoEncoder_->initializationError();
      return false;
    }
    videoEncoder_->setDelegate(sink_);
  }
  if (info.hasAudio && !info.audioEncoded) {
    audioEncoder_ = std::make_unique<AACEncoder>(options_.audioSampleRate, options_.audioChannels,
                                                 options_.audioBitrate);
    if (!audioEncoder_->isReady()) {
      error = audioEncoder_->initializationError();
      return false;
    }
    audioEncoder_->setDelegate(sink_);
  }

  streamer_ = LiveStreamer::initWithTargetAddress(options_.targetAddress, options_.streamName,
                                                  sink_, &error);
  if (!streamer_) return false;

  std::unique_lock lock(mutex_);
  const auto deadline = Clock::now() + options_.publishTimeout;
  while (!publishStarted_ && failure_.empty()) {
    if (!streamer_->isReceiving()) {
      failure_ = "connection lost before publishing: " + streamer_->receiverFailure();
      break;
    }
    if (stopRequested_.load()) {
      failure_ = "stopped before publishing started";
      break;
    }
    if (changed_.wait_until(lock, std::min(deadline, Clock::now() + kSendPoll)) ==
            std::cv_status::timeout &&
        Clock::now() >= deadline) {
      failure_ = "the server did not confirm publishing within " +
                 std::to_string(options_.publishTimeout.count()) + " ms";
      break;
    }
  }
  if (!publishStarted_) {
    error = failure_;
    lock.unlock();
    streamer_->stop();
    return false;
  }
  startedAt_ = Clock::now();
  lock.unlock();
  sendThread_ = std::thread([this] { sendLoop(); });
  captureThread_ = std::thread([this] { captureLoop(); });
  return true;
}

void LivePublisher::enqueue(Queued item) {
  std::unique_lock lock(mutex_);
  room_.wait(lock, [this] { return queue_.size() < options_.queueLimit || stopping(); });
  if (stopping()) return;
  queue_.push_back(std::move(item));
  // Only the first item wakes the sender: it takes everything queued at once, so samples that
  // come in quick succession (a paced batch) cost no thread switch each.
  if (queue_.size() == 1) queued_.notify_one();
}

bool LivePublisher::capture(MediaSourceItem& item) {
  const double pts = std::visit(
      [](const auto& value) -> double {
        using T = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<T, RawMediaFrame>) {
          return value.pts();
        } else {
          return value.pts;
        }
      },
      item);
  if (options_.duration > 0 && pts >= options_.duration) return false;  // enough media
  if (!pacer_.waitUntilDue(pts, stopRequested_)) return false;
  captureTime_ = Clock::now();
  if (auto* video = std::get_if<EncodedVideoSample>(&item)) {
    enqueue({std::move(*video), captureTime_});
  } else if (auto* audio = std::get_if<EncodedAudioSample>(&item)) {
    enqueue({std::move(*audio), captureTime_});
  } else if (auto* raw = std::get_if<RawMediaFrame>(&item)) {
    if (raw->kind() == RawMediaFrame::Kind::Video) {
      if (videoEncoder_) videoEncoder_->putCVPixelBuffer(*raw, raw->pts());
    } else if (audioEncoder_) {
      audioEncoder_->putCMSampleBuffer(*raw);
    }
  }
  return true;
}

void LivePublisher::captureLoop() {
  setCurrentThreadName("nembra.publish.capture");
  try {
    MediaSourceItem item;
    OptionalError error;
    while (!stopping() && source_->read(item, error) && capture(item)) {
    }
    if (error && !stopRequested_.load()) {
      fail(error->message);
    } else if (!stopping()) {
      if (videoEncoder_) videoEncoder_->flush();
      if (audioEncoder_) audioEncoder_->flush();
    }
  } catch (const std::exception& exception) {
    fail(exception.what());
  }
  std::lock_guard lock(mutex_);
  captureEnded_ = true;
  queued_.notify_all();
}

void LivePublisher::sendLoop() {
  setCurrentThreadName("nembra.publish.send");
  std::deque<Queued> batch;
  bool running = true;
  while (running) {
    {
      std::unique_lock lock(mutex_);
      // No timeout: a stop, a failure and the end of capture all notify.
      queued_.wait(lock, [this] { return !queue_.empty() || captureEnded_ || stopping(); });
      if (stopping() || (queue_.empty() && captureEnded_)) break;
      const bool captureWaiting = queue_.size() >= options_.queueLimit;
      batch.swap(queue_);
      inFlight_ = batch.size();
      if (captureWaiting) room_.notify_all();
    }
    // The send path cannot see a lost peer; the receiving thread can.
    if (!streamer_->isReceiving()) {
      const std::string reason = streamer_->receiverFailure();
      fail("connection lost: " + (reason.empty() ? std::string("receiver stopped") : reason));
      break;
    }
    for (; !batch.empty() && running; batch.pop_front()) {
      running = send(batch.front()) && !stopping();
      std::lock_guard lock(mutex_);
      --inFlight_;
    }
  }
  std::lock_guard lock(mutex_);
  queue_.clear();
  inFlight_ = 0;
  done_.store(true);
  changed_.notify_all();
  room_.notify_all();
}

bool LivePublisher::send(Queued& item) {
  if (auto* video = std::get_if<EncodedVideoSample>(&item.sample)) {
    if (!streamer_->putVideoSample(*video)) {
      fail("can't send video");
      return false;
    }
    const double latency = std::chrono::duration<double>(Clock::now() - item.captured).count();
    std::lock_guard lock(mutex_);
    latencies_.push_back(latency);
    mediaTime_ = std::max(mediaTime_, video->pts);
  } else if (auto* audio = std::get_if<EncodedAudioSample>(&item.sample)) {
    if (!streamer_->putAudioSample(audio->data, audio->asc, audio->pts)) {
      fail("can't send audio");
      return false;
    }
    std::lock_guard lock(mutex_);
    mediaTime_ = std::max(mediaTime_, audio->pts);
  }
  return true;
}

bool LivePublisher::waitDone(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return done_.load(); });
}

void LivePublisher::finish() {
  if (finished_) return;
  finished_ = true;
  if (!done_.load()) requestStop();
  source_->interrupt();
  {
    // Wake a capture blocked on the queue.
    std::lock_guard lock(mutex_);
    room_.notify_all();
  }
  if (captureThread_.joinable()) captureThread_.join();
  {
    // Wake a sender that is waiting for samples.
    std::lock_guard lock(mutex_);
    queued_.notify_all();
  }
  if (sendThread_.joinable()) sendThread_.join();
  if (streamer_) streamer_->stop();
}

LivePublisherStats LivePublisher::stats() const {
  LivePublisherStats stats;
  std::lock_guard lock(mutex_);
  if (startedAt_) stats.elapsed = std::chrono::duration<double>(Clock::now() - *startedAt_).count();
  stats.mediaTime = mediaTime_;
  stats.queueDepth = queue_.size() + inFlight_;
  if (streamer_) stats.sent = streamer_->counters();
  return stats;
}

std::vector<double> LivePublisher::videoLatencies() const {
  std::lock_guard lock(mutex_);
  return latencies_;
}

}  // namespace nembra
