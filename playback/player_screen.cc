#include "playback/player_screen.h"

#include <cstdio>

#include "nembra/main_queue.h"

namespace nembra {

namespace {

constexpr std::chrono::milliseconds kRefreshInterval{100};

std::string clock(double seconds) {
  const int whole = static_cast<int>(seconds);
  char text[32];
  std::snprintf(text, sizeof(text), "%d:%02d", whole / 60, whole % 60);
  return text;
}

}  // namespace

PlayerScreen::PlayerScreen(std::shared_ptr<NembraPlayer> player, MainQueue& mainQueue,
                           bool withSound, std::string adTagUrl)
    : player_(std::move(player)),
      mainQueue_(mainQueue),
      withSound_(withSound),
      adTagUrl_(std::move(adTagUrl)) {}

PlayerScreen::~PlayerScreen() {
  ticker_.reset();
  if (player_) player_->close();
}

void PlayerScreen::viewDidLoad() {
  view().setTitle("Nembra");
  // The surface belongs to the view; the engine is closed before the view goes.
  VideoSurface* surface = view().videoSurface();
  std::shared_ptr<VideoSurface> shared;
  if (surface) shared = std::shared_ptr<VideoSurface>(shared_from_this(), surface);
  std::function<std::unique_ptr<AudioOutput>()> audio;
  if (withSound_) audio = [] { return makeAudioOutput(); };
  player_->setOutputs(shared, audio);
  std::weak_ptr<PlayerScreen> weak = weak_from_this();
  player_->setDismiss([weak] {
    if (auto self = weak.lock(); self && self->presented()) self->dismiss();
  });
  // A failed item ends the screen as its end does, once its owner has heard of it.
  auto finished = player_->didFinishPlaying();
  player_->setDidFinishPlaying(
      [weak, finished](const std::string& token, const OptionalError& error) {
        if (finished) finished(token, error);
        auto self = weak.lock();
        if (error && self && self->presented()) self->dismiss();
      });

  view().setButton("play", {"pause-white", "Pause", true, false});
  view().setButton("close", {"close-white", "Close", true, false});
  view().bindKey("space", "play");
  view().bindKey("escape", "close");
  view().bindKey("q", "close");
  view().setSlider("time", {0, 0, 1, true, false});
  view().setLabel("time", "0:00 / 0:00");
  player_->play();
  playing_ = true;
  if (!adTagUrl_.empty()) {
    // The ad plays on this screen's surface; while it does the content is paused and its
    // place says so.
    player_->playWithAdsWithAdTagURL(adTagUrl_, AdDisplayContainer{shared, audio},
                                     [weak](bool visible) {
                                       auto self = weak.lock();
                                       if (!self || !self->presented()) return;
                                       self->view().setLabel("ad", visible ? "" : "Advertisement");
                                     });
  }
  ticker_ = Timer::repeating(mainQueue_, kRefreshInterval, [weak] {
    if (auto self = weak.lock()) self->refresh();
  });
}

void PlayerScreen::viewWillDisappear() {
  ticker_.reset();
  player_->close();
}

void PlayerScreen::refresh() {
  if (!presented()) return;
  const double duration = player_->duration();
  const double now = player_->currentTime();
  view().setLabel("time", clock(now) + " / " + clock(duration));
  view().setSlider("time", {now, 0, duration > 0 ? duration : 1, duration > 0, false});
  std::optional<std::string> subtitle = player_->currentSubtitle();
  if (subtitle || player_->item(0).textTrackPath.size()) {
    view().setLabel("subtitle", subtitle.value_or(""));
  }
}

void PlayerScreen::buttonPressed(const std::string& name) {
  if (name == "close") {
    dismiss();
  } else if (name == "play") {
    playing_ = !playing_;
    if (playing_) {
      player_->play();
    } else {
      player_->pause();
    }
    view().setButton("play", playing_ ? ButtonState{"pause-white", "Pause", true, false}
                                      : ButtonState{"play-white", "Play", true, false});
  }
}

void PlayerScreen::sliderMoved(const std::string& name, double value) {
  if (name == "time") player_->seek(value);
}

}  // namespace nembra
