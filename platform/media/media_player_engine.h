// The local-file player engine that the recorded-video preview and the players drive: it opens a
// file or a custom byte source, demuxes and decodes on threads of its own, shows pictures on a
// screen's VideoSurface and plays sound through an AudioOutput, timing the pictures against the
// sound (against the system clock when there is no sound). Items play one after another.
//
// Rate is 1.0 while playing; there is no other speed.
//
// Threading: the engine's operations may be called from any thread (normally the main queue);
// none blocks on media I/O. Observer calls arrive on the queue the owner gives (postCallback),
// normally the main queue, never on a thread of the engine. Destroying the engine closes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "nembra/error.h"
#include "nembra/task_queue.h"
#include "platform/audio/audio_output.h"
#include "platform/ui/video_surface.h"

namespace nembra {

// Bytes of a media file that come from somewhere other than a local path (the caching loader).
//
// Threading: read, seek and size are called from the engine's demux thread only; cancel from
// any thread, while a read may be blocked.
class MediaByteSource {
 public:
  virtual ~MediaByteSource() = default;

  // Copies up to |size| bytes from the current position into |buffer|, blocking until at least
  // one byte is there. Returns the count, 0 at the end of the file, -1 on failure or after
  // cancel().
  virtual int64_t read(uint8_t* buffer, size_t size) = 0;
  // Moves the position to |offset| from the start; false when the source cannot get there.
  virtual bool seek(int64_t offset) = 0;
  // Total size in bytes, -1 while unknown.
  virtual int64_t size() = 0;
  // Makes a blocked read return -1 at once, and every later one too.
  virtual void cancel() = 0;
};

// One entry of the play queue: a local path, or a byte source (which wins when both are set).
struct MediaPlayerItem {
  static MediaPlayerItem file(std::string path) {
    MediaPlayerItem item;
    item.path = std::move(path);
    return item;
  }

  std::string path;
  std::shared_ptr<MediaByteSource> source;
  // Used in messages for a byte source ("clip.mp4"); defaults to the path.
  std::string name;
  // A text track (WebVTT file) shown over the video. Carried with the item; the engine does not
  // render it yet.
  std::string textTrackPath;
};

enum class MediaPlayerStatus { Unknown, ReadyToPlay, Failed };

// Paused: play() not asked, or the last item has ended. Waiting: asked to play, but opening,
// seeking or starved of data. Playing: the clock runs.
enum class MediaPlayerTimeControlStatus { Paused, WaitingToPlay, Playing };

const char* mediaPlayerStatusName(MediaPlayerStatus status);
const char* mediaPlayerTimeControlStatusName(MediaPlayerTimeControlStatus status);

// Each call reports a real change: a value equal to the last one reported is never repeated.
// All calls arrive on the engine's callback queue.
class MediaPlayerObserver {
 public:
  virtual ~MediaPlayerObserver() = default;

  // The current item's status; |error| is set with Failed.
  virtual void playerStatusChanged(MediaPlayerStatus status, const OptionalError& error) {
    (void)status;
    (void)error;
  }
  virtual void playerTimeControlStatusChanged(MediaPlayerTimeControlStatus status) { (void)status; }
  // Item |index| of the queue played to its end; the next one, if any, starts at once.
  virtual void playerItemDidPlayToEnd(size_t index) { (void)index; }
  // Item |index| could not be opened or broke while playing; the queue stops there.
  virtual void playerItemDidFail(size_t index, const Error& error) {
    (void)index;
    (void)error;
  }
};

struct MediaPlayerEngineOptions {
  // Where pictures go; may be null for sound only. Shared with the screen that shows it.
  std::shared_ptr<VideoSurface> surface;
  // Where sound goes; may be null for pictures only (timed by the system clock then).
  std::unique_ptr<AudioOutput> audioOutput;
  // Hands each observer call to the owner's queue, normally the main queue: callbacksOn(queue).
  // Empty: no observer calls.
  std::function<void(Task)> postCallback;
  std::weak_ptr<MediaPlayerObserver> observer;
};

class MediaPlayerEngine {
 public:
  // Closes: see close().
  virtual ~MediaPlayerEngine() = default;

  // Replaces the queue with |items| and opens the first one; it starts when play() is asked.
  virtual void setItems(std::vector<MediaPlayerItem> items) = 0;
  // Adds |item| to the end of the queue; it opens when its turn comes.
  virtual void append(MediaPlayerItem item) = 0;

  // Play after the last item has ended starts that item over.
  virtual void play() = 0;
  virtual void pause() = 0;
  // Moves the current item to |seconds| (clamped to the item), accurate to the frame: the first
  // picture shown afterwards is the one whose time span holds |seconds|. Works while paused too:
  // that picture is shown at once.
  virtual void seek(double seconds) = 0;
  virtual void setMuted(bool muted) = 0;
  virtual bool muted() const = 0;

  // 1.0 while asked to play, 0.0 otherwise.
  virtual double rate() const = 0;
  // Seconds into the current item (the time of the sound being heard, or of the picture shown
  // when there is no sound).
  virtual double currentTime() const = 0;
  // The current item's duration in seconds; 0 while unknown.
  virtual double duration() const = 0;
  virtual MediaPlayerStatus status() const = 0;
  virtual MediaPlayerTimeControlStatus timeControlStatus() const = 0;
  // Index in the queue of the current item. The last item stays current once it has ended
  // (paused at its end), so that seek and play replay it.
  virtual size_t currentItemIndex() const = 0;
  // Pictures skipped since the engine was made because they were already late when due (the
  // machine could not keep up). Every picture of an item played through is either shown on the
  // surface or counted here.
  virtual uint64_t droppedPictureCount() const = 0;

  // Stops everything and releases the media. Returns within 100 ms even while a read is blocked
  // (the byte source is cancelled). Calls already posted to the callback queue are dropped: once
  // close() has returned on that queue, the observer hears nothing more.
  virtual void close() = 0;
};

// Posts to |queue|, which must outlive the engine. (The engine itself only sees the function:
// the plug-in never calls the core's queue classes directly.)
inline std::function<void(Task)> callbacksOn(TaskQueue& queue) {
  return [&queue](Task call) { queue.async(std::move(call)); };
}

// The engine of the media plug-in.
std::unique_ptr<MediaPlayerEngine> makeMediaPlayerEngine(MediaPlayerEngineOptions options);

}  // namespace nembra
