#include "api/media_downloader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "api/testing/upload_service_fixture.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::formFields;
using nembra::testing::links;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Downloads into the cache.
class DownloaderTest : public nembra::testing::UploadServiceTest {};

TEST_F(DownloaderTest, DownloadFetchesAfreshAndLeavesNothingOnFailure) {
  std::optional<std::string> path;
  int answers = 0;
  auto done = [&](const std::optional<std::string>& p, const OptionalError&) {
    path = p;
    ++answers;
  };
  handler().downloadWithType(IMAGE, "i1", done);
  ASSERT_TRUE(pumpUntil([&] { return answers == 1; }));
  ASSERT_TRUE(path);
  EXPECT_EQ(*path, nembra_->cacheManager().getCacheFilePathWithType(IMAGE, "i1"));
  std::ifstream in(*path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "cdn bytes");
  EXPECT_EQ(targets(),
            std::vector<std::string>{"GET /files/v1/applications/app1/images/i1/image.jpg"});

  {
    std::lock_guard lock(mutex_);
    cdnStatus_ = 404;
  }
  OptionalError error;
  handler().downloadWithType(IMAGE, "i1",
                             [&](const std::optional<std::string>& p, const OptionalError& e) {
                               path = p;
                               error = e;
                               ++answers;
                             });
  ASSERT_TRUE(pumpUntil([&] { return answers == 2; }));
  EXPECT_FALSE(path);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, 404);
  EXPECT_FALSE(fs::exists(nembra_->cacheManager().getCacheFilePathWithType(IMAGE, "i1")))
      << "the earlier copy is gone and nothing partial is left";
}

TEST_F(DownloaderTest, ADownloadThatCannotBeWrittenLeavesNothing) {
  // A cache root under a plain file: nothing can be created there.
  std::string blocker = makeFile("blocker");
  nembra_->cacheConfig().setCacheRoot(blocker + "/cache/");
  OptionalError error;
  bool answered = false;
  handler().downloadWithType(VIDEO, "v1",
                             [&](const std::optional<std::string>& path, const OptionalError& e) {
                               EXPECT_FALSE(path);
                               error = e;
                               answered = true;
                             });
  ASSERT_TRUE(pumpUntil([&] { return answered; }));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::File) << error->message;
  EXPECT_TRUE(fs::is_regular_file(blocker));
}

}  // namespace
}  // namespace nembra
