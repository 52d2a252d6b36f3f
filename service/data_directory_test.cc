#include "service/data_directory.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace nembra {
namespace {

// Whatever the tokens hold, every path stays inside the data directory.
TEST(DataDirectoryTest, TokensWithPathSyntaxNeverLeaveTheRoot) {
  DataDirectory directory("/data/root");
  for (const std::string bad : {"..", "../..", "../x", "a/b", "", ".", "x\\..", "x%2f.."}) {
    for (const auto& path : {directory.mediaDirectory(bad, MediaKind::Video, "m"),
                             directory.mediaDirectory("app", MediaKind::Video, bad),
                             directory.streamFile("app", MediaKind::Audio, "m", bad),
                             directory.coverFile(bad, MediaKind::Image, bad, bad)}) {
      auto normal = std::filesystem::path(path).lexically_normal().string();
      EXPECT_EQ(normal.rfind("/data/root/media/", 0), 0u) << bad << " -> " << path;
      EXPECT_EQ(path.find("/../"), std::string::npos) << bad << " -> " << path;
    }
  }
  EXPECT_EQ(directory.streamFile("app", MediaKind::Video, "m", "s"),
            "/data/root/media/app/videos/m/s/video.mp4");
}

}  // namespace
}  // namespace nembra
