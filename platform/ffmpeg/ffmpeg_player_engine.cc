#include "platform/ffmpeg/ffmpeg_player_engine.h"

#include "platform/dispatch/thread_name.h"

namespace nembra::player {

PlayerEngine::PlayerEngine(MediaPlayerEngineOptions options)
    : surface_(std::move(options.surface)),
      audioOutput_(std::move(options.audioOutput)),
      postCallback_(std::move(options.postCallback)),
      observer_(std::move(options.observer)) {
  thread_ = std::thread([this] {
    setCurrentThreadName("com.nembra.player.items");
    runCommands();
  });
}

PlayerEngine::~PlayerEngine() { close(); }

void PlayerEngine::post(Command command) {
  std::lock_guard lock(commandsMutex_);
  if (stopCommands_) return;
  commands_.push_back(std::move(command));
  commandsWake_.notify_one();
}

void PlayerEngine::runCommands() {
  for (;;) {
    Command command;
    {
      std::unique_lock lock(commandsMutex_);
      commandsWake_.wait(lock, [this] { return stopCommands_ || !commands_.empty(); });
      if (stopCommands_) return;
      command = std::move(commands_.front());
      commands_.pop_front();
    }
    command();
  }
}

void PlayerEngine::notify(std::function<void(MediaPlayerObserver&)> call) {
  if (!postCallback_) return;
  postCallback_([alive = alive_, observer = observer_, call = std::move(call)] {
    if (!alive->load()) return;
    if (auto target = observer.lock()) call(*target);
  });
}

void PlayerEngine::setStatusLocked(MediaPlayerStatus status, const OptionalError& error) {
  if (status == status_) return;
  status_ = status;
  notify([status, error](MediaPlayerObserver& observer) {
    observer.playerStatusChanged(status, error);
  });
}

void PlayerEngine::updateTimeControlLocked() {
  MediaPlayerTimeControlStatus now = MediaPlayerTimeControlStatus::Paused;
  if (playing_) {
    const bool flowing =
        session_ && status_ == MediaPlayerStatus::ReadyToPlay && !session_->waiting();
    now = flowing ? MediaPlayerTimeControlStatus::Playing
                  : MediaPlayerTimeControlStatus::WaitingToPlay;
  }
  if (now == timeControl_) return;
  timeControl_ = now;
  notify([now](MediaPlayerObserver& observer) { observer.playerTimeControlStatusChanged(now); });
}

void PlayerEngine::openItem(size_t index, uint64_t generation) {
  std::unique_ptr<PlayerSession> previous;
  {
    std::lock_guard lock(mutex_);
    if (closed_ || generation != generation_) return;
    previous = std::move(session_);
    updateTimeControlLocked();
  }
  // Closed outside the lock: its threads may be waiting to post a report.
  if (previous) {
    previous->close();
    const uint64_t dropped = previous->droppedPictures();
    previous.reset();
    std::lock_guard lock(mutex_);
    droppedBefore_ += dropped;
  }
  if (surface_) surface_->clear();
  std::lock_guard lock(mutex_);
  if (closed_ || generation != generation_ || index >= items_.size()) return;
  index_ = index;
  finished_ = false;
  setStatusLocked(MediaPlayerStatus::Unknown, std::nullopt);
  session_ =
      std::make_unique<PlayerSession>(++sessionIds_, items_[index], surface_, audioOutput_.get(),
                                      static_cast<PlayerSession::Listener&>(*this));
  session_->start(!playing_, muted_);
  if (pendingSeek_) session_->seek(*pendingSeek_);
  pendingSeek_.reset();
  updateTimeControlLocked();
}

void PlayerEngine::sessionReady(PlayerSession& session) {
  post([this, id = session.id()] {
    std::lock_guard lock(mutex_);
    if (!session_ || session_->id() != id) return;
    setStatusLocked(MediaPlayerStatus::ReadyToPlay, std::nullopt);
    updateTimeControlLocked();
  });
}

void PlayerEngine::sessionFailed(PlayerSession& session, const Error& error) {
  post([this, id = session.id(), error] {
    std::lock_guard lock(mutex_);
    if (!session_ || session_->id() != id) return;
    setStatusLocked(MediaPlayerStatus::Failed, error);
    notify([index = index_, error](MediaPlayerObserver& observer) {
      observer.playerItemDidFail(index, error);
    });
    playing_ = false;  // the queue stops at a broken item
    updateTimeControlLocked();
  });
}

void PlayerEngine::sessionWaitingChanged(PlayerSession& session, bool) {
  post([this, id = session.id()] {
    std::lock_guard lock(mutex_);
    if (!session_ || session_->id() != id) return;
    updateTimeControlLocked();
  });
}

void PlayerEngine::sessionEnded(PlayerSession& session) {
  post([this, id = session.id()] {
    size_t next;
    uint64_t generation;
    {
      std::lock_guard lock(mutex_);
      if (!session_ || session_->id() != id) return;
      notify([index = index_](MediaPlayerObserver& observer) {
        observer.playerItemDidPlayToEnd(index);
      });
      next = index_ + 1;
      generation = generation_;
      if (next >= items_.size()) {
        // The last item stays, paused at its end.
        finished_ = true;
        playing_ = false;
        session_->setPaused(true);
        updateTimeControlLocked();
        return;
      }
    }
    openItem(next, generation);
  });
}

void PlayerEngine::setItems(std::vector<MediaPlayerItem> items) {
  uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    items_ = std::move(items);
    index_ = 0;
    pendingSeek_.reset();
    generation = ++generation_;
  }
  post([this, generation] { openItem(0, generation); });
}

