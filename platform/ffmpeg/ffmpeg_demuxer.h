// The demux thread ("com.nembra.player.demux") of one item: opens the file or byte source, then
// reads packets into the video and audio PacketQueues, keeping a bounded amount queued, and
// carries out seeks (to the key frame at or before the target; the decoders drop the frames
// before the target).
//
// Threading: start/seek/stop from the session's owner; the Listener is called on the demux
// thread. stop() returns promptly even while a read is blocked: FFmpeg's interrupt callback
// breaks its own waits and the byte source is cancelled.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "nembra/error.h"
#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_byte_source_io.h"
#include "platform/ffmpeg/ffmpeg_packet_queue.h"
#include "platform/media/media_player_engine.h"

namespace nembra::player {

class Demuxer {
 public:
  struct Opened {
    AVFormatContext* input = nullptr;
    int videoStream = -1;  // the listener sets a stream it cannot play to -1
    int audioStream = -1;
    double startTime = 0;  // seconds of the file's first time; item times count from it
    double duration = 0;   // seconds, 0 when unknown
  };

  class Listener {
   public:
    virtual ~Listener() = default;
    // The input is open. Returns an error to give up on the item.
    virtual OptionalError demuxerOpened(Opened& opened) = 0;
    virtual void demuxerFailed(const Error& error) = 0;
    // A seek has flushed the queues: their new serial starts at |seconds|.
    virtual void demuxerSeeked(double seconds) = 0;
  };

  Demuxer(MediaPlayerItem item, PacketQueue& video, PacketQueue& audio);
  ~Demuxer();
  Demuxer(const Demuxer&) = delete;
  Demuxer& operator=(const Demuxer&) = delete;

  void start(Listener& listener);
  // Asks for a seek to |seconds| of the item; a later request replaces one not yet done.
  void seek(double seconds);
  // True once every packet of the current position onwards has been queued.
  bool reachedEnd() const { return reachedEnd_.load(); }
  void stop();

 private:
  void run();
  OptionalError open();
  // Reads packets until stopped; returns the error that ended the item, if any.
  OptionalError readLoop();
  void performSeek(double seconds);
  bool queuesFull() const;
  void waitBriefly();
  // Hands memory freed by the queues' traffic back to the system, now and then.
  void releaseFreedMemory();
  static int interruptCallback(void* opaque);

  const MediaPlayerItem item_;
  PacketQueue& videoPackets_;
  PacketQueue& audioPackets_;
  Listener* listener_ = nullptr;
  std::unique_ptr<ByteSourceIo> io_;  // outlives input_: declared first, destroyed last
  AvInput input_;
  Opened opened_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> reachedEnd_{false};
  std::mutex mutex_;
  std::condition_variable wake_;
  std::optional<double> pendingSeek_;  // guarded by mutex_
  std::thread thread_;
  std::chrono::steady_clock::time_point lastRelease_;  // demux thread only
};

}  // namespace nembra::player
