#include "service/hostless_routes.h"

#include "platform/http/http_time.h"
#include "service/form_params.h"
#include "service/list_window.h"
#include "service/service_reply.h"

namespace nembra {
namespace {
using Json = nlohmann::ordered_json;
}  // namespace

HostlessRoutes::HostlessRoutes(MediaLibrary& library, MediaStore& store, const MediaJson& json,
                               const RestAuthGate& gate, VideosRoutes& videos, MediaRoutes& audios,
                               MediaRoutes& images, const ServiceOptions& options)
    : library_(library),
      store_(store),
      json_(json),
      gate_(gate),
      videos_(videos),
      audios_(audios),
      images_(images),
      options_(options) {}

void HostlessRoutes::registerRoutes(RouteTable& routes) {
  routes.add("POST", "/session", [this](RestRequest& r) { createSession(r); });
  routes.add("POST", "/debugger", [this](RestRequest& r) { postEvents(r); });
  routes.add("GET", "/debugger", [this](RestRequest& r) { listEvents(r); });
  routes.add("GET", "/videos/:video", [this](RestRequest& r) { describeVideo(r); });
  routes.add("POST", "/videos/:video/streams/:stream/video_submit", [this](RestRequest& r) {
    if (auto authed = gate_.open(r, "")) videos_.submit(r, *authed);
  });
  routes.add("POST", "/audios/:audio/streams/:stream/audio_submit", [this](RestRequest& r) {
    if (auto authed = gate_.open(r, "")) audios_.submit(r, *authed);
  });
  routes.add("POST", "/images/:image/streams/:stream/image_submit", [this](RestRequest& r) {
    if (auto authed = gate_.open(r, "")) images_.submit(r, *authed);
  });
}

void HostlessRoutes::createSession(RestRequest& request) {
  // The session request carries nothing; whatever body comes is read and dropped.
  auto body = request.readBody(options_.maxBodyBytes);
  if (!body) return ServiceReply::error(request.response, body.error());
  auto token = gate_.sessions().createSession(request.http.remote_addr);
  if (!token) return ServiceReply::error(request.response, token.error());
  Json reply;
  reply["token"] = *token;
  ServiceReply::json(request.response, 200, reply);
}

void HostlessRoutes::postEvents(RestRequest& request) {
  auto authed = gate_.open(request, "", RestAuthGate::Body::RouteOwns);
  if (!authed) return;
  auto body = request.readBody(options_.maxBodyBytes);
  if (!body) return ServiceReply::error(request.response, body.error());
  // "events=" and the percent-encoded JSON array. The encoding leaves '&' and '=' as they are,
  // so the body is not split as a form: everything after the first "events=" is the value.
  constexpr std::string_view kPrefix = "events=";
  if (body->compare(0, kPrefix.size(), kPrefix) != 0) {
    return ServiceReply::error(request.response, 400, "the body must be events=<JSON array>");
  }
  auto text = percentDecode(std::string_view(*body).substr(kPrefix.size()));
  if (!text) return ServiceReply::error(request.response, 400, "malformed percent-encoding");
  DebuggerEvent event;
  event.application = authed->auth.application;
  event.received = unixNow();
  event.payload = std::move(*text);
  // Messages go into the JSON unescaped, so a quote in one breaks it; the text is kept as sent.
  event.validJson = nlohmann::json::parse(event.payload, nullptr, false).is_array();
  auto id = store_.insertEvent(event);
  if (!id) return ServiceReply::error(request.response, id.error());
  Json reply;
  reply["id"] = *id;
  reply["valid_json"] = event.validJson ? "true" : "false";
  ServiceReply::json(request.response, 200, reply);
}

void HostlessRoutes::listEvents(RestRequest& request) {
  auto authed = gate_.open(request, "");
  if (!authed) return;
  auto window = ListWindow::from(authed->params);
  if (!window) return ServiceReply::error(request.response, window.error());
  auto events = store_.listEvents(authed->auth.application, window->limit);
  if (!events) return ServiceReply::error(request.response, events.error());
  Json list = Json::array();
  for (const auto& event : *events) {
    Json item;
    item["id"] = event.id;
    item["received"] = event.received;
    item["valid_json"] = event.validJson ? "true" : "false";
    item["events"] = event.validJson ? Json::parse(event.payload, nullptr, false) : Json();
    item["raw"] = event.payload;
    list.push_back(std::move(item));
  }
  ServiceReply::json(request.response, 200, list);
}

void HostlessRoutes::describeVideo(RestRequest& request) {
  auto authed = gate_.open(request, "");
  if (!authed) return;
  auto view = library_.get(authed->auth.application, MediaKind::Video, request.path("video"));
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.video(*view));
}

}  // namespace nembra
