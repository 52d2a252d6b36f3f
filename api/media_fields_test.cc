#include "nembra/media_fields.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

MediaFields signedFields() {
  return MediaFields::initWithJson(Json::parse(R"({
    "X-Amz-Signature": "sig", "Policy": "pol", "X-Amz-Security-Token": "tok",
    "X-Amz-Date": "20240101T000000Z", "X-Amz-Credential": "cred",
    "X-Amz-Algorithm": "AWS4-HMAC-SHA256", "bucket": "b", "Content-Type": "video/mp4",
    "key": "uploads/a.mp4", "unrelated": "ignored"
  })"));
}

TEST(MediaFieldsTest, FormFieldsGoOutInTheFormOrderWithTheSignatureLast) {
  std::vector<std::string> keys;
  const Json written = signedFields().toDictionary();
  for (const auto& item : written.items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"key", "Content-Type", "bucket", "X-Amz-Algorithm",
                                            "X-Amz-Credential", "X-Amz-Date",
                                            "X-Amz-Security-Token", "Policy", "X-Amz-Signature"}));
  EXPECT_EQ(written["X-Amz-Signature"], "sig");
}

TEST(MediaFieldsTest, ToStringLayout) {
  const std::string pad(28, ' ');
  EXPECT_EQ(signedFields().toString(),
            "MediaFields{\n" + pad + "key=uploads/a.mp4,\n" + pad + "Content-Type=video/mp4,\n" +
                pad + "bucket=b,\n" + pad + "X-Amz-Algorithm=AWS4-HMAC-SHA256,\n" + pad +
                "X-Amz-Credential=cred,\n" + pad + "X-Amz-Date=20240101T000000Z,\n" + pad +
                "X-Amz-Security-Token=tok,\n" + pad + "Policy=pol,\n" + pad +
                "X-Amz-Signature=sig}");
}

TEST(MediaFieldsTest, MissingFieldsAreEmptyAndClearEmptiesAll) {
  MediaFields fields = MediaFields::initWithJson(Json::parse(R"({"key": null})"));
  EXPECT_EQ(fields.key, "");
  fields = signedFields();
  fields.clear();
  EXPECT_EQ(fields.toDictionary(), MediaFields().toDictionary());
  EXPECT_EQ(fields.policy, "");
}

}  // namespace
}  // namespace nembra
