#include "service/cdn_file_server.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "platform/http/http_time.h"
#include "service/byte_range.h"
#include "service/service_reply.h"

namespace nembra {

namespace fs = std::filesystem;

namespace {

constexpr size_t kBlockSize = 64 * 1024;

std::string hex(uint64_t value) {
  char text[17];
  int n = std::snprintf(text, sizeof(text), "%llx", static_cast<unsigned long long>(value));
  return std::string(text, static_cast<size_t>(n));
}

// Strong comparison after dropping a weak marker, as If-None-Match asks.
bool etagListMatches(const std::string& header, const std::string& etag) {
  size_t start = 0;
  while (start < header.size()) {
    size_t comma = header.find(',', start);
    if (comma == std::string::npos) comma = header.size();
    std::string item = header.substr(start, comma - start);
    start = comma + 1;
    size_t first = item.find_first_not_of(" \t");
    if (first == std::string::npos) continue;
    item = item.substr(first, item.find_last_not_of(" \t") - first + 1);
    if (item == "*") return true;
    if (item.rfind("W/", 0) == 0) item = item.substr(2);
    if (item == etag) return true;
  }
  return false;
}

}  // namespace

CdnFileServer::CdnFileServer(MediaLibrary& library, SessionRegistry& sessions,
                             const FaultInjection& faults, int maxAgeSeconds)
    : library_(library), sessions_(sessions), faults_(faults), maxAgeSeconds_(maxAgeSeconds) {}

void CdnFileServer::registerRoutes(RouteTable& routes) {
  routes.add("GET", "/cdn/v1/applications/:app/videos/:video/video.mp4",
             [this](RestRequest& r) { serveMedia(r, MediaKind::Video, "video", false); });
  routes.add("GET", "/cdn/v1/applications/:app/videos/:video/image",
             [this](RestRequest& r) { serveMedia(r, MediaKind::Video, "video", true); });
  routes.add("GET", "/files/v1/applications/:app/audios/:audio/audio.aac",
             [this](RestRequest& r) { serveMedia(r, MediaKind::Audio, "audio", false); });
  routes.add("GET", "/files/v1/applications/:app/images/:image/image.jpg",
             [this](RestRequest& r) { serveMedia(r, MediaKind::Image, "image", false); });
}

void CdnFileServer::serveMedia(RestRequest& request, MediaKind kind, const char* tokenName,
                               bool cover) {
  const std::string& application = request.path("app");
  const std::string& media = request.path(tokenName);
  // Media of an application this service does not serve simply does not exist here.
  if (!sessions_.serves(application)) {
    ServiceReply::error(request.response, 404,
                        std::string(mediaKindName(kind)) + " " + media + " not found");
    return;
  }
  auto file = cover ? library_.coverFile(application, kind, media)
                    : library_.mediaFile(application, kind, media);
  if (!file) {
    ServiceReply::error(request.response, file.error());
    return;
  }
  serve(request, *file);
}

void CdnFileServer::serve(RestRequest& request, const ServedFile& file) const {
  httplib::Response& response = request.response;
  const httplib::Request& http = request.http;
  // The server library would apply Range itself, without checking it against the file; the
  // ranges are answered here instead.
  const_cast<httplib::Request&>(http).ranges.clear();

  std::error_code ec;
  uint64_t size = fs::file_size(file.path, ec);
  auto written = ec ? fs::file_time_type() : fs::last_write_time(file.path, ec);
  if (ec) {
    ServiceReply::error(response, 404, "the file is no longer there");
    return;
  }
  auto modifiedNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::file_clock::to_sys(written).time_since_epoch())
                        .count();
  int64_t modified = modifiedNs / 1000000000;
  std::string etag = "\"" + hex(size) + "-" + hex(static_cast<uint64_t>(modifiedNs)) + "\"";
  std::string lastModified = formatHttpDate(modified);

  response.set_header("ETag", etag);
  response.set_header("Last-Modified", lastModified);
  response.set_header("Cache-Control", "public, max-age=" + std::to_string(maxAgeSeconds_));
  response.set_header("Accept-Ranges", "bytes");

  bool notModified = false;
  if (http.has_header("If-None-Match")) {
    notModified = etagListMatches(http.get_header_value("If-None-Match"), etag);
  } else if (http.has_header("If-Modified-Since")) {
    auto since = parseHttpDate(http.get_header_value("If-Modified-Since"));
    notModified = since && modified <= *since;
  }
  if (notModified) {
    response.status = 304;
    return;
  }

  ByteRange range;
  if (http.has_header("Range")) {
    range = ByteRange::parse(http.get_header_value("Range"), size);
    // A validator that no longer matches asks for the whole, changed file.
    if (http.has_header("If-Range")) {
      std::string validator = http.get_header_value("If-Range");
      bool current = validator.size() > 1 && validator[0] == '"' ? validator == etag
                                                                 : validator == lastModified;
      if (!current) range = ByteRange();
    }
  }
  if (range.kind == ByteRange::Kind::Unsatisfiable) {
    response.set_header("Content-Range", "bytes */" + std::to_string(size));
    ServiceReply::error(response, 416,
                        "the range \"" + http.get_header_value("Range").substr(0, 100) +
                            "\" is not satisfiable for " + std::to_string(size) + " bytes");
    return;
  }
  uint64_t first = 0;
  uint64_t length = size;
  if (range.kind == ByteRange::Kind::Partial) {
    first = range.first;
    length = range.length();
    response.status = 206;
    response.set_header("Content-Range", "bytes " + std::to_string(range.first) + "-" +
                                             std::to_string(range.last) + "/" +
                                             std::to_string(size));
  } else {
    response.status = 200;
  }
  if (length == 0) {
    response.set_content("", file.contentType);
    return;
  }

  auto stream = std::make_shared<std::ifstream>(file.path, std::ios::binary);
  if (!*stream) {
    ServiceReply::error(response, 500, "the file cannot be read");
    return;
  }
  auto start = std::chrono::steady_clock::now();
  const FaultInjection* faults = &faults_;
  response.set_content_provider(
      length, file.contentType,
      [stream, first, faults, start](size_t offset, size_t remaining, httplib::DataSink& sink) {
        std::vector<char> block(std::min(remaining, kBlockSize));
        stream->seekg(static_cast<std::streamoff>(first + offset));
        stream->read(block.data(), static_cast<std::streamsize>(block.size()));
        auto got = static_cast<size_t>(stream->gcount());
        if (got == 0) return false;  // the file shrank under us: end the connection
        if (!faults->pace(start, offset + got)) return false;
        return sink.write(block.data(), got);
      });
}

}  // namespace nembra
