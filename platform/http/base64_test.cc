#include "platform/http/base64.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

TEST(Base64Test, StrictRoundTripsAndRefusesSloppyText) {
  for (std::string text : {"", "f", "fo", "foo", "foob", "fooba", "foobar", "\xff\x00\x10"}) {
    EXPECT_EQ(base64Decode(base64Encode(text)), text);
  }
  EXPECT_EQ(base64Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(base64Encode(std::string("\xfb\xff", 2)), "+/8=");
  for (const char* bad : {"Zm9", "Zm9v\n", "Zm=v", "Z===", "Zm9v====", "Zm9*", "=Zm9", "-_8="}) {
    EXPECT_FALSE(base64Decode(bad).has_value()) << bad;
  }
}

TEST(Base64Test, LooseTakesBothAlphabetsLineBreaksAndNoPadding) {
  const std::string bytes("\xfb\xff", 2);
  for (const char* text : {"+/8=", "-_8=", "-_8", "+/\r\n8="}) {
    EXPECT_EQ(base64DecodeLoose(text), bytes) << text;
  }
  EXPECT_EQ(base64DecodeLoose("Zm9vYmFy"), "foobar");
  EXPECT_FALSE(base64DecodeLoose("Zm9v YmFy").has_value());
  EXPECT_FALSE(base64DecodeLoose("Zm9*").has_value());
}

}  // namespace
}  // namespace nembra
