#include "playback/nembra_audio_player.h"

#include <gtest/gtest.h>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"

namespace nembra {
namespace {

// The audio engine as the player sees it: the test says where the item is and when it ends.
class FakeAudioEngine final : public AudioPlaybackEngine {
 public:
  void playPauseMediaFileWithAudioUrl(const std::string& url, const NowPlayingInfo& info, double,
                                      std::function<void()> completion) override {
    if (url != url_) {
      url_ = url;
      playing_ = true;
      played.push_back(url);
      infos.push_back(info);
    } else {
      playing_ = !playing_;
    }
    if (completion) completion();
  }
  bool isPlaying() const override { return playing_; }
  double currentTimeInSeconds() const override { return now; }
  double durationInSeconds() const override { return duration; }
  void seekPlayerToTimeWithValue(double seconds, std::function<void()> completion) override {
    seeks.push_back(seconds);
    if (completion) completion();
  }
  void skipDirectionWithSkipDirection(int direction, double interval, double offset) override {
    seeks.push_back(direction == 0 ? offset - interval : offset + interval);
  }
  void addListener(std::weak_ptr<AudioPlaybackListener> listener) override { listener_ = listener; }
  void removeListener(const AudioPlaybackListener*) override { listener_.reset(); }

  void reachEnd() {
    playing_ = false;
    if (auto listener = listener_.lock()) listener->playerDidReachEndNotification();
  }
  // The desktop's play/pause key.
  void toggleFromDesktop() {
    playing_ = !playing_;
    if (auto listener = listener_.lock()) listener->playbackChangedByDesktop();
  }

  std::vector<std::string> played;
  std::vector<NowPlayingInfo> infos;
  std::vector<double> seeks;
  double now = 0;
  double duration = 3725;

 private:
  std::string url_;
  bool playing_ = false;
  std::weak_ptr<AudioPlaybackListener> listener_;
};

class NembraAudioPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    delegate_ = std::make_shared<NembraPlayerDelegate>();
    delegate_->playerReadyToPlay = [this] { events_.push_back("ready"); };
    delegate_->playerPlaying = [this] { events_.push_back("playing"); };
    delegate_->playerSeek = [this](double s) { events_.push_back("seek " + std::to_string(s)); };
    delegate_->playerEnded = [this] { events_.push_back("ended"); };
    delegate_->playerCancelledByUser = [this] { events_.push_back("cancelled"); };
    nembra_.setPlayerDelegate(delegate_);
  }

  std::shared_ptr<NembraAudioPlayer> open(std::vector<std::string> paths) {
    auto player = std::make_shared<NembraAudioPlayer>(nembra_, std::move(paths), engine_);
    presenter_.present(player);
    return player;
  }
  HeadlessScreenView& view() { return *ui_.topView(); }

  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  // Outlives the presenter, whose screens stop listening to it as they go.
  FakeAudioEngine engine_;
  HeadlessUi ui_;
  ScreenPresenter presenter_{ui_, queue_};
  std::shared_ptr<NembraPlayerDelegate> delegate_;
  std::vector<std::string> events_;
};

TEST_F(NembraAudioPlayerTest, StartsAtOnceAndLabelsTheTimes) {
  auto player = open({"a.aac"});
  EXPECT_EQ(engine_.played, std::vector<std::string>{"a.aac"});
  ASSERT_EQ(engine_.infos.size(), 1u);
  EXPECT_EQ(engine_.infos[0].title, "Nembra");
  EXPECT_EQ(engine_.infos[0].listTitle, "Nembra Title");
  EXPECT_EQ(view().label("status"), "Playing");
  EXPECT_EQ(view().button("play")->image, "pause-black");
  EXPECT_EQ(view().label("totalTime"), "62:05");
  // One item: no previous or next.
  EXPECT_TRUE(view().button("next")->hidden);
  EXPECT_FALSE(view().button("rewind")->hidden);

  player->updateCurrentTimeLabel(3725);
  EXPECT_EQ(view().label("duration"), "01:02:05");
  EXPECT_EQ(view().label("currentTime"), "62:05");
  player->updateCurrentTimeLabel(3725.001);  // the same to the hundredth: no second seek
  EXPECT_EQ(events_, (std::vector<std::string>{"ready", "playing", "seek 3725.000000"}));

  // Paused, the status changes but the delegate still hears playerPlaying.
  view().press("play");
  EXPECT_EQ(view().label("status"), "Paused");
  EXPECT_EQ(view().button("play")->image, "play-black");
  EXPECT_EQ(events_.back(), "playing");
  // The slider does nothing while paused.
  view().moveSlider("time", 100);
  EXPECT_TRUE(engine_.seeks.empty());
  view().press("play");
  view().moveSlider("time", 100);
  EXPECT_EQ(engine_.seeks, std::vector<double>{100});
  engine_.now = 50;
  view().press("rewind");
  view().press("forward");
  EXPECT_EQ(engine_.seeks, (std::vector<double>{100, 40, 60}));
}

TEST_F(NembraAudioPlayerTest, TheDesktopsPlayPauseShowsOnTheScreen) {
  auto player = open({"a.aac"});
  engine_.toggleFromDesktop();
  EXPECT_EQ(view().label("status"), "Paused");
  EXPECT_EQ(view().button("play")->image, "play-black");
  engine_.toggleFromDesktop();
  EXPECT_EQ(view().label("status"), "Playing");
  EXPECT_EQ(view().button("play")->image, "pause-black");
}

TEST_F(NembraAudioPlayerTest, PreviousAndNextWrapAround) {
  auto player = open({"a.aac", "b.aac", "c.aac"});
  EXPECT_FALSE(view().button("next")->hidden);
  view().press("before");
  EXPECT_EQ(player->currentItemIndex(), 2);
  view().press("next");
  EXPECT_EQ(player->currentItemIndex(), 0);
  EXPECT_EQ(engine_.played, (std::vector<std::string>{"a.aac", "c.aac", "a.aac"}));
}

TEST_F(NembraAudioPlayerTest, OnePathClosesAtTheEndTwoPlayOn) {
  {
    auto player = open({"only.aac"});
    engine_.reachEnd();
    EXPECT_EQ(events_.back(), "ended");
    EXPECT_EQ(presenter_.depth(), 0u);
    EXPECT_EQ(std::count(events_.begin(), events_.end(), "cancelled"), 0);
  }
  engine_ = FakeAudioEngine();
  auto player = open({"a.aac", "b.aac"});
  engine_.reachEnd();
  engine_.reachEnd();
  engine_.reachEnd();
  EXPECT_EQ(presenter_.depth(), 1u);
  EXPECT_EQ(engine_.played, (std::vector<std::string>{"a.aac", "b.aac", "a.aac", "b.aac"}));
  view().press("close");
  EXPECT_EQ(events_.back(), "cancelled");
  EXPECT_EQ(presenter_.depth(), 0u);
}

}  // namespace
}  // namespace nembra
