// A monitor's pictures from a PipeWire screen-cast stream (the one the ScreenCast portal opens),
// delivered like x11grab's: whole pictures at a steady rate, stamped on arrival. A screen cast
// only sends a picture when the screen changes, so a still screen repeats its last picture.
//
// Threading: see MediaSource. PipeWire calls back on its own loop thread,
// "com.nembra.screenRecorder.pipewire", which only hands pictures over under mutex_.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/media/media_source.h"

struct AVFrame;
struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_stream;
struct spa_pod;

namespace nembra {

class MediaSourcePipeWireScreen final : public MediaSource {
 public:
  // Reads node |node| through the PipeWire connection |fd| (taken over, closed in every case)
  // at |fps|. Waits for the first picture, so that the size is known: null, with |error|, when
  // none comes.
  static std::unique_ptr<MediaSourcePipeWireScreen> open(int fd, uint32_t node, int fps,
                                                         OptionalError& error);
  ~MediaSourcePipeWireScreen() override;

  const MediaSourceInfo& info() const override { return info_; }
  bool read(MediaSourceItem& item, OptionalError& error) override;
  void interrupt() override;

 private:
  struct Listeners;

  MediaSourcePipeWireScreen();
  // On the loop thread.
  void onFormat(const spa_pod* param);
  void onProcess();
  void onEnded(const std::string& why);

  MediaSourceInfo info_;
  std::unique_ptr<Listeners> listeners_;
  pw_thread_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_stream* stream_ = nullptr;

  std::mutex mutex_;
  std::condition_variable changed_;
  AVFrame* latest_ = nullptr;  // guarded by mutex_; the newest picture
  int pixelFormat_ = -1;       // guarded by mutex_; an AVPixelFormat, -1 before a format is set
  int width_ = 0;              // guarded by mutex_
  int height_ = 0;             // guarded by mutex_
  std::string ended_;          // guarded by mutex_; why the stream ended, when it has
  std::atomic<bool> interrupted_{false};

  std::chrono::steady_clock::time_point opened_;
  std::chrono::steady_clock::time_point nextPicture_;
  std::chrono::steady_clock::duration period_{};
  bool failed_ = false;
};

}  // namespace nembra
