// Publishes a media source live: reads it (in real time unless told otherwise), encodes what is
// raw, and hands every sample to a LiveStreamer from a sender thread of its own.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "platform/media/media_source.h"
#include "platform/media/media_source_pacer.h"
#include "streaming/aac_encoder.h"
#include "streaming/h264_encoder.h"
#include "streaming/live_streamer.h"

namespace nembra {

struct LivePublisherOptions {
  std::string targetAddress;
  std::string streamName;
  double duration = 0.0;  // seconds of media to send; 0: until the source ends or stop
  // Encoder settings for raw sources; 0 takes the source's own (or 30 fps when it has none).
  int width = 0;
  int height = 0;
  int framerate = 0;
  int videoBitrate = 2'500'000;
  int audioSampleRate = 44100;
  int audioChannels = 2;
  int audioBitrate = 128'000;
  bool realTime = true;  // false: as fast as the network takes it
  std::chrono::milliseconds publishTimeout{10'000};
  size_t queueLimit = 256;  // samples waiting for the sender before capture blocks
};

struct LivePublisherStats {
  double elapsed = 0.0;    // wall seconds since publishing started
  double mediaTime = 0.0;  // stamp of the last sample sent
  LiveStreamerCounters sent;
  size_t queueDepth = 0;  // samples waiting for the sender
};

// Threads: "nembra.publish.capture" reads, paces and encodes; "nembra.publish.send" sends. Both
// are named and owned here; no callbacks leave this class. Call start, stop, finish and the
// accessors from one owner thread; requestStop also from any thread (a signal handler's
// forwarder, say).
class LivePublisher {
 public:
  LivePublisher(std::unique_ptr<MediaSource> source, LivePublisherOptions options);
  ~LivePublisher();
  LivePublisher(const LivePublisher&) = delete;
  LivePublisher& operator=(const LivePublisher&) = delete;

  // Sets up the encoders, connects and waits until the server confirms publishing, then starts
  // the threads. On failure returns false with |error| set to the client's or server's message.
  bool start(std::string& error);

  // Ends the stream soon: capture stops, what is queued is dropped, the client is closed.
  void requestStop();

  // True once the stream has ended by itself (source ended, duration reached), failed or was
  // stopped, and the sender is idle.
  bool done() const { return done_.load(); }
  // Waits up to |timeout| for done(); returns it.
  bool waitDone(std::chrono::milliseconds timeout) const;
  // Why the stream failed: a server error, the connection lost (with the receiver's message),
  // a source or encoder failure. Empty while fine and after a requested stop.
  std::string failure() const;
  bool stoppedByRequest() const { return stopRequested_.load(); }

  // Joins the threads and closes the client (unpublishing). Called by the destructor too.
  void finish();

  LivePublisherStats stats() const;
  // Seconds from a video frame entering the encoder (or, for samples passed through, being
  // taken from the source) to its last byte being handed to the socket, one per frame sent.
  std::vector<double> videoLatencies() const;
  const MediaSourceInfo& sourceInfo() const { return source_->info(); }

 private:
  using Clock = std::chrono::steady_clock;
  struct Queued {
    std::variant<std::monostate, EncodedVideoSample, EncodedAudioSample> sample;
    Clock::time_point captured;
  };
  class Sink;

  void captureLoop();
  void sendLoop();
  // False when the sample could not be sent (the failure is recorded).
  bool send(Queued& item);
  // False once the item is past the duration or a stop came while pacing.
  bool capture(MediaSourceItem& item);
  void enqueue(Queued item);
  void fail(const std::string& message);
  bool stopping() const { return stopRequested_.load() || failed_.load(); }

  std::unique_ptr<MediaSource> source_;
  LivePublisherOptions options_;
  std::shared_ptr<Sink> sink_;
  std::unique_ptr<H264Encoder> videoEncoder_;
  std::unique_ptr<AACEncoder> audioEncoder_;
  std::unique_ptr<LiveStreamer> streamer_;
  MediaSourcePacer pacer_;
  Clock::time_point captureTime_;  // capture thread: when the item being encoded was due

  mutable std::mutex mutex_;
  // One condition per kind of waiter, so that a sample queued wakes the sender alone: the
  // sender waits on queued_, a capture held by a full queue on room_, and the owner (publish
  // start, waitDone) on changed_. A stop or a failure notifies all three.
  mutable std::condition_variable changed_;
  std::condition_variable queued_;
  std::condition_variable room_;
  std::deque<Queued> queue_;       // guarded by mutex_
  size_t inFlight_ = 0;            // taken by the sender, not sent yet; guarded by mutex_
  bool captureEnded_ = false;      // guarded by mutex_
  bool publishStarted_ = false;    // guarded by mutex_
  std::string failure_;            // guarded by mutex_
  std::vector<double> latencies_;  // guarded by mutex_
  double mediaTime_ = 0.0;         // guarded by mutex_
  std::optional<Clock::time_point> startedAt_;

  std::atomic<bool> stopRequested_{false};
  std::atomic<bool> failed_{false};
  std::atomic<bool> done_{false};
  std::thread captureThread_;
  std::thread sendThread_;
  bool finished_ = false;
};

}  // namespace nembra
