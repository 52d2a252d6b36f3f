// The screen-recording hand-over's choice of files: whole movies only, each once.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/nembra_videos.h"
#include "platform/files/file_system.h"
#include "platform/http/testing/http_test_support.h"

namespace nembra {
namespace {

std::string box(const std::string& type, uint32_t declaredSize, size_t payload) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(declaredSize >> shift);
  return bytes + type + std::string(payload, '\0');
}
std::string whole(const std::string& type, size_t payload) {
  return box(type, static_cast<uint32_t>(8 + payload), payload);
}

class ScreenRecordingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousRoot_ = FileSystem::shared().root();
    FileSystem::shared().setRoot(scratch_.path());
    nembra_.config().useSingleServer("http://127.0.0.1:9");
    nembra_.setLogSink([this](const std::string& line) {
      if (line.rfind("screen recording found: ", 0) == 0) ++found_;
    });
    nembra_.enableDebugLogs = true;
    nembra_.videos().setAppGroup("group.test");
    directory_ = *Utils::getSharedScreenRecordingDirectoryForAppGroup("group.test");
  }
  void TearDown() override { FileSystem::shared().setRoot(previousRoot_); }

  void write(const std::string& name, const std::string& bytes) {
    std::ofstream(directory_ + "/" + name, std::ios::binary) << bytes;
  }

  testing::ScratchDirectory scratch_;
  std::string previousRoot_;
  MainQueue queue_;
  Nembra nembra_{"app", queue_};
  std::string directory_;
  std::atomic<int> found_{0};
};

TEST_F(ScreenRecordingsTest, OnlyWholeMoviesAreTakenAndEachOnlyOnce) {
  const std::string head = whole("ftyp", 12);
  write("finished.mov", head + whole("mdat", 100) + whole("moov", 40));
  write("unclosed.mov", head + box("mdat", 0, 100));  // the writer fixes the size at the end
  write("being-copied.mov", head + box("mdat", 400, 100) + whole("moov", 40));
  write("no-index.mov", head + whole("mdat", 100));
  write(".partial.mov", head + whole("mdat", 100) + whole("moov", 40));
  EXPECT_EQ(nembra_.videos().processNewScreenRecordings(), 1u);
  EXPECT_EQ(nembra_.videos().processNewScreenRecordings(), 0u);
  EXPECT_EQ(found_.load(), 1);
}

TEST_F(ScreenRecordingsTest, RacingLooksStartEachMovieOnce) {
  const std::string movie = whole("ftyp", 12) + whole("moov", 40) + whole("mdat", 100);
  for (int i = 0; i < 8; ++i) write("m" + std::to_string(i) + ".mov", movie);
  std::atomic<size_t> started{0};
  std::vector<std::thread> lookers;
  for (int i = 0; i < 4; ++i) {
    lookers.emplace_back([&] { started += nembra_.videos().processNewScreenRecordings(); });
  }
  for (auto& looker : lookers) looker.join();
  EXPECT_EQ(started.load(), 8u);
}

TEST_F(ScreenRecordingsTest, TheWatcherTakesAMovieMovedIn) {
  ASSERT_TRUE(nembra_.videos().setupFileWatcher());
  const std::string outside = scratch_.path() + "/movie.mov";
  std::ofstream(outside, std::ios::binary)
      << whole("ftyp", 12) + whole("mdat", 100) + whole("moov", 40);
  std::filesystem::rename(outside, directory_ + "/movie.mov");
  EXPECT_TRUE(queue_.runUntil([&] { return found_.load() == 1; }));
}

TEST_F(ScreenRecordingsTest, NoGroupNoWatcher) {
  nembra_.videos().setAppGroup("");
  EXPECT_FALSE(nembra_.videos().setupFileWatcher());
  EXPECT_EQ(nembra_.videos().processNewScreenRecordings(), 0u);
}

}  // namespace
}  // namespace nembra
