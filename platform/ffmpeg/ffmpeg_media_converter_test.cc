#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/media/image_codec.h"
#include "platform/media/media_converter.h"
#include "platform/media/media_log.h"
#include "platform/media/media_probe.h"
#include "platform/media/media_sample_writer.h"
#include "platform/media/testing/media_test_files.h"

namespace nembra {
namespace {

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

class MediaConverterTest : public ::testing::Test {
 protected:
  void SetUp() override { setMediaLogLevel(MediaLogLevel::Errors); }
  testing::MediaTestFiles files_;
  std::unique_ptr<MediaConverter> converter_ = makeMediaConverter();
  std::unique_ptr<MediaProbe> probe_ = makeMediaProbe();
};

TEST_F(MediaConverterTest, MakesASmallFastStartMp4) {
  std::string source = files_.path("source.mp4");
  ASSERT_FALSE(MediaSampleWriter::writeVideo(source, 2.0, 1280, 720));
  ASSERT_TRUE(converter_->canConvert(source));
  std::string output = files_.path("small.mp4");
  ASSERT_FALSE(converter_->convert(source, output, ConvertOptions{}));

  MediaProbeResult result;
  ASSERT_FALSE(probe_->probe(output, result));
  EXPECT_EQ(result.width, 320);
  EXPECT_EQ(result.height, 180) << "fitted inside 320×240, aspect kept";
  EXPECT_NEAR(result.duration, 2.0, 0.2);
  EXPECT_TRUE(result.hasAudio);
  EXPECT_EQ(result.audioCodec, "aac");
  std::string bytes = readAll(output);
  EXPECT_LT(bytes.find("moov"), bytes.find("mdat")) << "the index comes first";
  EXPECT_LT(bytes.size(), readAll(source).size());
}

TEST_F(MediaConverterTest, RefusesWhatHasNoPictureAndLeavesNoOutput) {
  std::string tone = files_.path("tone.aac");
  ASSERT_FALSE(MediaSampleWriter::writeAudio(tone, 1.0));
  EXPECT_FALSE(converter_->canConvert(tone));
  std::string output = files_.path("out.mp4");
  auto error = converter_->convert(tone, output, ConvertOptions{});
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Media);
  EXPECT_FALSE(std::ifstream(output).good());

  std::string text = files_.path("notes.mp4");
  std::ofstream(text) << "not media";
  EXPECT_FALSE(converter_->canConvert(text));
}

TEST(MediaSampleWriterTest, WritesMediaThatReadsBack) {
  setMediaLogLevel(MediaLogLevel::Errors);
  testing::MediaTestFiles files;
  auto probe = makeMediaProbe();
  MediaProbeResult result;
  std::string tone = files.path("tone.aac");
  ASSERT_FALSE(MediaSampleWriter::writeAudio(tone, 1.5));
  ASSERT_FALSE(probe->probe(tone, result));
  EXPECT_TRUE(result.hasAudio);
  EXPECT_FALSE(result.hasVideo);

  std::string still = files.path("still.jpg");
  ASSERT_FALSE(MediaSampleWriter::writePicture(still, 641, 361));
  std::string bytes = readAll(still);
  ImageInfo info;
  ASSERT_FALSE(makeImageCodec()->inspect(
      std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), info));
  EXPECT_EQ(info.format, "jpeg");
  EXPECT_EQ(info.width, 640);
  EXPECT_EQ(info.height, 360);

  // Damaged pictures are refused, not half-read.
  std::vector<uint8_t> truncated(bytes.begin(), bytes.begin() + 20);
  EXPECT_TRUE(makeImageCodec()->inspect(truncated, info));
}

}  // namespace
}  // namespace nembra
