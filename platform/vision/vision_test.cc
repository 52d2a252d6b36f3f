#include <gtest/gtest.h>

#include <filesystem>

#include "platform/media/testing/media_test_files.h"
#include "platform/vision/face_detector.h"
#include "platform/vision/qr_decoder.h"
#include "platform/vision/testing/gray_pictures.h"

namespace nembra {
namespace {

TEST(FaceDetectorTest, FindsTheFaceInAPhotographAndNoneInAStillLife) {
  if (!std::filesystem::exists(testing::kFacePhotograph)) {
    GTEST_SKIP() << "opencv-doc is not installed";
  }
  OptionalError error;
  auto detector = makeFaceDetector(error);
  ASSERT_TRUE(detector) << error->message;

  const testing::GrayPicture photo = testing::grayFromFile(testing::kFacePhotograph);
  ASSERT_GT(photo.width, 0);
  const std::vector<FaceBox> faces = detector->detect(photo.view());
  // Only the player's face, about 40 pixels wide around (244, 112) of the 548 x 342 picture:
  // none of the crowd behind him is sharp or frontal enough.
  ASSERT_EQ(faces.size(), 1u);
  EXPECT_LT(faces[0].x, 244);
  EXPECT_GT(faces[0].x + faces[0].width, 244);
  EXPECT_LT(faces[0].y, 112);
  EXPECT_GT(faces[0].y + faces[0].height, 112);
  EXPECT_GT(faces[0].width, 25);
  EXPECT_LT(faces[0].width, 60);

  const testing::GrayPicture fruits = testing::grayFromFile(testing::kNoFacePhotograph);
  ASSERT_GT(fruits.width, 0);
  EXPECT_TRUE(detector->detect(fruits.view()).empty());
}

TEST(FaceDetectorTest, AMissingCascadeIsAClearError) {
  OptionalError error;
  EXPECT_FALSE(makeFaceDetector(error, "/nonexistent/cascade.xml"));
  ASSERT_TRUE(error);
  EXPECT_NE(error->message.find("/nonexistent/cascade.xml"), std::string::npos);
}

TEST(QrDecoderTest, ReadsACodeMadeByARealEncoderAtAnyStride) {
  if (!testing::haveQrencode()) GTEST_SKIP() << "qrencode is not installed";
  testing::MediaTestFiles files;
  const std::string text = "https://example.org/v?id=42&ß";
  ASSERT_TRUE(testing::makeQrPng(files.path("code.png"), text));
  const testing::GrayPicture code = testing::grayFromFile(files.path("code.png"));
  ASSERT_GT(code.width, 0);
  auto decoder = makeQrDecoder();
  EXPECT_EQ(decoder->decode(code.view()), std::vector<std::string>{text});

  // The same code inside a wider buffer, as a luma plane with padding reads.
  const int stride = code.width + 37;
  std::vector<uint8_t> padded(static_cast<size_t>(stride) * code.height, 0);
  for (int row = 0; row < code.height; ++row) {
    std::copy_n(code.pixels.data() + static_cast<size_t>(row) * code.width, code.width,
                padded.data() + static_cast<size_t>(row) * stride);
  }
  EXPECT_EQ(decoder->decode({padded.data(), code.width, code.height, stride}),
            std::vector<std::string>{text});

  const std::vector<uint8_t> blank(static_cast<size_t>(code.width) * code.height, 200);
  EXPECT_TRUE(decoder->decode({blank.data(), code.width, code.height, code.width}).empty());
}

}  // namespace
}  // namespace nembra
