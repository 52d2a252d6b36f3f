#include "playback/nembra_audio_player.h"

#include <cmath>
#include <cstdio>

#include "nembra/application.h"
#include "nembra/nembra_delegates.h"

namespace nembra {

namespace {

constexpr std::chrono::milliseconds kSliderInterval{1000};

std::string hoursMinutesSeconds(double seconds) {
  const int whole = static_cast<int>(seconds);
  char text[32];
  std::snprintf(text, sizeof(text), "%02d:%02d:%02d", whole / 3600, whole / 60 % 60, whole % 60);
  return text;
}

std::string minutesSeconds(double seconds) {
  const int whole = static_cast<int>(seconds);
  char text[32];
  std::snprintf(text, sizeof(text), "%d:%02d", whole / 60, whole % 60);
  return text;
}

// The framework's icon, shown by the desktop beside the now-playing information.
std::string iconPath() {
  const char* resources = std::getenv("NEMBRA_RESOURCES");
  return resources ? std::string(resources) + "/icon.png" : std::string();
}

}  // namespace

NembraAudioPlayer::NembraAudioPlayer(Nembra& application, std::vector<std::string> paths,
                                     AudioPlaybackEngine& engine)
    : m_nembra(application), m_audioPaths(std::move(paths)), engine_(engine) {}

NembraAudioPlayer::~NembraAudioPlayer() {
  sliderTimer_.reset();
  if (observing_) engine_.removeListener(this);
}

void NembraAudioPlayer::viewDidLoad() {
  view().setTitle("Nembra");
  engine_.addListener(weak_from_this());
  observing_ = true;
  view().setLabel("status", "Loading");
  view().setButton("before", {"previous-black", "Previous", true, true});
  view().setButton("rewind", {"previous-black", "-10s", true, true});
  view().setButton("play", {"play-black", "Play", true, true});
  view().setButton("forward", {"next-black", "+10s", true, true});
  view().setButton("next", {"next-black", "Next", true, true});
  view().setButton("close", {"close-black", "Close", true, false});
  view().bindKey("space", "play");
  view().bindKey("left", "rewind");
  view().bindKey("right", "forward");
  view().bindKey("p", "before");
  view().bindKey("n", "next");
  view().bindKey("escape", "close");
  view().bindKey("q", "close");
  slider_ = SliderState{0, 0, 1, true, false};
  view().setSlider("time", slider_);
  view().setLabel("duration", "");
  seekTimeInterval_ = 10.0;
  currentItemIndex_ = 0;
  loadAudio();
  onPlayOrPause();
}

void NembraAudioPlayer::viewWillDisappear() {
  playImage_ = "play-black";
  sliderTimer_.reset();
  if (observing_) engine_.removeListener(this);
  observing_ = false;
}

void NembraAudioPlayer::setButtonHidden(const std::string& name, bool hidden) {
  static const std::map<std::string, std::pair<std::string, std::string>> looks = {
      {"before", {"previous-black", "Previous"}},
      {"rewind", {"previous-black", "-10s"}},
      {"forward", {"next-black", "+10s"}},
      {"next", {"next-black", "Next"}}};
  if (name == "play") {
    playHidden_ = hidden;
    view().setButton("play",
                     {playImage_, playImage_ == "play-black" ? "Play" : "Pause", true, hidden});
    return;
  }
  const auto& look = looks.at(name);
  view().setButton(name, {look.first, look.second, true, hidden});
}

bool NembraAudioPlayer::playButtonHidden() const { return playHidden_; }

void NembraAudioPlayer::loadAudio() {
  if (engine_.isPlaying()) {
    engine_.playPauseMediaFileWithAudioUrl(m_audioPaths[currentItemIndex_], {}, 0.0, nullptr);
  }
  view().setLabel("status", "Loading");
  view().setLabel("duration", "00:00:00");
  view().setLabel("currentTime", "00:00");
  view().setLabel("totalTime", "00:00");
  slider_.value = 0.0;
  view().setSlider("time", slider_);
  playImage_ = "play-black";
  sliderTimer_.reset();
  showLoadingIndicator();
}

void NembraAudioPlayer::showLoadingIndicator() {
  for (const char* name : {"before", "rewind", "play", "forward", "next"}) {
    setButtonHidden(name, true);
  }
  view().setLabel("duration", "");
  view().setLabel("loading", "…");
}

void NembraAudioPlayer::hideLoadingIndicator() {
  for (const char* name : {"play", "rewind", "forward"}) setButtonHidden(name, false);
  const bool several = m_audioPaths.size() > 1;
  setButtonHidden("before", !several);
  setButtonHidden("next", !several);
  view().setLabel("duration", "00:00:00");
  view().setLabel("loading", "");
}

void NembraAudioPlayer::onPlayOrPause() {
  if (m_audioPaths.empty()) return;
  showLoadingIndicator();
  NowPlayingInfo info = AudioPlaybackEngine::springboardDictionaryWithTitle(
      "Nembra", "", engine_.durationInSeconds(), "Nembra Title", iconPath());
  std::weak_ptr<NembraAudioPlayer> weak = weak_from_this();
  engine_.playPauseMediaFileWithAudioUrl(m_audioPaths[currentItemIndex_], info, 0.0, [weak] {
    auto self = weak.lock();
    if (!self || !self->presented()) return;
    if (self->playButtonHidden()) {
      auto delegate = self->m_nembra.getPlayerDelegate();
      if (delegate && delegate->playerReadyToPlay) delegate->playerReadyToPlay();
    }
    self->hideLoadingIndicator();
    self->setupSlider();
    self->updatePlayButton();
  });
}

void NembraAudioPlayer::updatePlayButton() {
  if (!engine_.isPlaying()) {
    view().setLabel("status", "Paused");
    playImage_ = "play-black";
  } else {
    view().setLabel("status", "Playing");
    playImage_ = "pause-black";
  }
  setButtonHidden("play", playHidden_);
  // Both ways: the delegate has no paused event here, kept as the players' hosts expect it.
  auto delegate = m_nembra.getPlayerDelegate();
  if (delegate && delegate->playerPlaying) delegate->playerPlaying();
}

void NembraAudioPlayer::onPlayBeforeItem() {
  loadAudio();
  currentItemIndex_ -= 1;
  if (currentItemIndex_ < 0) currentItemIndex_ = static_cast<int32_t>(m_audioPaths.size()) - 1;
  onPlayOrPause();
}

void NembraAudioPlayer::onPlayNextItem() {
  loadAudio();
  currentItemIndex_ += 1;
  if (currentItemIndex_ >= static_cast<int32_t>(m_audioPaths.size())) currentItemIndex_ = 0;
  onPlayOrPause();
}

void NembraAudioPlayer::onPlayRewind() {
  engine_.skipDirectionWithSkipDirection(0, seekTimeInterval_, engine_.currentTimeInSeconds());
}

void NembraAudioPlayer::onPlayForward() {
  engine_.skipDirectionWithSkipDirection(1, seekTimeInterval_, engine_.currentTimeInSeconds());
}

void NembraAudioPlayer::setupSlider() {
  const double duration = engine_.durationInSeconds();
  slider_.minimum = 0.0;
  slider_.maximum = duration;
  view().setSlider("time", slider_);
  view().setLabel("totalTime", minutesSeconds(duration));
  std::weak_ptr<NembraAudioPlayer> weak = weak_from_this();
  sliderTimer_ = Timer::repeating(m_nembra.mainQueue(), kSliderInterval, [weak] {
    auto self = weak.lock();
    if (!self || !self->presented()) return;
    const double now = self->engine_.currentTimeInSeconds();
    self->slider_.value = now;
    self->view().setSlider("time", self->slider_);
    self->updateCurrentTimeLabel(now);
  });
}

void NembraAudioPlayer::updateCurrentTimeLabel(double seconds) {
  const double rounded = std::round(seconds * 100) / 100;
  if (rounded != beforeSeekTime_) {
    auto delegate = m_nembra.getPlayerDelegate();
    if (delegate && delegate->playerSeek) delegate->playerSeek(rounded);
    beforeSeekTime_ = rounded;
  }
  view().setLabel("duration", hoursMinutesSeconds(seconds));
  view().setLabel("currentTime", minutesSeconds(seconds));
}

void NembraAudioPlayer::onChangeCurrentTime(double value) {
  if (!engine_.isPlaying()) return;
  slider_.enabled = false;
  view().setSlider("time", slider_);
  std::weak_ptr<NembraAudioPlayer> weak = weak_from_this();
  engine_.seekPlayerToTimeWithValue(value, [weak] {
    auto self = weak.lock();
    if (!self || !self->presented()) return;
    self->slider_.enabled = true;
    self->view().setSlider("time", self->slider_);
    self->updatePlayButton();
  });
}

void NembraAudioPlayer::episodeLoadedNotification(int loadState) {
  if (loadState != AudioPlaybackEngine::kLoadStateLoaded) return;
  auto delegate = m_nembra.getPlayerDelegate();
  if (delegate && delegate->playerReadyToPlay) delegate->playerReadyToPlay();
}

void NembraAudioPlayer::playerDidReachEndNotification() {
  if (!presented()) return;
  updatePlayButton();
  auto delegate = m_nembra.getPlayerDelegate();
  if (delegate && delegate->playerEnded) delegate->playerEnded();
  if (m_audioPaths.size() < 2) {
    close(false);
  } else {
    onPlayNextItem();
  }
}

void NembraAudioPlayer::playbackChangedByDesktop() {
  if (presented()) updatePlayButton();
}

void NembraAudioPlayer::onClose() { close(true); }

void NembraAudioPlayer::close(bool cancelledByUser) {
  sliderTimer_.reset();
  if (engine_.isPlaying()) {
    engine_.playPauseMediaFileWithAudioUrl(m_audioPaths[currentItemIndex_], {}, 0.0, nullptr);
  }
  if (cancelledByUser) {
    auto delegate = m_nembra.getPlayerDelegate();
    if (delegate && delegate->playerCancelledByUser) delegate->playerCancelledByUser();
  }
  if (observing_) engine_.removeListener(this);
  observing_ = false;
  if (presented()) dismiss();
}

void NembraAudioPlayer::buttonPressed(const std::string& name) {
  if (name == "play") {
    onPlayOrPause();
  } else if (name == "before") {
    onPlayBeforeItem();
  } else if (name == "next") {
    onPlayNextItem();
  } else if (name == "rewind") {
    onPlayRewind();
  } else if (name == "forward") {
    onPlayForward();
  } else if (name == "close") {
    onClose();
  }
}

void NembraAudioPlayer::sliderMoved(const std::string& name, double value) {
  if (name == "time") onChangeCurrentTime(value);
}

}  // namespace nembra
