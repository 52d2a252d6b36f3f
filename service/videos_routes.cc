#include "service/videos_routes.h"

#include <cstdio>
#include <memory>

#include "service/list_window.h"
#include "service/multipart_stream_parser.h"
#include "service/service_reply.h"
#include "service/upload_spool.h"

namespace nembra {
namespace {

using Json = nlohmann::ordered_json;

bool flag(const FormParams& params, const char* name) {
  auto value = params.get(name);
  return value && (*value == "true" || *value == "1");
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

VideosRoutes::VideosRoutes(MediaLibrary& library, const MediaJson& json, const RestAuthGate& gate,
                           const CdnFileServer& files, const FaultInjection& faults,
                           const ServiceOptions& options)
    : library_(library),
      json_(json),
      gate_(gate),
      files_(files),
      faults_(faults),
      options_(options) {}

void VideosRoutes::registerRoutes(RouteTable& routes) {
  const std::string base = "/v1/applications/:app/videos";
  auto bind = [this](void (VideosRoutes::*method)(RestRequest&)) {
    return [this, method](RestRequest& request) { (this->*method)(request); };
  };
  routes.add("GET", base, bind(&VideosRoutes::index));
  routes.add("POST", base, bind(&VideosRoutes::create));
  // Before ":video": this literal would otherwise read as a video token.
  routes.add("POST", base + "/videos-upload-url", bind(&VideosRoutes::createForUpload));
  routes.add("GET", base + "/:video", bind(&VideosRoutes::get));
  routes.add("POST", base + "/:video", bind(&VideosRoutes::update));
  routes.add("DELETE", base + "/:video", bind(&VideosRoutes::destroy));
  routes.add("GET", base + "/:video/image", bind(&VideosRoutes::cover));
  routes.add("GET", base + "/:video/streams", bind(&VideosRoutes::listStreams));
  routes.add("POST", base + "/:video/streams", bind(&VideosRoutes::createStream));
  routes.add("GET", base + "/:video/streams/:stream", bind(&VideosRoutes::getStream));
  routes.add("POST", base + "/:video/streams/:stream", bind(&VideosRoutes::updateStream));
  routes.add("DELETE", base + "/:video/streams/:stream", bind(&VideosRoutes::destroyStream));
  auto submitRoute = [this](RestRequest& request) {
    auto authed = gate_.open(request, request.path("app"));
    if (authed) submit(request, *authed);
  };
  routes.add("POST", base + "/:video/streams/:stream/recordersubmit", submitRoute);
  routes.add("POST", base + "/:video/streams/:stream/video_submit", submitRoute);
  routes.add("POST", base + "/:video/streams/:stream/confirm-video", bind(&VideosRoutes::confirm));
  routes.add("POST", base + "/:video/streams/:stream/imageattach",
             bind(&VideosRoutes::attachCover));
  routes.add("POST", base + "/:video/streams/:stream/videoattach",
             bind(&VideosRoutes::attachVideo));
}

void VideosRoutes::index(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto window = ListWindow::from(authed->params);
  if (!window) return ServiceReply::error(request.response, window.error());
  auto views =
      library_.list(authed->auth.application, MediaKind::Video, window->limit, window->offset);
  if (!views) return ServiceReply::error(request.response, views.error());
  Json list = Json::array();
  for (const auto& view : *views) list.push_back(json_.video(view));
  ServiceReply::json(request.response, 200, list);
}

Json VideosRoutes::rtmpTarget(const MediaView& view, const StreamRecord& stream) const {
  Json target;
  target["url"] = json_.urls().rtmp;
  target["stream_name"] = "applications/" + view.media.application + "/videos/" + view.media.token +
                          "/streams/" + stream.token + "/video.mp4";
  return target;
}

void VideosRoutes::create(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  std::optional<StreamOrigin> origin;
  if (flag(authed->params, "flash_recording")) {
    origin = StreamOrigin::Live;
  } else if (flag(authed->params, "create_stream")) {
    origin = StreamOrigin::Recorder;
  }
  auto view = library_.create(authed->auth, MediaKind::Video, authed->params, origin);
  if (!view) return ServiceReply::error(request.response, view.error());
  Json reply;
  reply["video"] = json_.video(*view);
  if (!view->streams.empty()) {
    reply["stream"] = json_.stream(*view, view->streams.front());
    if (origin == StreamOrigin::Live && !json_.urls().rtmp.empty()) {
      reply["rtmp"] = rtmpTarget(*view, view->streams.front());
    }
  }
  ServiceReply::json(request.response, 200, reply);
}

void VideosRoutes::createForUpload(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.create(authed->auth, MediaKind::Video, authed->params, StreamOrigin::Upload);
  if (!view) return ServiceReply::error(request.response, view.error());
  const StreamRecord& stream = view->streams.front();
  auto form = library_.uploadForm(authed->auth.application, MediaKind::Video, view->media.token,
                                  stream.token);
  if (!form) return ServiceReply::error(request.response, form.error());
  Json reply;
  reply["video"] = json_.video(*view);
  reply["stream"] = json_.stream(*view, stream);
  reply["url_data"] = std::move(*form);
  ServiceReply::json(request.response, 200, reply);
}

void VideosRoutes::get(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.get(authed->auth.application, MediaKind::Video, request.path("video"));
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.video(*view));
}

void VideosRoutes::update(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.update(authed->auth.application, MediaKind::Video, request.path("video"),
                              authed->params);
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.video(*view));
}

void VideosRoutes::destroy(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.remove(authed->auth.application, MediaKind::Video, request.path("video"));
  if (!view) return ServiceReply::error(request.response, view.error());
  Json reply;
  reply["token"] = view->media.token;
  reply["deleted"] = "true";
  ServiceReply::json(request.response, 200, reply);
}

void VideosRoutes::cover(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto file = library_.coverFile(authed->auth.application, MediaKind::Video, request.path("video"));
  if (!file) return ServiceReply::error(request.response, file.error());
  files_.serve(request, *file);
}

void VideosRoutes::listStreams(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.get(authed->auth.application, MediaKind::Video, request.path("video"));
  if (!view) return ServiceReply::error(request.response, view.error());
  Json list = Json::array();
  for (const auto& stream : view->streams) list.push_back(json_.stream(*view, stream));
  ServiceReply::json(request.response, 200, list);
}

void VideosRoutes::createStream(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  StreamOrigin origin =
      flag(authed->params, "flash_recording") ? StreamOrigin::Live : StreamOrigin::Recorder;
  auto stream = library_.createStream(authed->auth.application, MediaKind::Video,
                                      request.path("video"), origin);
  if (!stream) return ServiceReply::error(request.response, stream.error());
  auto view = library_.get(authed->auth.application, MediaKind::Video, request.path("video"));
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.stream(*view, *stream));
}

