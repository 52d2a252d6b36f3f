// VAST documents for the ad client's tests: an inline VAST 3 ad, an inline VAST 4 ad, and a
// wrapper template, written as ad servers write them (CDATA, blanks around URLs, elements this
// client ignores). Header-only, for tests.
#pragma once

#include <string>

namespace nembra::testing {

// A VAST 3 inline linear ad of 10 s, skippable after 5 s, with three media files (one Flash, one
// 1280x720 MP4, one 640x360 MP4) and every tracking event; URLs start with |base|.
inline std::string vast3Inline(const std::string& base) {
  return R"(<?xml version="1.0" encoding="UTF-8"?>
<VAST version="3.0">
  <Ad id="inline-3" sequence="1">
    <InLine>
      <AdSystem version="1.0">Nembra Test</AdSystem>
      <AdTitle>Inline three</AdTitle>
      <Impression id="imp"><![CDATA[ )" +
         base + R"(/track/impression ]]></Impression>
      <Error><![CDATA[)" +
         base + R"(/track/error?code=[ERRORCODE]]]></Error>
      <Creatives>
        <Creative id="c1" sequence="1">
          <Linear skipoffset="00:00:05">
            <Duration>00:00:10.000</Duration>
            <TrackingEvents>
              <Tracking event="creativeView"><![CDATA[)" +
         base + R"(/track/creativeView]]></Tracking>
              <Tracking event="start"><![CDATA[)" +
         base + R"(/track/start]]></Tracking>
              <Tracking event="firstQuartile"><![CDATA[)" +
         base + R"(/track/firstQuartile]]></Tracking>
              <Tracking event="midpoint"><![CDATA[)" +
         base + R"(/track/midpoint]]></Tracking>
              <Tracking event="thirdQuartile"><![CDATA[)" +
         base + R"(/track/thirdQuartile]]></Tracking>
              <Tracking event="complete"><![CDATA[)" +
         base + R"(/track/complete]]></Tracking>
              <Tracking event="skip"><![CDATA[)" +
         base + R"(/track/skip]]></Tracking>
            </TrackingEvents>
            <VideoClicks>
              <ClickThrough><![CDATA[https://advertiser.example/landing]]></ClickThrough>
            </VideoClicks>
            <MediaFiles>
              <MediaFile delivery="progressive" type="video/x-flv" width="640" height="360">
                <![CDATA[)" +
         base + R"(/media/ad.flv]]>
              </MediaFile>
              <MediaFile delivery="progressive" type="video/mp4" width="1280" height="720" bitrate="2000">
                <![CDATA[)" +
         base + R"(/media/ad-720.mp4]]>
              </MediaFile>
              <MediaFile delivery="progressive" type="video/mp4" width="640" height="360" bitrate="600">
                <![CDATA[)" +
         base + R"(/media/ad-360.mp4]]>
              </MediaFile>
            </MediaFiles>
          </Linear>
        </Creative>
        <Creative id="c2">
          <CompanionAds/>
        </Creative>
      </Creatives>
    </InLine>
  </Ad>
</VAST>
)";
}

// A VAST 4.1 inline ad: a mezzanine file, a universal ad id, a percentage skip offset.
inline std::string vast4Inline(const std::string& base) {
  return R"(<VAST version="4.1" xmlns="http://www.iab.com/VAST">
  <Ad id="inline-4" adType="video">
    <InLine>
      <AdSystem>Nembra Test</AdSystem>
      <AdServingId>serving-1</AdServingId>
      <AdTitle>Inline four</AdTitle>
      <Impression id="i1">)" +
         base + R"(/track/impression?v=4</Impression>
      <Error>)" +
         base + R"(/track/error?v=4&amp;code=[ERRORCODE]</Error>
      <Creatives>
        <Creative id="c4" adId="a4">
          <UniversalAdId idRegistry="ad-id.org">NMBR0001</UniversalAdId>
          <Linear skipoffset="25%">
            <Duration>00:00:08</Duration>
            <TrackingEvents>
              <Tracking event="start">)" +
         base + R"(/track/start?v=4</Tracking>
              <Tracking event="progress" offset="00:00:02">)" +
         base + R"(/track/progress</Tracking>
              <Tracking event="complete">)" +
         base + R"(/track/complete?v=4</Tracking>
            </TrackingEvents>
            <MediaFiles>
              <Mezzanine delivery="progressive" type="video/mp4" width="1920" height="1080">)" +
         base + R"(/media/mezzanine.mp4</Mezzanine>
              <MediaFile delivery="streaming" type="application/x-mpegURL" width="1280" height="720">)" +
         base + R"(/media/ad.m3u8</MediaFile>
              <MediaFile delivery="progressive" type="video/mp4" width="854" height="480">)" +
         base + R"(/media/ad-480.mp4</MediaFile>
            </MediaFiles>
          </Linear>
        </Creative>
      </Creatives>
    </InLine>
  </Ad>
</VAST>
)";
}

// A wrapper pointing at |next|, its own impression and tracking under |base|/track/|name|-…
inline std::string vastWrapper(const std::string& base, const std::string& name,
                               const std::string& next) {
  return R"(<VAST version="3.0">
  <Ad id=")" +
         name + R"(">
    <Wrapper>
      <AdSystem>Nembra Test</AdSystem>
      <VASTAdTagURI><![CDATA[)" +
         next + R"(]]></VASTAdTagURI>
      <Impression><![CDATA[)" +
         base + "/track/" + name + R"(-impression]]></Impression>
      <Error><![CDATA[)" +
         base + "/track/" + name + R"(-error?code=[ERRORCODE]]]></Error>
      <Creatives>
        <Creative>
          <Linear>
            <TrackingEvents>
              <Tracking event="start"><![CDATA[)" +
         base + "/track/" + name + R"(-start]]></Tracking>
              <Tracking event="complete"><![CDATA[)" +
         base + "/track/" + name + R"(-complete]]></Tracking>
            </TrackingEvents>
          </Linear>
        </Creative>
      </Creatives>
    </Wrapper>
  </Ad>
</VAST>
)";
}

// An ad server's "no ad" answer, with its error URL.
inline std::string vastEmpty(const std::string& base) {
  return R"(<VAST version="3.0"><Error><![CDATA[)" + base +
         R"(/track/noad?code=[ERRORCODE]]]></Error></VAST>)";
}

}  // namespace nembra::testing
