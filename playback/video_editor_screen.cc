#include "playback/video_editor_screen.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/media_type.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/reply_status.h"
#include "platform/audio/audio_output.h"
#include "platform/dispatch/serial_queue.h"
#include "platform/files/file_system.h"

namespace nembra {

namespace {

constexpr auto kPlayTick = std::chrono::milliseconds(20);

// Numbers the cuts of this process, so two in the same second keep their own files.
std::atomic<int> cuts{0};

}  // namespace

VideoEditorScreen::VideoEditorScreen(Nembra& application, std::string path, Options options)
    : application_(application), path_(std::move(path)), options_(std::move(options)) {
  if (!options_.trimmer) options_.trimmer = makeMediaTrimmer();
  unreadable_ = options_.trimmer->describe(path_, source_);
  if (!unreadable_ && !(source_.duration > 0)) {
    unreadable_ = Error::media(path_ + " has no duration to trim");
  }
  end_ = unreadable_ ? 0 : source_.duration;
  if (options_.end) moveHandle(Handle::End, *options_.end);
  if (options_.start) moveHandle(Handle::Start, *options_.start);
  active_ = Handle::Start;
}

VideoEditorScreen::~VideoEditorScreen() {
  ticker_.reset();
  // The cut may still be running: its queue waits for it, and its result finds nobody.
  trimQueue_.reset();
}

std::string VideoEditorScreen::chronometerText(double seconds) {
  const long long millis = std::llround(std::max(0.0, seconds) * 1000);
  char text[32];
  std::snprintf(text, sizeof text, "%02lld:%02lld.%03lld", millis / 60000, millis / 1000 % 60,
                millis % 1000);
  return text;
}

double VideoEditorScreen::frameStep() const {
  return source_.frameRate > 0 ? 1.0 / source_.frameRate : 1.0 / 30;
}

double VideoEditorScreen::snap(double seconds) const {
  const double clamped = std::clamp(seconds, 0.0, source_.duration);
  // The end of the video is a handle position even when it falls between pictures.
  if (clamped >= source_.duration) return source_.duration;
  return std::min(source_.duration, std::round(clamped / frameStep()) * frameStep());
}

void VideoEditorScreen::moveHandle(Handle handle, double seconds) {
  if (phase_ != Phase::Editing || unreadable_) return;
  // One picture at least stays between the handles.
  const double step = frameStep();
  if (handle == Handle::Start) {
    start_ = std::max(0.0, std::min(snap(seconds), end_ - step));
  } else {
    end_ = std::min(source_.duration, std::max(snap(seconds), start_ + step));
  }
  active_ = handle;
  if (playing_) stopPlaying();
  // The picture at the moved handle: the first kept, or the last kept.
  if (engine_) engine_->seek(handle == Handle::Start ? start_ : std::max(start_, end_ - step));
  refresh();
}

void VideoEditorScreen::viewDidLoad() {
  view().setTitle("Trim video");
  view().bindKey("space", "play");
  view().bindKey("enter", "trim");
  view().bindKey("q", "close");
  if (unreadable_) {
    refresh();
    fail("Cannot open the video", *unreadable_);
    return;
  }
  MediaPlayerEngineOptions engineOptions;
  // The surface belongs to the view; the engine is closed before the view goes.
  if (VideoSurface* surface = view().videoSurface()) {
    engineOptions.surface = std::shared_ptr<VideoSurface>(shared_from_this(), surface);
  }
  if (options_.withSound) engineOptions.audioOutput = makeAudioOutput();
  engineOptions.postCallback = callbacksOn(application_.mainQueue());
  engine_ = options_.engineFactory ? options_.engineFactory(std::move(engineOptions))
                                   : makeMediaPlayerEngine(std::move(engineOptions));
  if (engine_) {
    engine_->setItems({MediaPlayerItem::file(path_)});
    engine_->seek(start_);
  }
  refresh();
}

void VideoEditorScreen::viewWillDisappear() {
  ticker_.reset();
  if (engine_) engine_->close();
  engine_.reset();
  playing_ = false;
}

void VideoEditorScreen::refresh() {
  if (!presented()) return;
  const bool editing = phase_ == Phase::Editing && !unreadable_;
  const double maximum = std::max(source_.duration, frameStep());
  view().setSlider("start", {start_, 0, maximum, editing, false});
  view().setSlider("end", {end_, 0, maximum, editing, false});
  view().setLabel("selection", chronometerText(start_) + " - " + chronometerText(end_));
  view().setLabel("chronometer", chronometerText(end_ - start_));
  view().setLabel("handle", std::string("arrows move the ") +
                                (active_ == Handle::Start ? "start" : "end") +
                                " (tab: the other handle)");
  view().setLabel("status", status_);
  view().setButton("play",
                   {playing_ ? "pause-white" : "play-white", playing_ ? "Pause" : "Play selection",
                    editing && engine_ != nullptr, false});
  view().setButton("trim", {"check-white", "Trim and upload", editing, false});
  view().setButton("close", {"close-white", "Close", true, false});
}

void VideoEditorScreen::playSelection() {
  if (!engine_ || phase_ != Phase::Editing) return;
  if (playing_) {
    stopPlaying();
    refresh();
    return;
  }
  playing_ = true;
  running_ = inside_ = false;
  engine_->seek(start_);
  engine_->play();
  std::weak_ptr<VideoEditorScreen> weak = weak_from_this();
  ticker_ = Timer::repeating(application_.mainQueue(), kPlayTick, [weak] {
    if (auto self = weak.lock()) self->tick();
  });
  refresh();
}

void VideoEditorScreen::tick() {
  if (!playing_ || !engine_) return;
  const double now = engine_->currentTime();
  const MediaPlayerTimeControlStatus status = engine_->timeControlStatus();
  // Right after play() the engine may still report the time and state from before the seek.
  if (status != MediaPlayerTimeControlStatus::Paused) running_ = true;
  const bool pastEnd = now + frameStep() / 2 >= end_;
  if (!pastEnd) inside_ = true;
  // Playing stops at the end handle, or where the video itself ends.
  if ((inside_ && pastEnd) || (running_ && status == MediaPlayerTimeControlStatus::Paused)) {
    stopPlaying();
    engine_->seek(start_);
    refresh();
  }
}

void VideoEditorScreen::stopPlaying() {
  ticker_.reset();
  if (engine_) engine_->pause();
  playing_ = false;
}

void VideoEditorScreen::trimAndUpload() {
  if (phase_ != Phase::Editing || unreadable_) return;
  stopPlaying();
  phase_ = Phase::Trimming;
  status_ = "Trimming " + chronometerText(end_ - start_);
  refresh();
  const std::string output =
      (std::filesystem::path(FileSystem::shared().temporaryDirectory()) /
       ("trim-" + std::to_string(static_cast<long long>(std::time(nullptr))) + "-" +
        std::to_string(++cuts) + ".mp4"))
          .string();
  if (!trimQueue_) trimQueue_ = std::make_unique<SerialQueue>("com.nembra.editor.trim");
  application_.log("trimming " + path_ + " from " + chronometerText(start_) + " to " +
                   chronometerText(end_) + " into " + output);
  trimQueue_->async([weak = weak_from_this(), trimmer = options_.trimmer, input = path_, output,
                     start = start_, end = end_, main = &application_.mainQueue()] {
    OptionalError error = trimmer->trim(input, output, start, end);
    main->async([weak, output, error] {
      if (auto self = weak.lock()) self->trimmed(output, error);
    });
  });
}

void VideoEditorScreen::trimmed(const std::string& output, const OptionalError& error) {
  if (error) {
    phase_ = Phase::Editing;
    status_ = error->message;
    refresh();
    fail("Cannot trim the video", *error);
    return;
  }
  upload(output);
}

void VideoEditorScreen::upload(const std::string& output) {
  phase_ = Phase::Uploading;
  status_ = "Uploading 0%";
  refresh();
  std::weak_ptr<VideoEditorScreen> weak = weak_from_this();
  MainQueue* main = &application_.mainQueue();
  // The handler's callbacks come on the main queue; hopping again keeps this screen's work out
  // of the handler's own steps.
  application_.uploadingHandler().uploadWithType(
      VIDEO, output, application_.uploadingConfig().extraArgs(),
      [weak, main](const std::optional<Json>& json, const HttpResponse& response,
                   const OptionalError& error) {
        OptionalError stop =
            error ? error : ReplyStatus::check("the upload URL request", response, json);
        if (!stop) return;
        main->async([weak, stop] {
          if (auto self = weak.lock()) self->finish(std::nullopt, stop);
        });
      },
      [weak, main](int64_t sent, int64_t expected) {
        main->async([weak, sent, expected] {
          auto self = weak.lock();
          if (!self || self->phase_ != Phase::Uploading || expected <= 0) return;
          self->status_ = "Uploading " + std::to_string(sent * 100 / expected) + "%";
          self->refresh();
        });
      },
      [weak, main](const std::optional<Json>& json, const HttpResponse& response,
                   const OptionalError& error) {
        OptionalError failure =
            error ? error : ReplyStatus::check("the confirm request", response, json);
        main->async([weak, json, failure] {
          if (auto self = weak.lock()) self->finish(json, failure);
        });
      });
}

void VideoEditorScreen::finish(const std::optional<Json>& json, const OptionalError& error) {
  if (finished_) return;
  finished_ = true;
  phase_ = Phase::Done;
  status_ = error ? error->message : "Uploaded";
  refresh();
  Finished finished = options_.finished;
  auto done = [finished, json, error] {
    if (finished) finished(json, error);
  };
  if (presented()) {
    dismiss(done);
  } else {
    done();
  }
}

void VideoEditorScreen::fail(const std::string& title, const Error& error) {
  application_.logError(title + ": " + error.message);
  std::weak_ptr<VideoEditorScreen> weak = weak_from_this();
  if (options_.dismissOnFailure) {
    // Not from inside the presenter's own step (this may run in viewDidLoad).
    application_.mainQueue().async([weak, error] {
      if (auto self = weak.lock()) self->finish(std::nullopt, error);
    });
    return;
  }
  // A video that cannot be read leaves nothing to edit: the editor goes with the alert.
  view().showAlert({title, error.message, {"OK"}}, [weak, error, closing = bool(unreadable_)](int) {
    if (auto self = weak.lock(); self && closing) self->finish(std::nullopt, error);
  });
}

void VideoEditorScreen::close() {
  // An upload already started goes on under the handler; the editor only stops showing it.
  finish(std::nullopt, Error::cancelled("the editor was closed"));
}

void VideoEditorScreen::buttonPressed(const std::string& name) {
  if (name == "play") {
    playSelection();
  } else if (name == "trim") {
    trimAndUpload();
  } else if (name == "close") {
    close();
  }
}

void VideoEditorScreen::sliderMoved(const std::string& name, double value) {
  if (name == "start") moveHandle(Handle::Start, value);
  if (name == "end") moveHandle(Handle::End, value);
}

void VideoEditorScreen::keyPressed(const std::string& key) {
  const double value = active_ == Handle::Start ? start_ : end_;
  if (key == "tab" || key == "s" || key == "e") {
    active_ = key == "s"                 ? Handle::Start
              : key == "e"               ? Handle::End
              : active_ == Handle::Start ? Handle::End
                                         : Handle::Start;
    refresh();
  } else if (key == "left") {
    moveHandle(active_, value - frameStep());
  } else if (key == "right") {
    moveHandle(active_, value + frameStep());
  } else if (key == "down") {
    moveHandle(active_, value - 1.0);
  } else if (key == "up") {
    moveHandle(active_, value + 1.0);
  }
}

}  // namespace nembra
