#include "nembra/content_model.h"

#include <gtest/gtest.h>

#include "nembra/audio.h"
#include "nembra/image.h"

namespace nembra {

namespace {

TEST(AudioTest, TypesDifferFromVideoWhereTheServiceDiffers) {
  Audio audio = Audio::initWithJson(Json::parse(R"({
    "_id": 1, "max_duration": 30, "min_duration": "1.5", "default_stream": {"token": "d"},
    "original_stream": {"token": "o", "volatile": "true"}, "approved": true,
    "stream_submission_date": 1700000000123, "average_rating": "4", "volatile": "true",
    "token": "t", "key": "k", "title": "T", "description": "D", "duration": 3,
    "state_string": "READY", "comments": [{"c": 1}]
  })"));
  EXPECT_EQ(audio._id, "1");
  EXPECT_EQ(audio.maxDuration, "30");
  EXPECT_EQ(audio.minDuration, 1.5);
  EXPECT_EQ(audio.defaultStream, Json::parse(R"({"token": "d"})"));
  EXPECT_EQ(audio.originalStream.token, "o");
  EXPECT_TRUE(audio.originalStream.isVolatile());
  EXPECT_EQ(audio.approved, "1");
  EXPECT_EQ(audio.streamSubmissionDate, 1700000000123);
  EXPECT_EQ(audio.averageRating, 4);
  EXPECT_TRUE(audio._volatile);
  EXPECT_EQ(audio.getId(), "t");
  EXPECT_EQ(audio.getDescription(), "D");
  EXPECT_EQ(audio.duration, 3.0);
  EXPECT_EQ(audio.stateString, "READY");

  // Flags go out as JSON booleans, which read back false; the round trip holds without them.
  audio._volatile = false;
  audio.originalStream._volatile = false;
  Json written = audio.toDictionary();
  EXPECT_EQ(written.begin().key(), "_id");
  EXPECT_EQ(std::prev(written.end()).key(), "state_string");
  EXPECT_EQ(written["default_stream"], Json::parse(R"({"token": "d"})"));
  EXPECT_EQ(Audio::initWithJson(written).toDictionary(), written);
}

TEST(ImageTest, FlagsThatAreTextForImagesStayText) {
  Image image = Image::initWithJson(Json::parse(R"({
    "image_source": "2", "user_language": true, "auto_crop": "true", "submitted": false,
    "auto_pad": "true", "hd": true, "facebook_likes": "12", "stream_submission_date": 5,
    "image_file_name": "a.jpg", "title": "T"
  })"));
  EXPECT_EQ(image.imageSource, 2.0);
  EXPECT_EQ(image.userLanguage, "1");
  EXPECT_EQ(image.autoCrop, "true");
  EXPECT_EQ(image.submitted, "0");
  EXPECT_TRUE(image.autoPad);
  EXPECT_FALSE(image.hd);
  EXPECT_EQ(image.facebookLikes, 12);
  EXPECT_EQ(image.streamSubmissionDate, "5");
  EXPECT_EQ(image.imageFileName, "a.jpg");
  EXPECT_EQ(image.title, "T");
  EXPECT_FALSE(image.toDictionary().contains("tags"));
}

TEST(ContentModelTest, EveryKindResetsOnAnEmptyDictionary) {
  Json filled = Json::parse(R"({"token": "t", "title": "x", "data": "d", "state": 2})");
  std::vector<std::unique_ptr<ContentModel>> models;
  models.push_back(std::make_unique<Audio>(Audio::initWithJson(filled)));
  models.push_back(std::make_unique<Image>(Image::initWithJson(filled)));
  for (auto& model : models) {
    Json before = model->toDictionary();
    model->setInfo(Json::object());
    EXPECT_NE(model->toDictionary(), before);
    Json empty = model->toDictionary();
    model->setInfo(filled);
    model->clear();
    EXPECT_EQ(model->toDictionary(), empty);
    EXPECT_EQ(model->token, "");
  }
}

}  // namespace
}  // namespace nembra