void PlayerEngine::append(MediaPlayerItem item) {
  std::lock_guard lock(mutex_);
  if (closed_) return;
  items_.push_back(std::move(item));
  // An empty queue, or one whose last item has ended, goes on with the new one.
  if (items_.size() == 1 || finished_) {
    const size_t next = items_.size() == 1 ? 0 : index_ + 1;
    finished_ = false;
    post([this, next, generation = generation_] { openItem(next, generation); });
  }
}

void PlayerEngine::play() {
  std::lock_guard lock(mutex_);
  // A broken item stays stopped: playing it would only wait forever.
  if (closed_ || playing_ || status_ == MediaPlayerStatus::Failed) return;
  playing_ = true;
  if (session_) {
    if (finished_) {
      finished_ = false;
      session_->seek(0);  // play after the end starts the item over
    }
    session_->setPaused(false);
  }
  updateTimeControlLocked();
}

void PlayerEngine::pause() {
  std::lock_guard lock(mutex_);
  if (closed_) return;
  playing_ = false;
  if (session_) session_->setPaused(true);
  updateTimeControlLocked();
}

void PlayerEngine::seek(double seconds) {
  std::lock_guard lock(mutex_);
  if (closed_) return;
  finished_ = false;
  if (!session_) {
    pendingSeek_ = seconds;  // the item is still being opened
    return;
  }
  session_->seek(seconds);
  updateTimeControlLocked();
}

void PlayerEngine::setMuted(bool muted) {
  std::lock_guard lock(mutex_);
  muted_ = muted;
  if (session_) session_->setMuted(muted);
}

bool PlayerEngine::muted() const {
  std::lock_guard lock(mutex_);
  return muted_;
}

double PlayerEngine::rate() const {
  std::lock_guard lock(mutex_);
  return playing_ ? 1.0 : 0.0;
}

double PlayerEngine::currentTime() const {
  std::lock_guard lock(mutex_);
  return session_ ? session_->currentTime() : 0.0;
}

uint64_t PlayerEngine::droppedPictureCount() const {
  std::lock_guard lock(mutex_);
  return droppedBefore_ + (session_ ? session_->droppedPictures() : 0);
}

double PlayerEngine::duration() const {
  std::lock_guard lock(mutex_);
  return session_ ? session_->duration() : 0.0;
}

MediaPlayerStatus PlayerEngine::status() const {
  std::lock_guard lock(mutex_);
  return status_;
}

MediaPlayerTimeControlStatus PlayerEngine::timeControlStatus() const {
  std::lock_guard lock(mutex_);
  return timeControl_;
}

size_t PlayerEngine::currentItemIndex() const {
  std::lock_guard lock(mutex_);
  return index_;
}

void PlayerEngine::close() {
  std::unique_ptr<PlayerSession> session;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    closed_ = true;
    alive_->store(false);
    session = std::move(session_);
  }
  {
    std::lock_guard lock(commandsMutex_);
    stopCommands_ = true;
    commandsWake_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
  session.reset();
}

}  // namespace nembra::player
