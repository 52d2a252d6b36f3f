// A running camera: a capture source read on its own named thread, each picture turned into an
// I420 VideoFrame and each block of sound into signed 16-bit samples, handed to the observers.
// This is what a preview shows and what the capture aids, the QR scanner and the still-image
// recorder analyse.
//
// Threading: open/start/stop and the observer list from any thread (stop not from an observer);
// observers are called on the feed's thread "com.nembra.camera", one frame at a time, and must
// return quickly (heavy work goes to a queue of their own).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nembra/error.h"
#include "platform/media/media_source.h"
#include "platform/media/raw_frame_reader.h"
#include "platform/system/camera_catalog.h"
#include "platform/ui/video_frame.h"

namespace nembra {

class CaptureFrameObserver {
 public:
  virtual ~CaptureFrameObserver() = default;
  virtual void onVideoFrame(const SharedVideoFrame& frame) = 0;
  // |count| samples in all, |channels| interleaved.
  virtual void onAudioSamples(const int16_t* samples, size_t count, int channels) {
    (void)samples;
    (void)count;
    (void)channels;
  }
  // The camera failed or went away; no frames follow.
  virtual void onCaptureError(const Error& error) { (void)error; }
};

struct CameraFeedOptions {
  // "" the first real camera at |position|, "lavfi" the virtual camera, "lavfi:GRAPH", or a node.
  std::string camera;
  CameraPosition position = CameraPosition::Back;
  int width = 1280;
  int height = 720;
  int fps = 30;
};

class CameraFeed {
 public:
  // Opens the camera (not yet reading). Null, with |error| naming the camera and the reason,
  // when there is none or it can't be opened.
  static std::shared_ptr<CameraFeed> open(const CameraFeedOptions& options, OptionalError& error,
                                          const CameraCatalog& catalog = CameraCatalog());
  // Over a source of the caller's (tests).
  CameraFeed(std::unique_ptr<MediaSource> source, std::unique_ptr<RawFrameReader> reader);
  ~CameraFeed();

  CameraFeed(const CameraFeed&) = delete;
  CameraFeed& operator=(const CameraFeed&) = delete;

  const MediaSourceInfo& info() const { return source_->info(); }

  void addObserver(std::weak_ptr<CaptureFrameObserver> observer);
  void removeObserver(const CaptureFrameObserver* observer);

  // Starts reading; a second call does nothing, and a stopped feed stays stopped.
  void start();
  // Stops reading and waits for the thread: no observer is called after it returns.
  void stop();
  bool running() const { return running_.load(); }

 private:
  void readLoop();
  std::vector<std::shared_ptr<CaptureFrameObserver>> observers();

  std::unique_ptr<MediaSource> source_;
  std::unique_ptr<RawFrameReader> reader_;  // feed thread only
  std::mutex mutex_;
  std::vector<std::weak_ptr<CaptureFrameObserver>> observers_;  // guarded by mutex_
  std::thread thread_;                                          // guarded by mutex_
  std::atomic<bool> running_{false};
  std::atomic<bool> stopping_{false};
};

}  // namespace nembra
