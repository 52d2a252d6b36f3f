#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/media/media_probe.h"
#include "platform/media/media_remuxer.h"
#include "platform/media/testing/media_test_files.h"

namespace nembra {
namespace {

class MediaRemuxerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  }
  testing::MediaTestFiles files_;
  std::unique_ptr<MediaRemuxer> remuxer_ = makeMediaRemuxer();
};

// Where the top-level box |type| starts in an MP4 file, or npos.
size_t boxOffset(const std::string& path, const std::string& type) {
  std::ifstream in(path, std::ios::binary);
  std::string data((std::istreambuf_iterator<char>(in)), {});
  size_t at = 0;
  while (at + 8 <= data.size()) {
    uint64_t size = (uint8_t(data[at]) << 24) | (uint8_t(data[at + 1]) << 16) |
                    (uint8_t(data[at + 2]) << 8) | uint8_t(data[at + 3]);
    if (data.compare(at + 4, 4, type) == 0) return at;
    if (size < 8) return std::string::npos;
    at += size;
  }
  return std::string::npos;
}

TEST_F(MediaRemuxerTest, RewrapsAnFlvRecordingAsFastStartMp4) {
  std::string flv = files_.video("live.flv", "320x240", 2.0, true, {"-f", "flv"});
  ASSERT_FALSE(flv.empty());
  std::string mp4 = files_.path("live.mp4");
  ASSERT_FALSE(remuxer_->remux(flv, mp4, RemuxOptions{}));
  MediaProbeResult result;
  ASSERT_FALSE(makeMediaProbe()->probe(mp4, result));
  EXPECT_NE(result.container.find("mp4"), std::string::npos);
  EXPECT_EQ(result.videoCodec, "h264");
  EXPECT_EQ(result.audioCodec, "aac");
  EXPECT_EQ(result.width, 320);
  EXPECT_NEAR(result.duration, 2.0, 0.15);
  size_t moov = boxOffset(mp4, "moov"), mdat = boxOffset(mp4, "mdat");
  ASSERT_NE(moov, std::string::npos);
  ASSERT_NE(mdat, std::string::npos);
  EXPECT_LT(moov, mdat);  // the index comes first
}

TEST_F(MediaRemuxerTest, FailsCleanlyOnInputItCannotUse) {
  std::string text = files_.path("notes.txt");
  std::ofstream(text) << "not a recording";
  std::string out = files_.path("out.mp4");
  std::ofstream(out) << "stale";
  auto error = remuxer_->remux(text, out, RemuxOptions{});
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Media);
  EXPECT_FALSE(std::filesystem::exists(out));

  std::string flv = files_.video("ok.flv", "64x48", 0.3, false, {"-f", "flv"});
  auto badFormat = remuxer_->remux(flv, out, RemuxOptions{"no-such-format", false});
  ASSERT_TRUE(badFormat);
  EXPECT_EQ(badFormat->kind, ErrorKind::InvalidArgument);
  auto unwritable = remuxer_->remux(flv, files_.path("missing/dir/out.mp4"), RemuxOptions{});
  ASSERT_TRUE(unwritable);
  EXPECT_EQ(unwritable->kind, ErrorKind::File);
}

}  // namespace
}  // namespace nembra
