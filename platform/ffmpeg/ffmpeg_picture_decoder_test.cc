#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/media/image_codec.h"
#include "platform/media/testing/media_test_files.h"

namespace nembra {

std::unique_ptr<ImageCodec> newFfmpegImageCodec();

namespace {

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  const std::string text = out.str();
  return {text.begin(), text.end()};
}

std::array<int, 3> rgbAt(const Picture& picture, double fx, double fy, size_t frame = 0) {
  const int x = static_cast<int>(fx * picture.width), y = static_cast<int>(fy * picture.height);
  const uint8_t* p = &picture.frames[frame].rgba[(static_cast<size_t>(y) * picture.width + x) * 4];
  return {p[0], p[1], p[2]};
}

bool near(std::array<int, 3> got, std::array<int, 3> want) {
  for (int i = 0; i < 3; ++i) {
    if (std::abs(got[i] - want[i]) > 40) return false;
  }
  return true;
}

// A PNG of |width| × |height| one-bit grey pixels, all black: tiny on disk, huge decoded.
std::vector<uint8_t> hugeBlankPng(uint32_t width, uint32_t height) {
  auto be32 = [](std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
  };
  auto chunk = [&](std::vector<uint8_t>& out, const char* type, const std::vector<uint8_t>& data) {
    be32(out, static_cast<uint32_t>(data.size()));
    std::vector<uint8_t> body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    out.insert(out.end(), body.begin(), body.end());
    be32(out, static_cast<uint32_t>(crc32(0, body.data(), static_cast<uInt>(body.size()))));
  };
  std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::vector<uint8_t> header;
  be32(header, width);
  be32(header, height);
  header.insert(header.end(), {1, 0, 0, 0, 0});  // 1 bit, grey, deflate, no filter, no interlace
  chunk(png, "IHDR", header);
  z_stream z{};
  deflateInit(&z, 9);
  std::vector<uint8_t> row((width + 7) / 8 + 1, 0);  // filter byte 0, then the pixels
  std::vector<uint8_t> compressed;
  uint8_t buffer[1 << 16];
  for (uint32_t y = 0; y < height; ++y) {
    z.next_in = row.data();
    z.avail_in = static_cast<uInt>(row.size());
    const int flush = y + 1 == height ? Z_FINISH : Z_NO_FLUSH;
    do {
      z.next_out = buffer;
      z.avail_out = sizeof buffer;
      deflate(&z, flush);
      compressed.insert(compressed.end(), buffer, buffer + (sizeof buffer - z.avail_out));
    } while (z.avail_out == 0);
  }
  deflateEnd(&z);
  chunk(png, "IDAT", compressed);
  chunk(png, "IEND", {});
  return png;
}

class PictureDecoderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  }
  // Left half red, right half blue.
  std::string twoColours(const std::string& name, const std::string& size,
                         const std::vector<std::string>& extra = {}) {
    const int width = std::stoi(size.substr(0, size.find('x')));
    std::vector<std::string> args = {
        "-f",
        "lavfi",
        "-i",
        "color=c=red:s=" + size + ",drawbox=x=" + std::to_string(width / 2) +
            ":y=0:w=" + std::to_string(width / 2) + ":h=ih:color=blue:t=fill",
        "-frames:v",
        "1"};
    args.insert(args.end(), extra.begin(), extra.end());
    return files_.make(name, args);
  }

  testing::MediaTestFiles files_;
  std::unique_ptr<ImageCodec> codec_ = newFfmpegImageCodec();
};

TEST_F(PictureDecoderTest, DecodesEachFormatWithItsColoursWhereTheyBelong) {
  for (const char* name : {"still.jpg", "still.png", "still.webp", "still.gif", "still.bmp"}) {
    SCOPED_TRACE(name);
    const std::string path = twoColours(name, "160x120");
    ASSERT_FALSE(path.empty());
    Picture picture;
    ASSERT_FALSE(codec_->decodePicture(readBytes(path), PictureLimits{}, picture));
    EXPECT_EQ(picture.width, 160);
    EXPECT_EQ(picture.height, 120);
    ASSERT_EQ(picture.frames.size(), 1u);
    EXPECT_TRUE(near(rgbAt(picture, 0.25, 0.5), {255, 0, 0}));
    EXPECT_TRUE(near(rgbAt(picture, 0.75, 0.5), {0, 0, 255}));
  }
}

