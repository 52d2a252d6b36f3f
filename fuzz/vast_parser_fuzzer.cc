// Parses arbitrary bytes as a VAST document; what comes back must hold together: a parsed
// document's fields read without failing, a chosen media file is one of the ad's, and a clock
// or offset is never negative.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "api/vast_ad_resolver.h"
#include "api/vast_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto result = nembra::VastParser::parse(text);
  if (auto* failure = std::get_if<nembra::VastParseFailure>(&result)) {
    if (failure->message.empty()) std::abort();
    return 0;
  }
  const auto& document = std::get<nembra::VastDocument>(result);
  for (const auto& ad : document.ads) {
    if (ad.wrapper && (ad.adTagUri.empty() || ad.hasLinear)) std::abort();
    if (ad.durationSeconds < 0 || (ad.skipOffsetSeconds && *ad.skipOffsetSeconds < 0)) std::abort();
    auto chosen = nembra::VastAdResolver::chooseMediaFile(ad.mediaFiles, {1280, 720});
    if (chosen) {
      bool found = false;
      for (const auto& file : ad.mediaFiles) found = found || file.url == chosen->url;
      if (!found || chosen->type != "video/mp4") std::abort();
    }
    for (const auto& [event, urls] : ad.tracking) {
      for (const auto& url : urls) {
        if (url.empty()) std::abort();
      }
    }
  }
  // The clock reader on the same bytes.
  if (auto clock = nembra::VastParser::parseClock(text); clock && *clock < 0) std::abort();
  if (auto offset = nembra::VastParser::parseOffset(text, 30.0); offset && *offset < 0)
    std::abort();
  return 0;
}
