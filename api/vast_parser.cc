#include "api/vast_parser.h"

#include <charconv>
#include <cstring>
#include <pugixml.hpp>

namespace nembra {
namespace {

std::string trimmed(const char* text) {
  std::string_view view(text);
  const char* blanks = " \t\r\n";
  auto first = view.find_first_not_of(blanks);
  if (first == std::string_view::npos) return "";
  auto last = view.find_last_not_of(blanks);
  return std::string(view.substr(first, last - first + 1));
}

// The text of |node| with CDATA, trimmed.
std::string textOf(const pugi::xml_node& node) { return trimmed(node.text().get()); }

void appendUrls(const pugi::xml_node& parent, const char* name, std::vector<std::string>& out) {
  for (auto child : parent.children(name)) {
    std::string url = textOf(child);
    if (!url.empty()) out.push_back(std::move(url));
  }
}

std::optional<VastEvent> eventNamed(const char* name) {
  static const std::pair<const char*, VastEvent> kEvents[] = {
      {"start", VastEvent::Start},       {"firstQuartile", VastEvent::FirstQuartile},
      {"midpoint", VastEvent::Midpoint}, {"thirdQuartile", VastEvent::ThirdQuartile},
      {"complete", VastEvent::Complete}, {"skip", VastEvent::Skip},
  };
  for (const auto& [text, event] : kEvents) {
    if (std::strcmp(text, name) == 0) return event;
  }
  return std::nullopt;
}

int intAttribute(const pugi::xml_node& node, const char* name) {
  return node.attribute(name).as_int(0);
}

void readTracking(const pugi::xml_node& linear, VastAd& ad) {
  for (auto tracking : linear.child("TrackingEvents").children("Tracking")) {
    auto event = eventNamed(tracking.attribute("event").value());
    std::string url = textOf(tracking);
    if (event && !url.empty()) ad.tracking[*event].push_back(std::move(url));
  }
}

// The first <Linear> among the ad's creatives; wrappers may carry one for tracking only.
pugi::xml_node firstLinear(const pugi::xml_node& body) {
  for (auto creative : body.child("Creatives").children("Creative")) {
    if (auto linear = creative.child("Linear")) return linear;
  }
  return {};
}

VastAd readAd(const pugi::xml_node& adNode, const pugi::xml_node& body, bool wrapper) {
  VastAd ad;
  ad.id = adNode.attribute("id").value();
  ad.wrapper = wrapper;
  appendUrls(body, "Impression", ad.impressions);
  appendUrls(body, "Error", ad.errors);
  if (wrapper) ad.adTagUri = textOf(body.child("VASTAdTagURI"));
  auto linear = firstLinear(body);
  if (!linear) return ad;
  readTracking(linear, ad);
  if (wrapper) return ad;
  ad.hasLinear = true;
  ad.durationSeconds = VastParser::parseClock(textOf(linear.child("Duration"))).value_or(0);
  if (auto skip = linear.attribute("skipoffset")) {
    ad.skipOffsetSeconds = VastParser::parseOffset(skip.value(), ad.durationSeconds);
  }
  ad.clickThrough = textOf(linear.child("VideoClicks").child("ClickThrough"));
  for (auto file : linear.child("MediaFiles").children("MediaFile")) {
    VastMediaFile media;
    media.url = textOf(file);
    media.delivery = file.attribute("delivery").value();
    media.type = file.attribute("type").value();
    media.width = intAttribute(file, "width");
    media.height = intAttribute(file, "height");
    media.bitrate = intAttribute(file, "bitrate");
    if (!media.url.empty()) ad.mediaFiles.push_back(std::move(media));
  }
  return ad;
}

}  // namespace

const char* vastEventName(VastEvent event) {
  switch (event) {
    case VastEvent::Impression:
      return "impression";
    case VastEvent::Start:
      return "start";
    case VastEvent::FirstQuartile:
      return "firstQuartile";
    case VastEvent::Midpoint:
      return "midpoint";
    case VastEvent::ThirdQuartile:
      return "thirdQuartile";
    case VastEvent::Complete:
      return "complete";
    case VastEvent::Skip:
      return "skip";
  }
  return "";
}

std::variant<VastDocument, VastParseFailure> VastParser::parse(std::string_view xml) {
  pugi::xml_document document;
  auto parsed = document.load_buffer(xml.data(), xml.size(), pugi::parse_default);
  if (!parsed) {
    return VastParseFailure{VastErrorCode::XmlParse,
                            std::string("the ad document is not XML: ") + parsed.description()};
  }
  auto root = document.child("VAST");
  if (!root) {
    return VastParseFailure{VastErrorCode::XmlParse, "the ad document is not VAST"};
  }
  VastDocument result;
  result.version = root.attribute("version").value();
  const char major = result.version.empty() ? '\0' : result.version[0];
  if ((major != '2' && major != '3' && major != '4') ||
      (result.version.size() > 1 && result.version[1] != '.')) {
    return VastParseFailure{VastErrorCode::UnsupportedVersion,
                            "VAST version \"" + result.version + "\" is not supported"};
  }
  appendUrls(root, "Error", result.errors);
  for (auto adNode : root.children("Ad")) {
    if (auto inlineBody = adNode.child("InLine")) {
      result.ads.push_back(readAd(adNode, inlineBody, false));
    } else if (auto wrapperBody = adNode.child("Wrapper")) {
      VastAd ad = readAd(adNode, wrapperBody, true);
      if (ad.adTagUri.empty()) {
        return VastParseFailure{VastErrorCode::SchemaValidation, "a wrapper has no VASTAdTagURI"};
      }
      result.ads.push_back(std::move(ad));
    } else {
      return VastParseFailure{VastErrorCode::SchemaValidation,
                              "an ad is neither InLine nor Wrapper"};
    }
  }
  return result;
}

std::optional<double> VastParser::parseClock(std::string_view text) {
  // HH:MM:SS with an optional .mmm
  int parts[3] = {0, 0, 0};
  const char* at = text.data();
  const char* end = text.data() + text.size();
  for (int i = 0; i < 3; ++i) {
    auto [next, ec] = std::from_chars(at, end, parts[i]);
    if (ec != std::errc() || next == at || parts[i] < 0) return std::nullopt;
    at = next;
    if (i < 2) {
      if (at == end || *at != ':') return std::nullopt;
      ++at;
    }
  }
  if (parts[1] > 59 || parts[2] > 59) return std::nullopt;
  double seconds = parts[0] * 3600.0 + parts[1] * 60.0 + parts[2];
  if (at != end) {
    if (*at != '.') return std::nullopt;
    ++at;
    double scale = 0.1;
    if (at == end) return std::nullopt;
    for (; at != end; ++at) {
      if (*at < '0' || *at > '9') return std::nullopt;
      seconds += (*at - '0') * scale;
      scale /= 10;
    }
  }
  return seconds;
}

std::optional<double> VastParser::parseOffset(std::string_view text, double duration) {
  if (!text.empty() && text.back() == '%') {
    double percent = 0;
    auto body = text.substr(0, text.size() - 1);
    auto [next, ec] = std::from_chars(body.data(), body.data() + body.size(), percent);
    if (ec != std::errc() || next != body.data() + body.size() || percent < 0 || percent > 100) {
      return std::nullopt;
    }
    return duration * percent / 100.0;
  }
  return parseClock(text);
}

}  // namespace nembra
