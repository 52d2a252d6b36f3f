// A screen broadcast on Linux, feeding a sample handler as the platform's broadcast would: the
// screen as video samples (a Wayland session's ScreenCast portal through PipeWire, or the X11
// screen by x11grab) and, unless none is asked for, a microphone as
// microphone samples, each stamped with its arrival on one clock. It ends after the duration
// asked for, on stop(), or when the display goes away, and then finishes the handler.
//
// Threading: run() blocks its caller, which reads the screen; the microphone is read on
// "com.nembra.screenRecorder.microphone". The handler is called from both, one call at a time.
// stop() may be called from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "capture/nembra_screen_recorder_sample_handler.h"
#include "nembra/error.h"
#include "platform/media/media_source.h"
#include "platform/media/screen_cast_portal.h"

namespace nembra {

// Where the screen's pictures come from. Automatic takes the portal when $WAYLAND_DISPLAY is set
// and a portal answers on the session bus, else X11.
enum class ScreenSourceKind { Automatic, Portal, X11 };

struct ScreenBroadcastOptions {
  ScreenSourceKind source = ScreenSourceKind::Automatic;
  std::string display;  // X11's ":0"; "" takes $DISPLAY
  // openMicrophoneSource's names ("lavfi", "pulse:NAME", "" for the default); ignored when
  // withMicrophone is false.
  std::string microphone;
  bool withMicrophone = true;
  int frameRate = 30;
  double duration = 0;  // seconds; 0 runs until stop()
};

class ScreenBroadcast {
 public:
  // Opens the screen and the microphone; null, with |error|, when either cannot be opened.
  // |handler| must outlive the broadcast.
  static std::unique_ptr<ScreenBroadcast> open(const ScreenBroadcastOptions& options,
                                               NembraScreenRecorderSampleHandler& handler,
                                               OptionalError& error);
  ~ScreenBroadcast();

  // Starts the handler, delivers samples until the end, finishes the handler. Returns why it
  // ended early (the display went away), nothing for an ordinary end.
  OptionalError run();
  void stop();

  int width() const { return width_; }
  // The source chosen (Portal or X11).
  ScreenSourceKind source() const { return source_; }
  int height() const { return height_; }
  int64_t framesDelivered() const { return frames_.load(); }

 private:
  ScreenBroadcast(NembraScreenRecorderSampleHandler& handler) : handler_(handler) {}
  void readMicrophone(std::chrono::steady_clock::time_point origin);

  NembraScreenRecorderSampleHandler& handler_;
  OptionalError openPortal(bool fallBack, bool& fellBack);

  ScreenBroadcastOptions options_;
  ScreenSourceKind source_ = ScreenSourceKind::X11;
  // Declared before screen_: the cast must outlive its reader.
  std::unique_ptr<ScreenCastPortal> portal_;
  std::unique_ptr<MediaSource> screen_;
  std::unique_ptr<MediaSource> microphone_;
  std::mutex handlerMutex_;
  std::atomic<bool> stopping_{false};
  std::atomic<int64_t> frames_{0};
  int width_ = 0;
  int height_ = 0;
};

}  // namespace nembra