void VideosRoutes::getStream(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.get(authed->auth.application, MediaKind::Video, request.path("video"));
  if (!view) return ServiceReply::error(request.response, view.error());
  const StreamRecord* stream = view->stream(request.path("stream"));
  if (!stream) {
    return ServiceReply::error(request.response, 404,
                               "stream " + request.path("stream") + " not found");
  }
  ServiceReply::json(request.response, 200, json_.stream(*view, *stream));
}

void VideosRoutes::updateStream(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.updateStream(authed->auth.application, MediaKind::Video,
                                    request.path("video"), request.path("stream"), authed->params);
  if (!view) return ServiceReply::error(request.response, view.error());
  const StreamRecord* stream = view->stream(request.path("stream"));
  // Deleted by another request in between: gone, as far as this one can tell.
  if (!stream) return ServiceReply::error(request.response, 404, "stream not found");
  ServiceReply::json(request.response, 200, json_.stream(*view, *stream));
}

void VideosRoutes::destroyStream(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.removeStream(authed->auth.application, MediaKind::Video,
                                    request.path("video"), request.path("stream"));
  if (!view) return ServiceReply::error(request.response, view.error());
  Json reply;
  reply["token"] = request.path("stream");
  reply["deleted"] = "true";
  reply["video"] = json_.video(*view);
  ServiceReply::json(request.response, 200, reply);
}

void VideosRoutes::submit(RestRequest& request, const AuthedRequest& authed) {
  auto view = library_.submit(authed.auth.application, MediaKind::Video, request.path("video"),
                              request.path("stream"));
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.video(*view));
}

void VideosRoutes::confirm(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"));
  if (!authed) return;
  auto view = library_.confirm(authed->auth.application, MediaKind::Video, request.path("video"),
                               request.path("stream"));
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.video(*view));
}

