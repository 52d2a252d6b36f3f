#include "recorder/nembra_recorded_video_preview.h"

#include <gtest/gtest.h>

#include "nembra/main_queue.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"

namespace nembra {
namespace {

// Notes what the preview asks of its player.
class FakeEngine final : public MediaPlayerEngine {
 public:
  explicit FakeEngine(std::vector<std::string>& calls) : calls_(calls) {}
  void setItems(std::vector<MediaPlayerItem> items) override {
    calls_.push_back("items " + items.at(0).path);
  }
  void append(MediaPlayerItem) override {}
  void play() override { calls_.push_back("play"); }
  void pause() override { calls_.push_back("pause"); }
  void seek(double seconds) override { calls_.push_back("seek " + std::to_string(int(seconds))); }
  void setMuted(bool) override {}
  bool muted() const override { return false; }
  double rate() const override { return 0; }
  double currentTime() const override { return 0; }
  double duration() const override { return 0; }
  MediaPlayerStatus status() const override { return MediaPlayerStatus::ReadyToPlay; }
  MediaPlayerTimeControlStatus timeControlStatus() const override {
    return MediaPlayerTimeControlStatus::Paused;
  }
  size_t currentItemIndex() const override { return 0; }
  uint64_t droppedPictureCount() const override { return 0; }
  void close() override { calls_.push_back("close"); }

 private:
  std::vector<std::string>& calls_;
};

class RecordedPreviewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    preview_ = std::make_shared<NembraRecordedVideoPreview>(
        queue_, [this](MediaPlayerEngineOptions) { return std::make_unique<FakeEngine>(calls_); });
    preview_->setVideoURL("file:///tmp/take.mp4");
    presenter_.present(preview_);
    queue_.runUntilIdle();
  }
  HeadlessScreenView& view() { return *ui_.topView(); }

  std::vector<std::string> calls_;  // outlives the engine, which the presenter's screen owns
  MainQueue queue_;
  HeadlessUi ui_;
  ScreenPresenter presenter_{ui_, queue_};
  std::shared_ptr<NembraRecordedVideoPreview> preview_;
};

TEST_F(RecordedPreviewTest, PlayTogglesAndTheEndRewindsToTheStart) {
  EXPECT_EQ(calls_, std::vector<std::string>{"items /tmp/take.mp4"});
  EXPECT_EQ(view().button("play")->image, "play-white");
  view().press("play");
  EXPECT_EQ(view().button("play")->image, "pause-white");
  EXPECT_TRUE(preview_->playing());
  preview_->playerItemDidPlayToEnd(0);
  EXPECT_EQ(view().button("play")->image, "play-white");
  EXPECT_FALSE(preview_->playing());
  EXPECT_EQ(calls_.back(), "seek 0");
}

TEST_F(RecordedPreviewTest, UseVideoWhilePlayingStopsThePlayerFirst) {
  view().press("play");
  calls_.clear();
  ASSERT_TRUE(view().press("use"));
  EXPECT_EQ(calls_, (std::vector<std::string>{"pause", "close"}));
  EXPECT_FALSE(preview_->hasPlayer());
  queue_.runUntilIdle();
  EXPECT_EQ(presenter_.depth(), 0u);
}

}  // namespace
}  // namespace nembra
