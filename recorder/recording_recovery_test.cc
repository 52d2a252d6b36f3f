#include "recorder/recording_recovery.h"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/files/file_lock.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/movie_writer.h"

namespace nembra {
namespace {

TEST(RecordingRecoveryTest, FindsOnlyPartFilesNoRecorderHolds) {
  testing::ScratchDirectory dir;
  const std::string left = dir.path() + "/left.mp4";
  const std::string busy = dir.path() + "/busy.mp4";
  std::ofstream(moviePartPath(left)) << "x";
  std::ofstream(moviePartPath(busy)) << "x";
  std::ofstream(dir.path() + "/done.mp4") << "x";
  std::ofstream(dir.path() + "/other.part") << "x";
  auto held = FileLock::tryAcquire(RecordingRecovery::lockPath(busy), nullptr);
  ASSERT_TRUE(held);
  EXPECT_EQ(RecordingRecovery::findInterrupted(dir.path()), std::vector<std::string>{left});
  held.reset();
  EXPECT_EQ(RecordingRecovery::findInterrupted(dir.path()).size(), 2u);
}

TEST(RecordingRecoveryTest, APartFileWithNothingReadableIsDropped) {
  testing::ScratchDirectory dir;
  const std::string path = dir.path() + "/empty.mp4";
  std::ofstream(moviePartPath(path)) << "not a movie";
  ASSERT_TRUE(RecordingRecovery::finish(path));
  EXPECT_FALSE(std::ifstream(moviePartPath(path)).good());
  EXPECT_TRUE(RecordingRecovery::findInterrupted(dir.path()).empty());
}

}  // namespace
}  // namespace nembra
