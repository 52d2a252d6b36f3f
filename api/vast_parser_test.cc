#include "api/vast_parser.h"

#include <gtest/gtest.h>

#include "api/testing/vast_documents.h"

namespace nembra {
namespace {

const std::string kBase = "http://ads.test";

VastDocument parsed(const std::string& xml) {
  auto result = VastParser::parse(xml);
  if (auto* failure = std::get_if<VastParseFailure>(&result)) {
    ADD_FAILURE() << failure->message;
    return {};
  }
  return std::get<VastDocument>(result);
}

TEST(VastParserTest, ReadsAVast3InlineAdWithTrimmedCdataUrls) {
  VastDocument document = parsed(testing::vast3Inline(kBase));
  EXPECT_EQ(document.version, "3.0");
  ASSERT_EQ(document.ads.size(), 1u);
  const VastAd& ad = document.ads[0];
  EXPECT_EQ(ad.id, "inline-3");
  EXPECT_FALSE(ad.wrapper);
  ASSERT_TRUE(ad.hasLinear);
  EXPECT_EQ(ad.impressions, std::vector<std::string>{kBase + "/track/impression"});
  EXPECT_EQ(ad.errors, std::vector<std::string>{kBase + "/track/error?code=[ERRORCODE]"});
  EXPECT_DOUBLE_EQ(ad.durationSeconds, 10.0);
  EXPECT_EQ(ad.skipOffsetSeconds, 5.0);
  EXPECT_EQ(ad.clickThrough, "https://advertiser.example/landing");
  // creativeView is not an event this client fires; the six others are read.
  EXPECT_EQ(ad.tracking.size(), 6u);
  EXPECT_EQ(ad.tracking.at(VastEvent::ThirdQuartile),
            std::vector<std::string>{kBase + "/track/thirdQuartile"});
  ASSERT_EQ(ad.mediaFiles.size(), 3u);
  EXPECT_EQ(ad.mediaFiles[1].url, kBase + "/media/ad-720.mp4");
  EXPECT_EQ(ad.mediaFiles[1].type, "video/mp4");
  EXPECT_EQ(ad.mediaFiles[1].width, 1280);
  EXPECT_EQ(ad.mediaFiles[1].bitrate, 2000);
}

TEST(VastParserTest, ReadsAVast4InlineAdLeavingTheMezzanineAside) {
  VastDocument document = parsed(testing::vast4Inline(kBase));
  EXPECT_EQ(document.version, "4.1");
  ASSERT_EQ(document.ads.size(), 1u);
  const VastAd& ad = document.ads[0];
  EXPECT_EQ(ad.errors, std::vector<std::string>{kBase + "/track/error?v=4&code=[ERRORCODE]"});
  EXPECT_DOUBLE_EQ(ad.durationSeconds, 8.0);
  EXPECT_EQ(ad.skipOffsetSeconds, 2.0);  // 25% of 8 s
  ASSERT_EQ(ad.mediaFiles.size(), 2u);   // the mezzanine is for transcoders, not players
  EXPECT_EQ(ad.mediaFiles[1].url, kBase + "/media/ad-480.mp4");
  EXPECT_FALSE(ad.tracking.count(VastEvent::FirstQuartile));
  EXPECT_EQ(ad.tracking.at(VastEvent::Complete).size(), 1u);
}

TEST(VastParserTest, ReadsAWrapperAndAnEmptyAnswer) {
  VastDocument wrapper = parsed(testing::vastWrapper(kBase, "w1", "http://next.test/tag?x=1"));
  ASSERT_EQ(wrapper.ads.size(), 1u);
  EXPECT_TRUE(wrapper.ads[0].wrapper);
  EXPECT_FALSE(wrapper.ads[0].hasLinear);
  EXPECT_EQ(wrapper.ads[0].adTagUri, "http://next.test/tag?x=1");
  EXPECT_EQ(wrapper.ads[0].tracking.at(VastEvent::Start),
            std::vector<std::string>{kBase + "/track/w1-start"});

  VastDocument empty = parsed(testing::vastEmpty(kBase));
  EXPECT_TRUE(empty.ads.empty());
  EXPECT_EQ(empty.errors, std::vector<std::string>{kBase + "/track/noad?code=[ERRORCODE]"});
}

TEST(VastParserTest, RefusesWhatIsNotUsableVastWithItsErrorCode) {
  struct Case {
    const char* what;
    std::string xml;
    VastErrorCode code;
  } cases[] = {
      {"empty body", "", VastErrorCode::XmlParse},
      {"html", "<html><body>Not Found</body></html>", VastErrorCode::XmlParse},
      {"cut short", testing::vast3Inline(kBase).substr(0, 400), VastErrorCode::XmlParse},
      {"version 1", R"(<VAST version="1.0"><Ad/></VAST>)", VastErrorCode::UnsupportedVersion},
      {"version 30", R"(<VAST version="30"></VAST>)", VastErrorCode::UnsupportedVersion},
      {"no version", R"(<VAST></VAST>)", VastErrorCode::UnsupportedVersion},
      {"wrapper without URI", R"(<VAST version="3.0"><Ad><Wrapper/></Ad></VAST>)",
       VastErrorCode::SchemaValidation},
      {"ad of neither kind", R"(<VAST version="4.0"><Ad id="x"/></VAST>)",
       VastErrorCode::SchemaValidation},
  };
  for (const auto& c : cases) {
    auto result = VastParser::parse(c.xml);
    auto* failure = std::get_if<VastParseFailure>(&result);
    ASSERT_TRUE(failure) << c.what;
    EXPECT_EQ(failure->code, c.code) << c.what;
  }
}

TEST(VastParserTest, ClockAndOffsetTexts) {
  EXPECT_EQ(VastParser::parseClock("00:00:15"), 15.0);
  EXPECT_EQ(VastParser::parseClock("01:02:03.5"), 3723.5);
  EXPECT_EQ(VastParser::parseClock("00:00:00.250"), 0.25);
  for (const char* bad : {"", "15", "00:15", "00:61:00", "aa:bb:cc", "00:00:10.", "00:00:-1"}) {
    EXPECT_FALSE(VastParser::parseClock(bad)) << bad;
  }
  EXPECT_EQ(VastParser::parseOffset("50%", 30), 15.0);
  EXPECT_EQ(VastParser::parseOffset("00:00:07", 30), 7.0);
  EXPECT_FALSE(VastParser::parseOffset("150%", 30));
  EXPECT_FALSE(VastParser::parseOffset("x%", 30));
}

}  // namespace
}  // namespace nembra
