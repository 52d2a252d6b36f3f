#include "playback/media_picker_screen.h"

#include <gtest/gtest.h>

#include <fstream>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/media_type.h"
#include "nembra/nembra_delegates.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "playback/picker_module.h"

namespace nembra {
namespace {

TEST(PickerScreensTest, MediaTypeNamesFollowTheBitsOfEachType) {
  using Names = std::vector<std::string>;
  struct Case {
    int32_t mediaType;
    Names names;
  } cases[] = {
      {VIDEO | AUDIO | IMAGE, {"video", "audio", "image"}},
      {VIDEO, {"video"}},
      {AUDIO, {"audio"}},
      // IMAGE's bits hold VIDEO's.
      {IMAGE, {"video", "image"}},
      {4, {}},
      {0, {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(PickerScreens::mediaTypeNames(c.mediaType), c.names) << c.mediaType;
  }
}

class MediaPickerScreenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"b.mov", "a.mp4", "notes.txt", "d.PNG", "e.mp3", "f"}) {
      std::ofstream(scratch_.path() + "/" + name) << "x";
    }
  }

  void open(MediaPickerRequest request) {
    presenter_.present(std::make_shared<MediaPickerScreen>(
        scratch_.path(), std::move(request),
        [this](const std::vector<std::string>& paths, bool cancelled) {
          picked_ = paths;
          cancelled_ = cancelled;
          ended_ = true;
        }));
  }
  std::vector<std::string> rows() { return ui_.topView()->list("files")->rows; }
  std::string path(const std::string& name) { return scratch_.path() + "/" + name; }

  testing::ScratchDirectory scratch_;
  MainQueue queue_;
  HeadlessUi ui_;
  ScreenPresenter presenter_{ui_, queue_};
  std::vector<std::string> picked_;
  bool cancelled_ = false;
  bool ended_ = false;
};

TEST_F(MediaPickerScreenTest, ListsTheFilesOfTheKindsAsked) {
  open({{"video"}, 1, 0, 0});
  EXPECT_EQ(rows(), (std::vector<std::string>{"a.mp4", "b.mov"}));
  presenter_.dismissAll();
  open({{"audio", "image"}, 1, 0, 0});
  EXPECT_EQ(rows(), (std::vector<std::string>{"d.PNG", "e.mp3"}));
}

TEST_F(MediaPickerScreenTest, OneFileAtATimeEndsWithThePick) {
  open({{"video"}, 1, 0, 0});
  EXPECT_TRUE(ui_.topView()->button("done")->hidden);
  ASSERT_TRUE(ui_.topView()->pickRow("files", 1));
  queue_.runUntilIdle();
  EXPECT_TRUE(ended_);
  EXPECT_FALSE(cancelled_);
  EXPECT_EQ(picked_, std::vector<std::string>{path("b.mov")});
  EXPECT_EQ(presenter_.depth(), 0u);
}

TEST_F(MediaPickerScreenTest, SeveralPicksToggleUpToTheLimit) {
  open({{"video", "audio", "image"}, 2, 0, 0});
  HeadlessScreenView& view = *ui_.topView();
  EXPECT_FALSE(view.button("done")->enabled);
  view.pickRow("files", 3);
  view.pickRow("files", 0);
  view.pickRow("files", 3);  // picked again: left out
  view.pickRow("files", 1);
  view.pickRow("files", 2);  // over the limit of two
  EXPECT_EQ(view.label("selected"), "2 selected");
  EXPECT_EQ(view.list("files")->rows[1], "[x] b.mov");
  view.pressKey("d");
  queue_.runUntilIdle();
  EXPECT_EQ(picked_, (std::vector<std::string>{path("a.mp4"), path("b.mov")}));
}

TEST_F(MediaPickerScreenTest, DurationLimitsLeaveOutTheFilesOutsideThem) {
  testing::MediaTestFiles files;
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "no ffmpeg program";
  for (int seconds : {1, 3, 6}) {
    const std::string made = files.video("clip.mp4", "64x48", seconds, false);
    ASSERT_FALSE(made.empty());
    std::filesystem::copy_file(made, path("clip" + std::to_string(seconds) + ".mp4"));
  }
  open({{"video"}, 1, 2, 5});
  EXPECT_EQ(rows(), std::vector<std::string>{"clip3.mp4"});
}

TEST_F(MediaPickerScreenTest, TheFacadeOffersTheConfiguredKindsAndTellsACancel) {
  Nembra nembra("app", queue_);
  auto presenter = std::make_shared<ScreenPresenter>(ui_, queue_);
  nembra.setScreenPresenter(presenter);
  bool ended = false;
  PickerModuleOptions options;
  options.pickerDirectory = scratch_.path();
  options.onPickerEnded = [&](const std::vector<std::string>&, bool cancelled) {
    ended = cancelled;
  };
  installPickerScreens(std::move(options));
  auto uploading = std::make_shared<NembraUploadingDelegate>();
  auto selector = std::make_shared<NembraFileSelectorDelegate>();
  int told = 0;
  uploading->uploadCancelledByUser = [&] { ++told; };
  selector->uploadCancelledByUser = [&] { ++told; };
  nembra.setUploadingDelegate(uploading);
  nembra.setFileSelectorDelegate(selector);
  nembra.fileSelectorConfig().setMediaType(AUDIO);

  nembra.startFileSelector();
  ASSERT_NE(ui_.topView(), nullptr);
  EXPECT_EQ(rows(), std::vector<std::string>{"e.mp3"});
  // Several files may be picked by default: "done" is offered.
  EXPECT_FALSE(ui_.topView()->button("done")->hidden);
  ui_.topView()->pressKey("q");
  queue_.runUntilIdle();
  EXPECT_TRUE(ended);
  EXPECT_EQ(told, 2);
  PickerScreens::install(nullptr);
}

}  // namespace
}  // namespace nembra
