#include "service/media_attributes.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

FormParams form(std::initializer_list<std::pair<std::string, std::string>> pairs) {
  FormParams params;
  for (const auto& [name, value] : pairs) params.add(name, value);
  return params;
}

TEST(MediaAttributesTest, AppliesSettableFieldsAndIgnoresTheRest) {
  // What the SDK posts for update:callback: the model's whole dictionary.
  auto applied =
      MediaAttributes::applyToMedia(MediaKind::Video, {{"title", "old"}, {"tags", {"x"}}},
                                    form({{"title", "new"},
                                          {"token", "forged"},
                                          {"state", "3"},
                                          {"streams", "()"},
                                          {"max_duration", "12.5"},
                                          {"hd", "true"},
                                          {"enforce_duration", "1"}}));
  ASSERT_TRUE(applied.ok()) << applied.error().message;
  EXPECT_EQ((*applied)["title"], "new");
  EXPECT_EQ((*applied)["tags"], nlohmann::json({"x"}));
  EXPECT_EQ((*applied)["max_duration"], 12.5);
  EXPECT_EQ((*applied)["enforce_duration"], true);
  EXPECT_FALSE(applied->contains("token"));
  EXPECT_FALSE(applied->contains("state"));
  EXPECT_FALSE(applied->contains("hd"));  // a video's hd follows its picture height
}

TEST(MediaAttributesTest, KindsDifferWhereTheModelsDo) {
  auto audio = MediaAttributes::applyToMedia(MediaKind::Audio, nlohmann::json::object(),
                                             form({{"max_duration", "about ten"}}));
  ASSERT_TRUE(audio.ok());
  EXPECT_EQ((*audio)["max_duration"], "about ten");  // a text on audios
  auto video = MediaAttributes::applyToMedia(MediaKind::Video, nlohmann::json::object(),
                                             form({{"max_duration", "about ten"}}));
  ASSERT_FALSE(video.ok());
  EXPECT_NE(video.error().message.find("max_duration"), std::string::npos);
}

struct ReadCase {
  MediaAttributes::Type type;
  const char* text;
  nlohmann::json expected;  // null: refused
};

class MediaAttributesReadTest : public ::testing::TestWithParam<ReadCase> {};

TEST_P(MediaAttributesReadTest, ReadsFormTextAsItsType) {
  auto value = MediaAttributes::read(GetParam().type, "field", GetParam().text);
  if (GetParam().expected.is_null()) {
    EXPECT_FALSE(value.ok()) << GetParam().text;
  } else {
    ASSERT_TRUE(value.ok()) << GetParam().text;
    EXPECT_EQ(*value, GetParam().expected) << GetParam().text;
  }
}

using T = MediaAttributes::Type;
using J = nlohmann::json;

INSTANTIATE_TEST_SUITE_P(
    Values, MediaAttributesReadTest,
    ::testing::Values(ReadCase{T::Bool, "true", J(true)}, ReadCase{T::Bool, "0", J(false)},
                      ReadCase{T::Bool, "", J(false)}, ReadCase{T::Bool, "maybe", J()},
                      ReadCase{T::Number, " 2.5 ", J(2.5)}, ReadCase{T::Number, "1e400", J()},
                      ReadCase{T::Number, "12abc", J()},
                      ReadCase{T::Tags, "[\"a\",\"b\"]", J({"a", "b"})},
                      ReadCase{T::Tags, "a, b ,,c", J({"a", "b", "c"})},
                      ReadCase{T::Tags, "(\n    \"a b\",\n    c\n)", J({"a b", "c"})},
                      ReadCase{T::Tags, "[1,2]", J()},
                      ReadCase{T::Object, "{\"os\":\"Linux\"}", J({{"os", "Linux"}})},
                      ReadCase{T::Object, "os=Linux", J()},
                      ReadCase{T::Loose, "{\"a\":1}", J({{"a", 1}})},
                      ReadCase{T::Loose, "plain", J("plain")}));

}  // namespace
}  // namespace nembra
