// The sample handler's steps with a fake writer; the files land under a scratch root.
#include "capture/nembra_screen_recorder_sample_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "capture/testing/fake_screen_movie_writer.h"
#include "platform/files/file_system.h"
#include "platform/http/testing/http_test_support.h"

namespace nembra {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

class GroupHandler final : public NembraScreenRecorderSampleHandler {
 public:
  explicit GroupHandler(std::string group) : group_(std::move(group)) {}
  std::string getApplicationGroup() override { return group_; }

 private:
  std::string group_;
};

// Any frame will do: the fake writer never looks inside.
RawMediaFrame emptyFrame(RawMediaFrame::Kind kind) {
  return RawMediaFrame(
      kind, nullptr, [](AVFrame*) {}, {}, 0);
}

class SampleHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousRoot_ = FileSystem::shared().root();
    FileSystem::shared().setRoot(scratch_.path());
  }
  void TearDown() override { FileSystem::shared().setRoot(previousRoot_); }

  void prepare(NembraScreenRecorderSampleHandler& handler) {
    handler.setLog([this](const std::string& line) { log_.push_back(line); });
    handler.setMainScreenBounds(640, 360);
    handler.setPollInterval(std::chrono::milliseconds(1));
    handler.setWriterFactory([this](const std::string& path, OptionalError&) {
      return std::make_unique<testing::FakeScreenMovieWriter>(path, record_);
    });
    handler.broadcastStartedWithSetupInfo({});
  }
  void feed(NembraScreenRecorderSampleHandler& handler,
            std::vector<std::pair<int, double>> samples) {
    const RawMediaFrame video = emptyFrame(RawMediaFrame::Kind::Video);
    const RawMediaFrame audio = emptyFrame(RawMediaFrame::Kind::Audio);
    for (auto [type, time] : samples) {
      handler.processSampleBuffer(type == 1 ? video : audio, time,
                                  static_cast<SampleBufferType>(type));
    }
  }
  std::string sharedDirectory(const std::string& group) {
    return scratch_.path() + "/AppGroups/" + group + "/Library/Caches/com.nembra.screen-recording";
  }

  testing::ScratchDirectory scratch_;
  std::string previousRoot_;
  std::vector<std::string> log_;
  testing::FakeScreenMovieWriter::Record record_;
};

TEST_F(SampleHandlerTest, FirstFrameOpensTheSessionAndTheMovieMovesToTheSharedDirectory) {
  GroupHandler handler("group.example");
  prepare(handler);
  const std::string temporary = handler.videoOutputFullFileName();
  EXPECT_THAT(temporary, ::testing::MatchesRegex(
                             ".*/tmp/[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                             "[0-9A-F]{12}\\.mov"));
  EXPECT_EQ(log_[0], "Video file name: " + temporary);

  // Microphone before the first frame, application sound throughout.
  feed(handler, {{3, 0.9}, {2, 0.95}, {1, 1.0}, {3, 1.01}, {2, 1.02}, {1, 1.033}, {1, 1.066}});
  EXPECT_TRUE(handler.isRecordingVideo());
  EXPECT_EQ(record_.sessionStart, 1.0);
  EXPECT_EQ(record_.videoTimes, (std::vector<double>{1.033, 1.066}));
  EXPECT_EQ(record_.audioTimes, std::vector<double>{1.01});
  EXPECT_THAT(log_, Contains("Capture success"));

  handler.broadcastFinished();
  EXPECT_TRUE(record_.audioMarked);
  EXPECT_TRUE(record_.videoMarked);
  EXPECT_FALSE(handler.isRecordingVideo());
  const std::string moved =
      sharedDirectory("group.example") + "/" + std::filesystem::path(temporary).filename().string();
  EXPECT_EQ(handler.movedTo(), moved);
  EXPECT_TRUE(std::filesystem::exists(moved));
  EXPECT_FALSE(std::filesystem::exists(temporary));
  EXPECT_THAT(log_, Contains("videoWriter?.finishWriting() DONE!"));
  EXPECT_THAT(log_, Contains("Output file size: 5"));
}

TEST_F(SampleHandlerTest, BroadcastEndingBeforeAnyFrameFinishesAndMovesNothing) {
  GroupHandler handler("group.example");
  prepare(handler);
  feed(handler, {{3, 0.1}, {3, 0.2}});
  handler.broadcastFinished();
  EXPECT_FALSE(record_.finishAsked);
  EXPECT_FALSE(record_.sessionStart);
  EXPECT_TRUE(record_.audioTimes.empty());
  EXPECT_THAT(log_, Contains("videoWriter.status: 0"));
  EXPECT_THAT(log_, Not(Contains("videoWriter?.finishWriting()...")));
  EXPECT_EQ(handler.movedTo(), "");
  EXPECT_FALSE(std::filesystem::exists(sharedDirectory("group.example")));
}

TEST_F(SampleHandlerTest, WithoutAGroupTheMovieStaysInTheTemporaryDirectory) {
  NembraScreenRecorderSampleHandler handler;
  prepare(handler);
  feed(handler, {{1, 0.0}, {1, 0.033}});
  handler.broadcastFinished();
  EXPECT_THAT(log_, Contains("Please specify non-empty value in the return value of the method "
                             "getApplicationGroup in the class SampleHandler"));
  EXPECT_THAT(log_, Contains("Failed to get screen recording directory"));
  EXPECT_TRUE(std::filesystem::exists(handler.videoOutputFullFileName()));
  EXPECT_EQ(handler.movedTo(), "");
}

TEST_F(SampleHandlerTest, AWriterThatCannotStartIsLoggedAtEachFrame) {
  GroupHandler handler("group.example");
  handler.setLog([this](const std::string& line) { log_.push_back(line); });
  handler.setMainScreenBounds(640, 360);
  handler.setWriterFactory([this](const std::string& path, OptionalError&) {
    auto writer = std::make_unique<testing::FakeScreenMovieWriter>(path, record_);
    writer->failStart = true;
    return writer;
  });
  handler.broadcastStartedWithSetupInfo({});
  feed(handler, {{1, 0.0}, {1, 0.033}});
  EXPECT_THAT(log_, Contains("Failed to start writing"));
  EXPECT_THAT(log_, Contains("Error: videoWriter!.status == .failed with error disk full"));
  handler.broadcastFinished();
  EXPECT_FALSE(record_.finishAsked);
}

}  // namespace
}  // namespace nembra
