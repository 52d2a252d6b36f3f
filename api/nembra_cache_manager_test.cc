#include "nembra/nembra_cache_manager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "nembra/application.h"
#include "nembra/media_type.h"
#include "platform/files/file_system.h"
#include "platform/http/testing/http_test_support.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::ScratchDirectory;

constexpr uint64_t kMiB = 1 << 20;

class CacheManagerTest : public ::testing::Test {
 protected:
  CacheManagerTest() : files_(scratch_.path() + "/root"), cache_(nembra_, false, files_) {}

  // A sparse file of |size| bytes whose modification time is |age| seconds old. Where the file
  // system records birth times those count instead, so tests make the oldest file first.
  std::string make(const std::string& directory, const std::string& name, uint64_t size, int age) {
    fs::create_directories(directory);
    std::string path = directory + "/" + name;
    std::ofstream(path).close();
    fs::resize_file(path, size);
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(age));
    return path;
  }

  ScratchDirectory scratch_;
  MainQueue main_;
  Nembra nembra_{"app", main_};
  FileSystem files_;
  NembraCacheManager cache_;
};

// Sizes in MiB, newest first; which survive a trim with the given limit.
struct TrimCase {
  const char* name;
  std::vector<uint64_t> sizesMiB;
  int64_t limit;
  std::vector<bool> kept;
};

class CacheTrimTest : public CacheManagerTest, public ::testing::WithParamInterface<TrimCase> {};

TEST_P(CacheTrimTest, KeepsTheNewestFilesThatFit) {
  const TrimCase& c = GetParam();
  nembra_.cacheConfig().setMaxCacheSize(c.limit);
  std::string directory = scratch_.path() + "/trim";
  std::vector<std::string> paths(c.sizesMiB.size());
  for (size_t i = c.sizesMiB.size(); i-- > 0;) {
    paths[i] = make(directory, "f" + std::to_string(i) + ".mp4", c.sizesMiB[i] * kMiB,
                    static_cast<int>(100 * (i + 1)));
    // Creation times come from the kernel's coarse clock (a tick can be 10 ms): far enough apart.
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  cache_.trimCache("mp4", directory);
  for (size_t i = 0; i < paths.size(); ++i) {
    EXPECT_EQ(fs::exists(paths[i]), c.kept[i]) << "file " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rule, CacheTrimTest,
    ::testing::Values(
        // 1 GiB default: the third 400 MiB file crosses the limit and goes.
        TrimCase{"ThreeOf400MiB", {400, 400, 400}, 1073741824, {true, true, false}},
        // Everything older than the crossing file goes too, even what would fit on its own.
        TrimCase{"OlderSmallFilesGoWithTheCrossingOne",
                 {2, 5, 1, 1},
                 6 * kMiB,
                 {true, false, false, false}},
        TrimCase{"ExactlyAtTheLimitIsKept", {3, 3}, 6 * kMiB, {true, true}},
        TrimCase{"NewestAloneTooLargeGoes", {8, 1}, 6 * kMiB, {false, false}}),
    [](const auto& info) { return info.param.name; });

TEST_F(CacheManagerTest, TrimLeavesOtherExtensionsUncountedAndUntouched) {
  nembra_.cacheConfig().setMaxCacheSize(3 * kMiB);
  std::string directory = scratch_.path() + "/mixed";
  std::string oldest = make(directory, "b.mp4", 2 * kMiB, 40);
  // Creation times come from the kernel's coarse clock (a tick can be 10 ms): far enough apart.
  std::this_thread::sleep_for(std::chrono::milliseconds(25));
  std::string newest = make(directory, "a.mp4", 2 * kMiB, 30);
  std::string similar = make(directory, "clip.mp4.part", 50 * kMiB, 20);
  std::string bigOther = make(directory, "big.aac", 50 * kMiB, 10);
  cache_.trimCache("mp4", directory);
  EXPECT_TRUE(fs::exists(bigOther));
  EXPECT_TRUE(fs::exists(similar));
  EXPECT_TRUE(fs::exists(newest));
  EXPECT_FALSE(fs::exists(oldest));
}

TEST_F(CacheManagerTest, DirectoriesFollowTheCacheRoot) {
  const std::string documents = files_.documentsDirectory();
  // The default root "" is the documents directory itself, for every type.
  EXPECT_EQ(cache_.getCacheDirectoryWithType(VIDEO), documents);
  EXPECT_EQ(cache_.getCacheFilePathWithType(AUDIO, "a1"), documents + "/a1.aac");

  nembra_.cacheConfig().setCacheRoot("media");
  EXPECT_EQ(cache_.getCacheDirectoryWithType(IMAGE), documents + "/media");
  EXPECT_FALSE(fs::exists(documents + "/media")) << "a root directory is not created";

  nembra_.cacheConfig().setCacheRoot("/var/x/");
  EXPECT_EQ(cache_.getCacheDirectoryWithType(AUDIO), "/var/x/");
  EXPECT_EQ(cache_.getCacheFilePathWithType(VIDEO, "v1"), "/var/x/v1.mp4");

  nembra_.cacheConfig().setCacheRoot(std::nullopt);
  EXPECT_EQ(cache_.getCacheFilePathWithType(VIDEO, "v1"), documents + "/video-cache/v1.mp4");
  EXPECT_EQ(cache_.getCacheDirectoryWithType(IMAGE), documents + "/image-cache");
  EXPECT_TRUE(fs::is_directory(documents + "/image-cache")) << "a per-type directory is made";
  EXPECT_EQ(cache_.getCacheDirectoryWithType(3), "");
}

TEST_F(CacheManagerTest, TokensThatCouldLeaveTheDirectoryNameNoFile) {
  for (const std::string& token : std::vector<std::string>{"../x", "a/b", "..", ".hidden", "%2e%2e",
                                                           std::string("a\0b", 3), "", "a b"}) {
    EXPECT_EQ(cache_.getCacheFilePathWithType(VIDEO, token), "") << token;
  }
  EXPECT_EQ(cache_.getCacheFileNameWithType(IMAGE, "img.v2-x_y"), "img.v2-x_y.jpg");
}

TEST_F(CacheManagerTest, RemoveFileNeverRemovesADirectory) {
  std::string directory = scratch_.path() + "/keep";
  std::string file = make(directory, "x.mp4", 10, 0);
  cache_.removeFile(directory);
  cache_.removeFile("");
  EXPECT_TRUE(fs::exists(file));
  cache_.removeFile(file);
  EXPECT_FALSE(fs::exists(file));
}

}  // namespace
}  // namespace nembra