void VideosRoutes::attachCover(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"), RestAuthGate::Body::RouteOwns);
  if (!authed) return;
  if (!request.hasBody()) return ServiceReply::error(request.response, 400, "the cover is missing");
  if (MultipartStreamParser::boundaryFromContentType(request.contentType())) {
    request.response.set_header("Connection", "close");
    return ServiceReply::error(request.response, 415,
                               "the cover goes as the raw JPEG body, not as a form");
  }
  if (auto length = request.declaredLength(); length && *length > options_.maxImageBytes) {
    request.response.set_header("Connection", "close");
    return ServiceReply::error(
        request.response, 413,
        "the cover is larger than " + std::to_string(options_.maxImageBytes) + " bytes");
  }
  // Streamed to a temporary file; the JPEG signature is checked on the first bytes.
  std::string path = library_.directory().newTemporaryPath(".jpg");
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
  if (!file) return ServiceReply::error(request.response, 500, "cannot store the cover");
  uint64_t size = 0;
  std::string head;
  std::optional<Error> refusal;
  bool read = (*request.reader)([&](const char* data, size_t length) {
    size += length;
    if (size > options_.maxImageBytes) {
      refusal = Error::http(
          413, "the cover is larger than " + std::to_string(options_.maxImageBytes) + " bytes");
      return false;
    }
    if (head.size() < 3) head.append(data, std::min<size_t>(3 - head.size(), length));
    if (head.size() == 3 && head != "\xFF\xD8\xFF") {
      refusal = Error::http(415, "the cover must be a JPEG image");
      return false;
    }
    return std::fwrite(data, 1, length, file.get()) == length;
  });
  bool closed = std::fclose(file.release()) == 0;
  if (refusal || !read || !closed || head.size() < 3) {
    std::remove(path.c_str());
    if (refusal) {
      request.response.set_header("Connection", "close");
      return ServiceReply::error(request.response, *refusal);
    }
    if (head.size() < 3 && read) {
      return ServiceReply::error(request.response, 415, "the cover must be a JPEG image");
    }
    return ServiceReply::error(request.response, 400, "the cover could not be read");
  }
  auto view = library_.attachCover(authed->auth.application, MediaKind::Video,
                                   request.path("video"), request.path("stream"), path);
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.video(*view));
}

void VideosRoutes::attachVideo(RestRequest& request) {
  auto authed = gate_.open(request, request.path("app"), RestAuthGate::Body::RouteOwns);
  if (!authed) return;
  auto boundary = MultipartStreamParser::boundaryFromContentType(request.contentType());
  if (!boundary) {
    request.response.set_header("Connection", "close");
    return ServiceReply::error(request.response, 415,
                               "the video goes as a multipart/form-data body with a boundary");
  }
  if (auto length = request.declaredLength(); length && *length > options_.maxUploadBytes) {
    request.response.set_header("Connection", "close");
    return ServiceReply::error(
        request.response, 413,
        "the upload is larger than " + std::to_string(options_.maxUploadBytes) + " bytes");
  }
  UploadSpool spool(library_.directory(), faults_);
  uint64_t limit = options_.maxUploadBytes;
  auto outcome = spool.receive(request, *boundary, "file",
                               [limit](const auto&) { return std::optional<uint64_t>(limit); });
  switch (outcome) {
    case UploadSpool::Outcome::Stored:
      break;
    case UploadSpool::Outcome::Cut:
      return FaultInjection::cutConnection(request.response);
    case UploadSpool::Outcome::NoFile:
      return ServiceReply::error(request.response, 400, "the form has no file part named \"file\"");
    case UploadSpool::Outcome::TooLarge:
      request.response.set_header("Connection", "close");
      return ServiceReply::error(request.response, 413,
                                 "the upload is larger than " + std::to_string(limit) + " bytes");
    case UploadSpool::Outcome::WriteFailed:
      return ServiceReply::error(request.response, 500, spool.message());
    default:
      request.response.set_header("Connection", "close");
      return ServiceReply::error(request.response, 400,
                                 "the multipart body is malformed: " + spool.message());
  }
  auto view = library_.attachFile(authed->auth.application, MediaKind::Video, request.path("video"),
                                  request.path("stream"), spool.takeFile(),
                                  MediaLibrary::Unplayable::Refuse);
  if (!view) return ServiceReply::error(request.response, view.error());
  ServiceReply::json(request.response, 200, json_.video(*view));
}

}  // namespace nembra
