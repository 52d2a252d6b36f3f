#include "api/video_conversion.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "api/testing/upload_service_fixture.h"
#include "platform/media/media_sample_writer.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::formFields;
using nembra::testing::links;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Conversion before upload.
class ConversionTest : public nembra::testing::UploadServiceTest {};

TEST_F(ConversionTest, ConversionUploadsTheSmallMp4AndKeepsTheSource) {
  std::string source = scratch_.path() + "/big.mov";
  ASSERT_FALSE(MediaSampleWriter::writeVideo(source, 1.0, 1280, 720));
  const auto sourceSize = fs::file_size(source);
  auto outcome = std::make_shared<Outcome>();
  handler().convertToMp4WithPath(
      source, Json::object(), nullptr, nullptr,
      [outcome](const std::optional<Json>&, const HttpResponse&, const OptionalError& e) {
        ++outcome->confirms;
        outcome->confirmError = e;
      });
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }, milliseconds(60000)));
  EXPECT_FALSE(outcome->confirmError);
  std::string form;
  for (const auto& request : server_.requests()) {
    if (request.target.rfind("/storage", 0) == 0) form = request.body;
  }
  EXPECT_LT(form.size(), sourceSize);
  EXPECT_LT(form.find("moov"), form.find("mdat")) << "the upload starts with its index";
  EXPECT_TRUE(fs::exists(source));
  EXPECT_FALSE(fs::exists(FileSystem::shared().documentsDirectory() + "/video.mp4"))
      << "the converted file goes once confirmed";
}

}  // namespace
}  // namespace nembra