TEST_F(PictureDecoderTest, LargePicturesAreDecodedDownToTheLimitWithTheAspectKept) {
  struct Case {
    const char* name;
    const char* size;
    int limitW, limitH, wantW, wantH;
  };
  for (const Case& c : {Case{"big.jpg", "4000x3000", 800, 800, 800, 600},
                        Case{"big.png", "2000x1000", 500, 500, 500, 250},
                        Case{"small.jpg", "320x240", 1920, 1080, 320, 240}}) {
    SCOPED_TRACE(c.name);
    const std::string path = twoColours(c.name, c.size);
    ASSERT_FALSE(path.empty());
    PictureLimits limits;
    limits.maxWidth = c.limitW;
    limits.maxHeight = c.limitH;
    Picture picture;
    ASSERT_FALSE(codec_->decodePicture(readBytes(path), limits, picture));
    EXPECT_EQ(picture.width, c.wantW);
    EXPECT_EQ(picture.height, c.wantH);
    EXPECT_EQ(std::to_string(picture.sourceWidth) + "x" + std::to_string(picture.sourceHeight),
              c.size);
    EXPECT_TRUE(near(rgbAt(picture, 0.25, 0.5), {255, 0, 0}));
    EXPECT_TRUE(near(rgbAt(picture, 0.75, 0.5), {0, 0, 255}));
  }
}

TEST_F(PictureDecoderTest, AnimatedGifKeepsEveryFrameAndItsDelayWithinTheBudget) {
  const std::string path =
      files_.make("moving.gif", {"-f", "lavfi", "-i", "testsrc2=size=64x48:rate=10:duration=1"});
  ASSERT_FALSE(path.empty());
  const auto bytes = readBytes(path);
  Picture picture;
  ASSERT_FALSE(codec_->decodePicture(bytes, PictureLimits{}, picture));
  EXPECT_EQ(picture.frames.size(), 10u);
  EXPECT_FALSE(picture.truncated);
  for (const auto& frame : picture.frames) EXPECT_NEAR(frame.duration, 0.1, 0.011);
  EXPECT_NE(picture.frames[0].rgba, picture.frames[9].rgba);

  PictureLimits tight;
  tight.maxBytes = 64 * 48 * 4 * 3;  // room for three frames
  ASSERT_FALSE(codec_->decodePicture(bytes, tight, picture));
  EXPECT_EQ(picture.frames.size(), 3u);
  EXPECT_TRUE(picture.truncated);
}

TEST_F(PictureDecoderTest, BadBytesAreRefusedWithAMessage) {
  const auto png = readBytes(twoColours("cut.png", "160x120"));
  const auto jpeg = readBytes(twoColours("cut.jpg", "160x120"));
  ASSERT_FALSE(png.empty());
  struct Case {
    const char* name;
    std::vector<uint8_t> bytes;
    const char* message;
  };
  const std::string html = "<html><body>Not found</body></html>";
  for (const Case& c :
       {Case{"empty", {}, "empty"},
        Case{"html", {html.begin(), html.end()}, "not a picture of a known format"},
        Case{
            "truncated png", {png.begin(), png.begin() + static_cast<long>(png.size() / 2)}, "png"},
        Case{"jpeg header only", {jpeg.begin(), jpeg.begin() + 200}, "jpeg"},
        // The decoder itself would show the missing rows grey and say nothing.
        Case{"jpeg cut in its scan",
             {jpeg.begin(), jpeg.begin() + static_cast<long>(jpeg.size() * 6 / 10)},
             "the jpeg picture is truncated"},
        Case{"jpeg without its end marker",
             {jpeg.begin(), jpeg.end() - 2},
             "the jpeg picture is truncated"}}) {
    SCOPED_TRACE(c.name);
    Picture picture;
    auto error = codec_->decodePicture(c.bytes, PictureLimits{}, picture);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, ErrorKind::Media);
    EXPECT_NE(error->message.find(c.message), std::string::npos) << error->message;
    EXPECT_TRUE(picture.frames.empty());
  }
}

TEST_F(PictureDecoderTest, AHugePngIsRefusedBeforeItsPixelsAreAllocated) {
  const auto png = hugeBlankPng(20000, 20000);
  Picture picture;
  auto error = codec_->decodePicture(png, PictureLimits{}, picture);
  ASSERT_TRUE(error);
  EXPECT_NE(error->message.find("too large to show: 20000 × 20000"), std::string::npos)
      << error->message;

  // The same kind of file within the limit decodes, scaled down.
  const auto fine = hugeBlankPng(3000, 2000);
  PictureLimits limits;
  limits.maxWidth = limits.maxHeight = 600;
  ASSERT_FALSE(codec_->decodePicture(fine, limits, picture));
  EXPECT_EQ(picture.width, 600);
  EXPECT_EQ(picture.height, 400);
}

}  // namespace
}  // namespace nembra
