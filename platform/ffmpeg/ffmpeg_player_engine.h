// The plug-in's MediaPlayerEngine: a queue of items, one PlayerSession at a time, and the
// observer calls, each made only when its value really changes.
//
// Threading: the operations from any thread. Sessions are opened, advanced and closed on the
// engine's own thread ("com.nembra.player.items"), which is also where the sessions' reports
// land: a session's threads only post to it, so they never wait on the engine's lock. Observer
// calls are posted to the owner's queue.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/ffmpeg/ffmpeg_player_session.h"
#include "platform/media/media_player_engine.h"

namespace nembra::player {

class PlayerEngine final : public MediaPlayerEngine, private PlayerSession::Listener {
 public:
  explicit PlayerEngine(MediaPlayerEngineOptions options);
  ~PlayerEngine() override;

  void setItems(std::vector<MediaPlayerItem> items) override;
  void append(MediaPlayerItem item) override;
  void play() override;
  void pause() override;
  void seek(double seconds) override;
  void setMuted(bool muted) override;
  bool muted() const override;
  double rate() const override;
  double currentTime() const override;
  double duration() const override;
  MediaPlayerStatus status() const override;
  MediaPlayerTimeControlStatus timeControlStatus() const override;
  size_t currentItemIndex() const override;
  uint64_t droppedPictureCount() const override;
  void close() override;

 private:
  using Command = std::function<void()>;

  void sessionReady(PlayerSession& session) override;
  void sessionFailed(PlayerSession& session, const Error& error) override;
  void sessionWaitingChanged(PlayerSession& session, bool waiting) override;
  void sessionEnded(PlayerSession& session) override;

  void post(Command command);
  void runCommands();
  // On the engine's thread: closes the current session and opens item |index|, if any.
  void openItem(size_t index, uint64_t generation);
  // REQUIRES: mutex_ held.
  void setStatusLocked(MediaPlayerStatus status, const OptionalError& error);
  void updateTimeControlLocked();
  void notify(std::function<void(MediaPlayerObserver&)> call);

  const std::shared_ptr<VideoSurface> surface_;
  const std::unique_ptr<AudioOutput> audioOutput_;
  const std::function<void(Task)> postCallback_;
  const std::weak_ptr<MediaPlayerObserver> observer_;
  // Cleared by close(): posted observer calls check it before running.
  const std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);

  mutable std::mutex mutex_;
  std::vector<MediaPlayerItem> items_;
  size_t index_ = 0;
  uint64_t generation_ = 0;  // bumped by setItems: reports of older sessions are dropped
  std::unique_ptr<PlayerSession> session_;
  uint64_t sessionIds_ = 0;
  uint64_t droppedBefore_ = 0;         // pictures dropped by the sessions already closed
  bool playing_ = false;               // play() asked
  bool finished_ = false;              // the last item has played to its end
  std::optional<double> pendingSeek_;  // asked before the item's session existed
  bool muted_ = false;
  bool closed_ = false;
  MediaPlayerStatus status_ = MediaPlayerStatus::Unknown;
  MediaPlayerTimeControlStatus timeControl_ = MediaPlayerTimeControlStatus::Paused;

  std::mutex commandsMutex_;
  std::condition_variable commandsWake_;
  std::deque<Command> commands_;  // guarded by commandsMutex_
  bool stopCommands_ = false;     // guarded by commandsMutex_
  std::thread thread_;
};

}  // namespace nembra::player
