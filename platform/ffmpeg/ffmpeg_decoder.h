// One stream's decoder thread: takes packets from the stream's PacketQueue, decodes them and
// queues the frames in its FrameQueue, stamped with the packets' serial. Frames that end before
// a seek's target are dropped here, so the first frame queued after a seek is the one that holds
// the target.
//
// Threading: start/stop from the session's owner; the thread is named by the caller
// ("com.nembra.player.vdecode", "com.nembra.player.adecode"); finishedSerial from any thread.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_frame_queue.h"
#include "platform/ffmpeg/ffmpeg_packet_queue.h"

namespace nembra::player {

class Decoder {
 public:
  // |codec| is open; |timeBase| is the stream's; frame times are counted from |startTime|
  // (seconds, the file's first time); |frameDuration| (seconds) is what a video picture lasts
  // when the stream says nothing better, 0 for sound.
  Decoder(AvCodecContext codec, AVRational timeBase, double startTime, double frameDuration,
          PacketQueue& packets, FrameQueue& frames);
  ~Decoder();
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  void start(std::string threadName);
  // Returns once the thread has ended; the queues must have been aborted first.
  void stop();

  // The serial whose packets have all been decoded (the end packet was reached), -1 before.
  int finishedSerial() const { return finishedSerial_.load(); }

 private:
  void run();
  // Queues the frames the codec has ready; false once the frame queue is aborted.
  bool drainFrames(const PacketQueue::Entry& entry);

  AvCodecContext codec_;
  const AVRational timeBase_;
  const double startTime_;
  const double frameDuration_;
  PacketQueue& packets_;
  FrameQueue& frames_;
  std::atomic<int> finishedSerial_{-1};
  std::thread thread_;
};

}  // namespace nembra::player
