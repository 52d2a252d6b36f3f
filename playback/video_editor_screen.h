// The trimming editor: the start and the end of the stretch to keep on two slider handles
// ("start", "end", snapped to the video's pictures, the start always at least one picture
// before the end), a chronometer with the stretch's length, playing of the stretch alone, and
// "trim": the stretch is cut exact to the picture (MediaTrimmer) and uploaded as a video through
// the upload handler, its progress shown, the uploading delegate told as for any upload.
//
// View: sliders "start" and "end"; labels "selection" ("00:01.000 - 00:03.000"),
// "chronometer" ("00:02.000"), "handle" (which one the keys move) and "status"; buttons "play"
// (space), "trim" (enter) and "close" (q). Keys: tab switches the handle the other keys move ("s"
// and "e" pick one), left and right move it by one picture, down and up by one second.
//
// Threading: main queue only. The cut runs on the serial queue "com.nembra.editor.trim"; the
// finished callback runs on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/json.h"
#include "platform/dispatch/timer.h"
#include "platform/media/media_player_engine.h"
#include "platform/media/media_trimmer.h"
#include "platform/ui/screen.h"

namespace nembra {

class Nembra;
class SerialQueue;

class VideoEditorScreen final : public Screen,
                                public std::enable_shared_from_this<VideoEditorScreen> {
 public:
  enum class Handle { Start, End };
  enum class Phase { Editing, Trimming, Uploading, Done };

  // The confirm request's answer once the cut is uploaded; an error when the file could not be
  // read or cut, the upload failed, or the user closed the editor first (kind Cancelled).
  using Finished = std::function<void(const std::optional<Json>& json, const OptionalError& error)>;
  using EngineFactory =
      std::function<std::unique_ptr<MediaPlayerEngine>(MediaPlayerEngineOptions options)>;

  struct Options {
    // Null: the plug-in's trimmer.
    std::shared_ptr<MediaTrimmer> trimmer;
    // Empty: the plug-in's player engine. One returning null leaves "play" disabled.
    EngineFactory engineFactory;
    bool withSound = true;
    // Where the handles start, moved as the user would; unset: the whole video.
    std::optional<double> start;
    std::optional<double> end;
    // A failed cut or an unreadable file ends the editor at once (no alert to answer): for
    // callers that trim without a person at the screen.
    bool dismissOnFailure = false;
    Finished finished;
  };

  VideoEditorScreen(Nembra& application, std::string path, Options options);
  ~VideoEditorScreen() override;

  std::string name() const override { return "video-editor"; }

  double start() const { return start_; }
  double end() const { return end_; }
  double duration() const { return source_.duration; }
  Phase phase() const { return phase_; }
  Handle activeHandle() const { return active_; }

  // Moves a handle as the user would: snapped to a picture, kept inside the video and on its
  // side of the other handle.
  void moveHandle(Handle handle, double seconds);
  void playSelection();
  // Cuts the stretch and uploads it.
  void trimAndUpload();
  void close();

  // "mm:ss.mmm"; minutes go past 59 rather than wrap into hours.
  static std::string chronometerText(double seconds);

  void buttonPressed(const std::string& name) override;
  void sliderMoved(const std::string& name, double value) override;
  void keyPressed(const std::string& key) override;

 protected:
  void viewDidLoad() override;
  void viewWillDisappear() override;

 private:
  double frameStep() const;
  double snap(double seconds) const;
  void refresh();
  void stopPlaying();
  void tick();
  void trimmed(const std::string& output, const OptionalError& error);
  void upload(const std::string& output);
  void finish(const std::optional<Json>& json, const OptionalError& error);
  void fail(const std::string& title, const Error& error);

  Nembra& application_;
  const std::string path_;
  Options options_;
  TrimSource source_;
  OptionalError unreadable_;
  double start_ = 0;
  double end_ = 0;
  Handle active_ = Handle::Start;
  Phase phase_ = Phase::Editing;
  bool playing_ = false;
  bool running_ = false;
  bool inside_ = false;
  std::string status_;
  std::unique_ptr<MediaPlayerEngine> engine_;
  std::unique_ptr<Timer> ticker_;
  std::unique_ptr<SerialQueue> trimQueue_;
  bool finished_ = false;
};

}  // namespace nembra
