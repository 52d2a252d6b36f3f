// The full-screen video player: the content's pictures in the video area, play/pause and close
// buttons, a time slider and label, and the current subtitle as the "subtitle" label (drawn
// over the video by the window, printed as it changes by the terminal). Closing, or the end of
// the content, dismisses it.
//
// Threading: main queue only.
#pragma once

#include <memory>

#include "platform/dispatch/timer.h"
#include "platform/ui/screen.h"
#include "playback/nembra_player.h"

namespace nembra {

class MainQueue;

class PlayerScreen final : public Screen, public std::enable_shared_from_this<PlayerScreen> {
 public:
  // |withSound| false: the sound is not played (no device is opened). A non-empty |adTagUrl|
  // plays the tag's ads on the same screen before the content.
  PlayerScreen(std::shared_ptr<NembraPlayer> player, MainQueue& mainQueue, bool withSound = true,
               std::string adTagUrl = "");
  ~PlayerScreen() override;

  std::string name() const override { return "video-player"; }
  const std::shared_ptr<NembraPlayer>& player() const { return player_; }

  void buttonPressed(const std::string& name) override;
  void sliderMoved(const std::string& name, double value) override;

 protected:
  void viewDidLoad() override;
  void viewWillDisappear() override;

 private:
  void refresh();

  std::shared_ptr<NembraPlayer> player_;
  MainQueue& mainQueue_;
  const bool withSound_;
  const std::string adTagUrl_;
  bool playing_ = false;
  std::unique_ptr<Timer> ticker_;
};

}  // namespace nembra
