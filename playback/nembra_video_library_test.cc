#include "playback/nembra_video_library.h"

#include <gtest/gtest.h>

#include <fstream>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/http/testing/http_test_support.h"

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

}  // namespace
}  // namespace nembra
