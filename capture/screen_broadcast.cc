#include "capture/screen_broadcast.h"

#include <cstdlib>
#include <thread>

#include "platform/dispatch/thread_name.h"
#include "platform/media/media_backend.h"

namespace nembra {

namespace {

double since(std::chrono::steady_clock::time_point origin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - origin).count();
}

}  // namespace

std::unique_ptr<ScreenBroadcast> ScreenBroadcast::open(const ScreenBroadcastOptions& options,
                                                       NembraScreenRecorderSampleHandler& handler,
                                                       OptionalError& error) {
  std::unique_ptr<ScreenBroadcast> broadcast(new ScreenBroadcast(handler));
  broadcast->options_ = options;
  if (broadcast->options_.display.empty()) {
    const char* display = std::getenv("DISPLAY");
    broadcast->options_.display = display ? display : "";
  }
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  bool fellBack = options.source == ScreenSourceKind::X11;
  if (options.source == ScreenSourceKind::Portal ||
      (options.source == ScreenSourceKind::Automatic && wayland && *wayland)) {
    error = broadcast->openPortal(options.source == ScreenSourceKind::Automatic, fellBack);
    if (error) return nullptr;
  } else {
    fellBack = true;
  }
  if (fellBack) {
    broadcast->source_ = ScreenSourceKind::X11;
    broadcast->screen_ =
        openScreenSource(broadcast->options_.display, broadcast->options_.frameRate, error);
  }
  if (!broadcast->screen_) return nullptr;
  broadcast->width_ = broadcast->screen_->info().width;
  broadcast->height_ = broadcast->screen_->info().height;
  if (options.withMicrophone) {
    broadcast->microphone_ = openMicrophoneSource(options.microphone, error);
    if (!broadcast->microphone_) return nullptr;
  }
  return broadcast;
}

OptionalError ScreenBroadcast::openPortal(bool fallBack, bool& fellBack) {
  ScreenCastPortal::Outcome outcome;
  OptionalError error;
  portal_ = ScreenCastPortal::open({}, outcome, error);
  if (!portal_) {
    // A desktop without the portal leaves X11 to try; a portal that said no is the answer.
    fellBack = fallBack && outcome == ScreenCastPortal::Outcome::Unavailable;
    return fellBack ? std::nullopt : error;
  }
  source_ = ScreenSourceKind::Portal;
  fellBack = false;
  screen_ = openPipeWireScreenSource(portal_->takePipeWireFd(), portal_->nodeId(),
                                     options_.frameRate, error);
  return screen_ ? std::nullopt : error;
}

ScreenBroadcast::~ScreenBroadcast() {
  // The reader goes before the cast it reads.
  screen_.reset();
  portal_.reset();
}

void ScreenBroadcast::stop() {
  stopping_ = true;
  if (screen_) screen_->interrupt();
}

void ScreenBroadcast::readMicrophone(std::chrono::steady_clock::time_point origin) {
  setCurrentThreadName("com.nembra.screenRecorder.microphone");
  MediaSourceItem item;
  OptionalError error;
  while (!stopping_.load() && microphone_->read(item, error)) {
    auto* raw = std::get_if<RawMediaFrame>(&item);
    if (!raw) continue;
    const double seconds = since(origin);
    std::lock_guard lock(handlerMutex_);
    handler_.processSampleBuffer(*raw, seconds, SampleBufferType::AudioMic);
  }
}

OptionalError ScreenBroadcast::run() {
  handler_.setMainScreenBounds(width_, height_);
  handler_.broadcastStartedWithSetupInfo({});
  const auto origin = std::chrono::steady_clock::now();
  std::thread microphone;
  if (microphone_) microphone = std::thread([this, origin] { readMicrophone(origin); });

  OptionalError ended;
  MediaSourceItem item;
  double firstFrame = -1;
  while (!stopping_.load()) {
    OptionalError error;
    if (!screen_->read(item, error)) {
      if (!stopping_.load()) {
        const std::string screen = source_ == ScreenSourceKind::Portal
                                       ? std::string("the screen cast")
                                       : "the display " + options_.display;
        ended =
            Error::media(screen + " went away: " + (error ? error->message : "no more pictures"));
      }
      break;
    }
    auto* raw = std::get_if<RawMediaFrame>(&item);
    if (!raw) continue;
    double seconds = since(origin);
    // The first frame opens the session: the duration runs from it. On a busy machine the last
    // picture may come well after the end; it stands for the end rather than stretching the
    // movie past it.
    const bool last =
        options_.duration > 0 && firstFrame >= 0 && seconds - firstFrame >= options_.duration;
    if (last) seconds = firstFrame + options_.duration;
    {
      std::lock_guard lock(handlerMutex_);
      handler_.processSampleBuffer(*raw, seconds, SampleBufferType::Video);
    }
    ++frames_;
    if (firstFrame < 0) firstFrame = seconds;
    if (last) break;
  }
  stopping_ = true;
  if (microphone_) microphone_->interrupt();
  if (microphone.joinable()) microphone.join();
  handler_.broadcastFinished();
  return ended;
}

}  // namespace nembra
