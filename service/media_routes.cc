#include "service/media_routes.h"

#include "service/list_window.h"
#include "service/service_reply.h"

namespace nembra {
namespace {
using Json = nlohmann::ordered_json;
}  // namespace

MediaRoutes::MediaRoutes(MediaKind kind, MediaLibrary& library, const MediaJson& json,
                         const RestAuthGate& gate)
    : kind_(kind), name_(mediaKindName(kind)), library_(library), json_(json), gate_(gate) {}

void MediaRoutes::registerRoutes(RouteTable& routes) {
  const std::string base = std::string("/embed/v1/applications/:app/") + mediaKindCollection(kind_);
  const std::string item = base + "/:" + name_;
  auto bind = [this](void (MediaRoutes::*method)(RestRequest&)) {
    return [this, method](RestRequest& request) { (this->*method)(request); };
  };
  routes.add("GET", base, bind(&MediaRoutes::index));
  routes.add("POST", base, bind(&MediaRoutes::create));
  routes.add("GET", item, bind(&MediaRoutes::get));
  routes.add("POST", item, bind(&MediaRoutes::update));
  routes.add("DELETE", item, bind(&MediaRoutes::destroy));
  routes.add("POST", item + "/confirm", bind(&MediaRoutes::confirm));
  routes.add("GET", item + "/streams/:stream", bind(&MediaRoutes::getStream));
  routes.add("POST", item + "/streams/:stream", bind(&MediaRoutes::updateStream));
  routes.add("DELETE", item + "/streams/:stream", bind(&MediaRoutes::destroyStream));
  routes.add("POST", item + "/streams/:stream/" + name_ + "_submit", [this](RestRequest& r) {
    auto authed = gate_.open(r, r.path("app"));
    if (authed) submit(r, *authed);
  });
}

void MediaRoutes::index(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto window = ListWindow::from(authed->params);
  if (!window) return ServiceReply::error(request.response, window.error());
  auto views = library_.list(authed->auth.application, kind_, window->limit, window->offset);
  if (!views) return ServiceReply::error(request.response, views.error());
  Json list = Json::array();
  for (const auto& view : *views) list.push_back(json_.media(view));
  ServiceReply::json(request.response, 200, list);
}

void MediaRoutes::create(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.create(authed->auth, kind_, authed->params, StreamOrigin::Upload);
  if (!view) return ServiceReply::error(request.response, view.error());
  const StreamRecord& stream = view->streams.front();
  auto form = library_.uploadForm(authed->auth.application, kind_, view->media.token, stream.token);
  if (!form) return ServiceReply::error(request.response, form.error());
  Json reply;
  reply[name_] = json_.media(*view);
  reply[name_ + "_stream"] = json_.stream(*view, stream);
  reply["url_data"] = std::move(*form);
  ServiceReply::json(request.response, 200, reply);
}

void MediaRoutes::get(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.get(authed->auth.application, kind_, request.path(name_));
  if (!view) return ServiceReply::error(request.response, view.error());
  // The SDK reads a single audio or image from under its kind's key.
  Json reply;
  reply[name_] = json_.media(*view);
  ServiceReply::json(request.response, 200, reply);
}

void MediaRoutes::update(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.update(authed->auth.application, kind_, request.path(name_), authed->params);
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.media(*view));
}

void MediaRoutes::destroy(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.remove(authed->auth.application, kind_, request.path(name_));
  if (!view) return ServiceReply::error(request.response, view.error());
  Json reply;
  reply["token"] = view->media.token;
  reply["deleted"] = "true";
  ServiceReply::json(request.response, 200, reply);
}

void MediaRoutes::confirm(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.confirm(authed->auth.application, kind_, request.path(name_), "");
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.media(*view));
}

void MediaRoutes::submit(RestRequest& request, const AuthedRequest& authed) {
  auto view =
      library_.submit(authed.auth.application, kind_, request.path(name_), request.path("stream"));
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.media(*view));
}

void MediaRoutes::getStream(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.get(authed->auth.application, kind_, request.path(name_));
  if (!view) return ServiceReply::error(request.response, view.error());
  const StreamRecord* stream = view->stream(request.path("stream"));
  if (!stream) {
    return ServiceReply::error(request.response, 404,
                               "stream " + request.path("stream") + " not found");
  }
  ServiceReply::json(request.response, 200, json_.stream(*view, *stream));
}

void MediaRoutes::updateStream(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.updateStream(authed->auth.application, kind_, request.path(name_),
                                    request.path("stream"), authed->params);
  if (!view) return ServiceReply::error(request.response, view.error());
  const StreamRecord* stream = view->stream(request.path("stream"));
  // Deleted by another request in between: gone, as far as this one can tell.
  if (!stream) return ServiceReply::error(request.response, 404, "stream not found");
  ServiceReply::json(request.response, 200, json_.stream(*view, *stream));
}

void MediaRoutes::destroyStream(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.removeStream(authed->auth.application, kind_, request.path(name_),
                                    request.path("stream"));
  if (!view) return ServiceReply::error(request.response, view.error());
  Json reply;
  reply["token"] = request.path("stream");
  reply["deleted"] = "true";
  reply[name_] = json_.media(*view);
  ServiceReply::json(request.response, 200, reply);
}

}  // namespace nembra
