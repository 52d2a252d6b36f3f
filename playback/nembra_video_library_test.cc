#include "playback/nembra_video_library.h"

#include <gtest/gtest.h>

#include <fstream>

#include "api/cover_screens.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;

// A converter whose verdicts the test sets.
class FakeConverter final : public MediaConverter {
 public:
  FakeConverter(bool convertible, bool fails) : convertible_(convertible), fails_(fails) {}
  bool canConvert(const std::string&) override { return convertible_; }
  OptionalError convert(const std::string&, const std::string& output,
                        const ConvertOptions&) override {
    if (fails_) return Error::media("the encoder broke");
    std::ofstream(output) << "converted";
    return std::nullopt;
  }

 private:
  bool convertible_, fails_;
};

// Remembers the cover selectors asked for; the test answers for the user.
class FakeCoverScreens final : public CoverScreens {
 public:
  void presentCoverSelector(Nembra&, ScreenPresenter&, const std::string& path,
                            Chosen chosen) override {
    paths.push_back(path);
    this->chosen = std::move(chosen);
  }
  std::vector<std::string> paths;
  Chosen chosen;
};

class NembraVideoLibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    nembra_.config().useSingleServer("http://127.0.0.1:9");  // every upload fails fast
    nembra_.enableDebugLogs = true;
    nembra_.setLogSink([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      logs_.push_back(line);
    });
    movie_ = scratch_.path() + "/movie.mov";
    std::ofstream(movie_) << "movie";
  }

  bool loggedStart(const std::string& prefix) {
    std::lock_guard lock(mutex_);
    for (const auto& line : logs_) {
      if (line.rfind(prefix, 0) == 0) return true;
    }
    return false;
  }

  // Picks the movie and waits for the service's answer (a failure here: no service).
  bool pick(NembraVideoLibrary& library) {
    bool done = false;
    library.setFinished([&](const std::optional<Json>&, const OptionalError&) { done = true; });
    library.imagePickerControllerDidFinishPickingMediaWithInfo(movie_);
    return queue_.runUntil([&] { return done; }, 20s);
  }

  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  testing::ScratchDirectory scratch_;
  std::string movie_;
  std::mutex mutex_;
  std::vector<std::string> logs_;
};

TEST_F(NembraVideoLibraryTest, AMovieThatCannotBeExportedIsNotUploaded) {
  auto library = NembraVideoLibrary::initWithNembraApplication(nembra_);
  library->setConverter(std::make_unique<FakeConverter>(false, false));
  ASSERT_TRUE(pick(*library));
  EXPECT_FALSE(loggedStart("file "));
  EXPECT_FALSE(loggedStart("cover selected for video "));
}

TEST_F(NembraVideoLibraryTest, AFailedExportStillGoesOnWithTheTarget) {
  auto library = NembraVideoLibrary::initWithNembraApplication(nembra_);
  library->setConverter(std::make_unique<FakeConverter>(true, true));
  ASSERT_TRUE(pick(*library));
  EXPECT_TRUE(loggedStart("Export failed: the encoder broke"));
  EXPECT_TRUE(loggedStart("file "));
  EXPECT_TRUE(loggedStart("cover selected for video "));
}

TEST_F(NembraVideoLibraryTest, OpenedForATokenItReRecordsAndNeverAsksForACover) {
  auto library = NembraVideoLibrary::initWithNembraApplication(nembra_, "vtok");
  library->setConverter(std::make_unique<FakeConverter>(true, false));
  bool closed = false;
  library->setClose([&] { closed = true; });
  ASSERT_TRUE(pick(*library));
  EXPECT_TRUE(loggedStart("going to rerecord video2 vtok"));
  EXPECT_FALSE(loggedStart("cover selected for video "));
  EXPECT_TRUE(closed);
}

TEST_F(NembraVideoLibraryTest, CancellingTellsBothDelegates) {
  auto uploading = std::make_shared<NembraUploadingDelegate>();
  auto selector = std::make_shared<NembraFileSelectorDelegate>();
  int told = 0;
  uploading->uploadCancelledByUser = [&] { ++told; };
  selector->uploadCancelledByUser = [&] { ++told; };
  nembra_.setUploadingDelegate(uploading);
  nembra_.setFileSelectorDelegate(selector);
  auto library = NembraVideoLibrary::initWithNembraApplication(nembra_);
  bool closed = false;
  library->setClose([&] { closed = true; });
  library->imagePickerControllerDidCancel();
  EXPECT_TRUE(closed);
  EXPECT_EQ(told, 2);
}

TEST_F(NembraVideoLibraryTest, WithCoverShotTheUserPicksTheCoverOfTheExport) {
  auto covers = std::make_shared<FakeCoverScreens>();
  CoverScreens::install(covers);
  HeadlessUi ui;
  auto presenter = std::make_shared<ScreenPresenter>(ui, queue_);
  nembra_.setScreenPresenter(presenter);
  nembra_.recorderConfig().setShouldEnableCoverShot(true);
  auto library = NembraVideoLibrary::initWithNembraApplication(nembra_);
  library->setConverter(std::make_unique<FakeConverter>(true, false));
  bool done = false;
  library->setFinished([&](const std::optional<Json>&, const OptionalError&) { done = true; });
  library->imagePickerControllerDidFinishPickingMediaWithInfo(movie_);
  ASSERT_TRUE(queue_.runUntil([&] { return covers->chosen != nullptr; }, 10s));
  ASSERT_EQ(covers->paths.size(), 1u);
  EXPECT_NE(covers->paths[0].find("/MP4/"), std::string::npos);
  // Nothing goes up before the choice.
  EXPECT_FALSE(loggedStart("cover selected for video "));
  auto image = std::make_shared<StillImage>();
  image->format = "jpeg";
  covers->chosen(covers->paths[0], image);
  EXPECT_TRUE(loggedStart("cover selected for video " + covers->paths[0]));
  EXPECT_TRUE(queue_.runUntil([&] { return done; }, 20s));
  CoverScreens::install(nullptr);
}

TEST_F(NembraVideoLibraryTest, WithCoverShotButNoSelectorTheDefaultCoverIsUsed) {
  CoverScreens::install(nullptr);
  nembra_.recorderConfig().setShouldEnableCoverShot(true);
  auto library = NembraVideoLibrary::initWithNembraApplication(nembra_);
  library->setConverter(std::make_unique<FakeConverter>(true, false));
  ASSERT_TRUE(pick(*library));
  EXPECT_TRUE(loggedStart("cover selected for video "));
}

}  // namespace
}  // namespace nembra
