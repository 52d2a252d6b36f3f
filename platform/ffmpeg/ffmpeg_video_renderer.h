// The video sync thread ("com.nembra.player.vsync"): takes pictures from the video FrameQueue
// when the master clock says they are due, drops those that are already late, and presents the
// rest on the surface as I420 frames. The first picture after opening or a seek is shown at once,
// even while paused, so a paused player shows where it stands.
//
// Threading: start/setPaused/stop from the session's owner; the Listener is called on the sync
// thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/ffmpeg/ffmpeg_clock.h"
#include "platform/ffmpeg/ffmpeg_frame_queue.h"
#include "platform/ffmpeg/ffmpeg_i420_converter.h"
#include "platform/ffmpeg/ffmpeg_packet_queue.h"
#include "platform/ui/video_surface.h"

namespace nembra::player {

class VideoRenderer {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // A picture of |serial| at |pts| is on the surface; |first| for the first of its serial.
    virtual void videoShown(int serial, double pts, bool first) = 0;
    // Nothing was due on this pass (called about every 10 ms while idle).
    virtual void videoIdle() = 0;
  };

  // |masterClock| gives the time to sync to for a serial, NaN when unknown. |surface| may be
  // null: pictures are then timed and dropped without being converted.
  VideoRenderer(FrameQueue& frames, const PacketQueue& packets, Clock& videoClock,
                std::function<double(int serial)> masterClock,
                std::shared_ptr<VideoSurface> surface, Listener& listener);
  ~VideoRenderer();
  VideoRenderer(const VideoRenderer&) = delete;
  VideoRenderer& operator=(const VideoRenderer&) = delete;

  void start();
  void setPaused(bool paused);
  // The frame queue must have been aborted first.
  void stop();

  // The serial and end time (pts plus duration) of the last picture shown.
  int lastShownSerial() const { return lastShownSerial_.load(); }
  double lastShownEnd() const { return lastShownEnd_.load(); }
  int64_t shownCount() const { return shown_.load(); }
  int64_t droppedCount() const { return dropped_.load(); }

 private:
  void run();
  // One pass: shows or drops at most one picture; returns how long to wait before the next.
  double refresh();
  double targetDelay(double delay, int serial);
  void show(DecodedFrame& frame, bool first);
  // Converts |frame| for the surface ahead of its time, so that showing it costs no copy.
  void prepare(const DecodedFrame& frame);
  void popHead();
  void sleepFor(double seconds);

  FrameQueue& frames_;
  const PacketQueue& packets_;
  Clock& videoClock_;
  const std::function<double(int)> masterClock_;
  const std::shared_ptr<VideoSurface> surface_;
  Listener& listener_;
  I420Converter converter_;

  std::mutex mutex_;
  std::condition_variable wake_;
  bool paused_ = false;  // guarded by mutex_
  bool stopping_ = false;

  // Sync thread only.
  double frameTimer_ = 0;  // system time at which the last shown picture was due
  double lastPts_ = 0;
  double lastDuration_ = 0;
  int serial_ = -1;
  double pausedAt_ = -1;
  SharedVideoFrame prepared_;  // the converted picture of the frame at the queue's head
  const AVFrame* preparedFrom_ = nullptr;

  std::atomic<int> lastShownSerial_{-1};
  std::atomic<double> lastShownEnd_{0};
  std::atomic<int64_t> shown_{0};
  std::atomic<int64_t> dropped_{0};
  std::thread thread_;
};

}  // namespace nembra::player
