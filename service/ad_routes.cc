#include "service/ad_routes.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/media/media_sample_writer.h"
#include "service/service_reply.h"

namespace nembra {
namespace {

constexpr const char* kXmlType = "application/xml";

std::string tracking(const std::string& base, const std::string& level) {
  std::string xml = "<TrackingEvents>\n";
  for (const char* event :
       {"start", "firstQuartile", "midpoint", "thirdQuartile", "complete", "skip"}) {
    xml += "  <Tracking event=\"" + std::string(event) + "\"><![CDATA[" + base + "/ads/track/" +
           event + "?ad=" + level + "]]></Tracking>\n";
  }
  return xml + "</TrackingEvents>\n";
}

}  // namespace

AdRoutes::AdRoutes(std::string baseUrl, std::string clipPath)
    : baseUrl_(std::move(baseUrl)), clipPath_(std::move(clipPath)) {}

void AdRoutes::registerRoutes(RouteTable& routes) {
  // Literal names: a ":name" segment takes tokens only, and these have a dot.
  for (const char* name : {"inline.xml", "inline4.xml", "wrapper.xml", "empty.xml"}) {
    routes.add("GET", std::string("/ads/vast/") + name,
               [this, name](RestRequest& r) { document(r, name); });
  }
  routes.add("GET", "/ads/media/ad.mp4", [this](RestRequest& r) { clip(r); });
  routes.add("GET", "/ads/track/:event", [this](RestRequest& r) { track(r); });
  routes.add("GET", "/ads/tracking", [this](RestRequest& r) { listHits(r); });
  routes.add("DELETE", "/ads/tracking", [this](RestRequest& r) { clearHits(r); });
}

std::string AdRoutes::inlineDocument(const std::string& version) const {
  const std::string& b = baseUrl_;
  std::ostringstream xml;
  xml << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<VAST version=\"" << version << "\""
      << (version[0] == '4' ? " xmlns=\"http://www.iab.com/VAST\"" : "") << ">\n"
      << "<Ad id=\"nembra-sample-ad\">\n<InLine>\n"
      << "<AdSystem version=\"1\">nembra serve</AdSystem>\n"
      << "<AdTitle>Nembra sample ad</AdTitle>\n"
      << "<Impression><![CDATA[" << b << "/ads/track/impression?ad=inline]]></Impression>\n"
      << "<Error><![CDATA[" << b << "/ads/track/error?ad=inline&code=[ERRORCODE]]]></Error>\n"
      << "<Creatives>\n<Creative id=\"nembra-sample-creative\">\n"
      << "<Linear skipoffset=\"00:00:02\">\n"
      << "<Duration>00:00:0" << static_cast<int>(kClipSeconds) << ".000</Duration>\n"
      << tracking(b, "inline") << "<MediaFiles>\n"
      << "<MediaFile delivery=\"progressive\" type=\"video/mp4\" width=\"" << kClipWidth
      << "\" height=\"" << kClipHeight << "\" bitrate=\"500\"><![CDATA[" << b
      << "/ads/media/ad.mp4]]></MediaFile>\n"
      << "</MediaFiles>\n</Linear>\n</Creative>\n</Creatives>\n</InLine>\n</Ad>\n</VAST>\n";
  return xml.str();
}

std::string AdRoutes::wrapperDocument() const {
  const std::string& b = baseUrl_;
  std::ostringstream xml;
  xml << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<VAST version=\"3.0\">\n"
      << "<Ad id=\"nembra-sample-wrapper\">\n<Wrapper>\n"
      << "<AdSystem>nembra serve</AdSystem>\n"
      << "<VASTAdTagURI><![CDATA[" << b << "/ads/vast/inline.xml]]></VASTAdTagURI>\n"
      << "<Impression><![CDATA[" << b << "/ads/track/impression?ad=wrapper]]></Impression>\n"
      << "<Error><![CDATA[" << b << "/ads/track/error?ad=wrapper&code=[ERRORCODE]]]></Error>\n"
      << "<Creatives>\n<Creative>\n<Linear>\n"
      << tracking(b, "wrapper") << "</Linear>\n</Creative>\n</Creatives>\n"
      << "</Wrapper>\n</Ad>\n</VAST>\n";
  return xml.str();
}

std::string AdRoutes::emptyDocument() const {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<VAST version=\"3.0\"><Error><![CDATA[" +
         baseUrl_ + "/ads/track/error?ad=empty&code=[ERRORCODE]]]></Error></VAST>\n";
}

void AdRoutes::document(RestRequest& request, const std::string& name) {
  std::string body;
  if (name == "inline.xml") {
    body = inlineDocument("3.0");
  } else if (name == "inline4.xml") {
    body = inlineDocument("4.1");
  } else if (name == "wrapper.xml") {
    body = wrapperDocument();
  } else {
    body = emptyDocument();
  }
  request.response.status = 200;
  request.response.set_header("Cache-Control", "no-store");
  request.response.set_content(body, kXmlType);
}

void AdRoutes::clip(RestRequest& request) {
  {
    std::lock_guard lock(mutex_);
    if (!clipReady_) {
      std::error_code ignored;
      std::filesystem::create_directories(std::filesystem::path(clipPath_).parent_path(), ignored);
      // Written aside and renamed, so a request never reads half a clip.
      // (The muxer goes by the extension, so it stays last.)
      const std::string partial =
          (std::filesystem::path(clipPath_).parent_path() / "partial-ad.mp4").string();
      if (auto error =
              MediaSampleWriter::writeVideo(partial, kClipSeconds, kClipWidth, kClipHeight)) {
        return ServiceReply::error(request.response, 500,
                                   "the ad clip could not be made: " + error->message);
      }
      std::filesystem::rename(partial, clipPath_, ignored);
      clipReady_ = !ignored;
      if (!clipReady_) {
        return ServiceReply::error(request.response, 500,
                                   "the ad clip could not be stored: " + ignored.message());
      }
    }
  }
  std::ifstream in(clipPath_, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  request.response.status = 200;
  request.response.set_content(std::move(bytes), "video/mp4");
}

void AdRoutes::track(RestRequest& request) {
  auto query = request.query();
  if (!query) return ServiceReply::error(request.response, query.error());
  const std::string event = request.path("event");
  std::string level = query->get("ad").value_or("unknown");
  std::string key = event;
  if (event == "error") {
    level = "error";
    key = query->get("code").value_or("none");
  }
  {
    std::lock_guard lock(mutex_);
    ++hits_[level][key];
  }
  request.response.status = 204;
}

void AdRoutes::listHits(RestRequest& request) {
  nlohmann::ordered_json body = nlohmann::ordered_json::object();
  {
    std::lock_guard lock(mutex_);
    for (const auto& [level, events] : hits_) {
      for (const auto& [event, count] : events) body[level][event] = count;
    }
  }
  ServiceReply::json(request.response, 200, body);
}

void AdRoutes::clearHits(RestRequest& request) {
  {
    std::lock_guard lock(mutex_);
    hits_.clear();
  }
  ServiceReply::json(request.response, 200, nlohmann::ordered_json::object());
}

}  // namespace nembra
