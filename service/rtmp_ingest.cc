#include "service/rtmp_ingest.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "service/service_reply.h"
#include "service/token_rules.h"

namespace nembra {

namespace fs = std::filesystem;

namespace {

bool isExecutable(const fs::path& path) {
  std::error_code ec;
  return fs::is_regular_file(path, ec) && ::access(path.c_str(), X_OK) == 0;
}

// A path as an nginx configuration string: quoted, so spaces and ';' stay inside it.
std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  return out + "\"";
}

std::string tail(const std::string& path, size_t bytes) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  std::string all = text.str();
  return all.size() > bytes ? all.substr(all.size() - bytes) : all;
}

}  // namespace

RtmpIngest::RtmpIngest(MediaLibrary& library, SessionRegistry& sessions,
                       const DataDirectory& directory, std::unique_ptr<MediaRemuxer> remuxer,
                       Log log)
    : library_(library),
      sessions_(sessions),
      directory_(directory),
      remuxer_(std::move(remuxer)),
      log_(std::move(log)),
      secret_(randomHex(16)),
      queue_(std::make_unique<SerialQueue>("com.nembra.service.ingest")) {}

RtmpIngest::~RtmpIngest() { stop(); }

std::optional<std::string> RtmpIngest::findNginx() {
  if (const char* configured = std::getenv("NEMBRA_NGINX"); configured && *configured) {
    return isExecutable(configured) ? std::optional<std::string>(configured) : std::nullopt;
  }
  std::vector<std::string> candidates;
  if (const char* path = std::getenv("PATH")) {
    std::string dirs = path;
    for (size_t start = 0; start <= dirs.size();) {
      size_t colon = dirs.find(':', start);
      if (colon == std::string::npos) colon = dirs.size();
      if (colon > start) candidates.push_back(dirs.substr(start, colon - start) + "/nginx");
      start = colon + 1;
    }
  }
  // Debian installs it outside a normal user's PATH.
  candidates.insert(candidates.end(),
                    {"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/local/nginx/sbin/nginx"});
  for (const auto& candidate : candidates) {
    if (isExecutable(candidate)) return candidate;
  }
  return std::nullopt;
}

std::optional<std::string> RtmpIngest::findRtmpModule() {
  if (const char* configured = std::getenv("NEMBRA_NGINX_RTMP_MODULE"); configured && *configured) {
    std::error_code ec;
    return fs::is_regular_file(configured, ec) ? std::optional<std::string>(configured)
                                               : std::nullopt;
  }
  for (const char* candidate :
       {"/usr/lib/nginx/modules/ngx_rtmp_module.so", "/usr/lib64/nginx/modules/ngx_rtmp_module.so",
        "/usr/share/nginx/modules/ngx_rtmp_module.so",
        "/usr/local/nginx/modules/ngx_rtmp_module.so"}) {
    std::error_code ec;
    if (fs::is_regular_file(candidate, ec)) return std::string(candidate);
  }
  return std::nullopt;
}

OptionalError RtmpIngest::start(const std::string& host, int port, const std::string& hooksBase) {
  auto nginx = findNginx();
  if (!nginx) return Error::file("nginx is not installed");
  auto module = findRtmpModule();
  if (!module) return Error::file("nginx's RTMP module (ngx_rtmp_module.so) is not installed");

  const std::string dir = directory_.rtmpDirectory();
  std::error_code ec;
  fs::create_directories(dir + "/logs", ec);
  fs::create_directories(dir + "/records", ec);
  if (ec) return Error::file("cannot create " + dir + ": " + ec.message());
  // Recordings left by a service that stopped mid-publish have nobody to claim them.
  for (fs::directory_iterator it(dir + "/records", ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code ignored;
    fs::remove(it->path(), ignored);
  }
  const std::string pidFile = dir + "/nginx.pid";
  fs::remove(pidFile, ec);

  std::string listen = (host.empty() || host == "0.0.0.0" ? "" : host + ":") + std::to_string(port);
  std::string hooks = hooksBase + "/rtmp-hooks/" + secret_;
  std::ofstream config(dir + "/nginx.conf", std::ios::trunc);
  config << "# Written by `nembra serve` at each start; changes here are lost.\n"
         << "daemon off;\n"
         << "master_process off;\n"
         << "worker_processes 1;\n"
         << "error_log " << quoted(dir + "/logs/error.log") << " info;\n"
         << "pid " << quoted(pidFile) << ";\n"
         << "load_module " << quoted(*module) << ";\n"
         << "events { worker_connections 1024; }\n"
         << "rtmp {\n"
         << "  server {\n"
         << "    listen " << listen << ";\n"
         << "    chunk_size 4096;\n"
         // The SDK connects to the application "record": its address
         // "…/record/_definst_ß" names the application by every segment but the last.
         << "    application record {\n"
         << "      live on;\n"
         << "      record all;\n"
         << "      record_path " << quoted(dir + "/records") << ";\n"
         << "      record_unique on;\n"
         << "      record_suffix .flv;\n"
         << "      on_publish " << hooks << "/publish;\n"
         << "      on_publish_done " << hooks << "/publish_done;\n"
         << "      on_record_done " << hooks << "/record_done;\n"
         << "    }\n"
         << "  }\n"
         << "}\n";
  config.close();
  if (!config) return Error::file("cannot write " + dir + "/nginx.conf");

  ChildProcessOptions options;
  options.argv = {
      *nginx, "-p", dir + "/", "-c", dir + "/nginx.conf", "-e", dir + "/logs/error.log"};
  options.stdoutPath = dir + "/logs/nginx.out";
  options.stderrPath = dir + "/logs/nginx.out";
  options.killWithParentThread = true;
  std::unique_ptr<ChildProcess> child;
  if (auto error = ChildProcess::start(options, child)) return error;

  // nginx writes its pid file once its listening sockets are open.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!fs::exists(pidFile, ec)) {
    if (!child->isRunning()) {
      return Error::file("nginx exited at start: " + tail(dir + "/logs/error.log", 600) +
                         tail(dir + "/logs/nginx.out", 300));
    }
    if (std::chrono::steady_clock::now() > deadline) {
      child->terminate();
      return Error::timeout("nginx did not start within 10 s; see " + dir + "/logs");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  nginx_ = std::move(child);
  return std::nullopt;
}

void RtmpIngest::stop() {
  if (nginx_) {
    nginx_->terminate(std::chrono::seconds(3));
    nginx_.reset();
  }
}

void RtmpIngest::registerRoutes(RouteTable& routes) {
  routes.add("POST", "/rtmp-hooks/:secret/publish", [this](RestRequest& r) { onPublish(r); });
  routes.add("POST", "/rtmp-hooks/:secret/publish_done",
             [this](RestRequest& r) { onPublishDone(r); });
  routes.add("POST", "/rtmp-hooks/:secret/record_done",
             [this](RestRequest& r) { onRecordDone(r); });
}

std::optional<RtmpIngest::StreamName> RtmpIngest::parseStreamName(const std::string& name) {
  std::vector<std::string> parts;
  size_t start = name.size() > 0 && name[0] == '/' ? 1 : 0;
  for (;;) {
    size_t slash = name.find('/', start);
    parts.push_back(name.substr(start, slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  if (parts.size() != 7 || parts[0] != "applications" || parts[2] != "videos" ||
      parts[4] != "streams" || parts[6] != "video.mp4") {
    return std::nullopt;
  }
  for (size_t i : {1, 3, 5}) {
    if (!isSafeToken(parts[i])) return std::nullopt;
  }
  return StreamName{parts[1], parts[3], parts[5]};
}

bool RtmpIngest::checkSecret(RestRequest& request) const {
  if (request.path("secret") == secret_) return true;
  ServiceReply::error(request.response, 404, "nothing is served at " + request.http.path);
  return false;
}

void RtmpIngest::onPublish(RestRequest& request) {
  if (!checkSecret(request)) return;
  auto params = request.readParams(64 * 1024);
  if (!params) return ServiceReply::error(request.response, params.error());
  std::string raw = params->get("name").value_or("");
  auto name = parseStreamName(raw);
  if (!name || !sessions_.serves(name->application)) {
    log_("rtmp: refused a publish to \"" + raw + "\"");
    return ServiceReply::error(request.response, 403, "no such live stream");
  }
  auto started = library_.startLive(name->application, name->video, name->stream);
  if (!started) {
    log_("rtmp: refused a publish to " + raw + ": " + started.error().message);
    return ServiceReply::error(request.response, started.error());
  }
  log_("rtmp: publishing " + raw);
  ServiceReply::json(request.response, 200, {{"publish", "accepted"}});
}

void RtmpIngest::onPublishDone(RestRequest& request) {
  if (!checkSecret(request)) return;
  auto params = request.readParams(64 * 1024);
  if (!params) return ServiceReply::error(request.response, params.error());
  log_("rtmp: publish ended " + params->get("name").value_or(""));
  ServiceReply::json(request.response, 200, {{"publish", "ended"}});
}

void RtmpIngest::onRecordDone(RestRequest& request) {
  if (!checkSecret(request)) return;
  auto params = request.readParams(64 * 1024);
  if (!params) return ServiceReply::error(request.response, params.error());
  auto name = parseStreamName(params->get("name").value_or(""));
  std::string path = params->get("path").value_or("");
  // Only a file nginx wrote into the records directory is ever taken.
  std::error_code ec;
  fs::path records = fs::canonical(directory_.rtmpDirectory() + "/records", ec);
  fs::path file = ec ? fs::path() : fs::canonical(path, ec);
  if (!name || ec || file.parent_path() != records || !fs::is_regular_file(file, ec)) {
    return ServiceReply::error(request.response, 400, "not a recording of this ingest");
  }
  StreamName target = *name;
  std::string recording = file.string();
  queue_->async([this, target, recording] { storeRecording(target, recording); });
  ServiceReply::json(request.response, 200, {{"recording", "queued"}});
}

void RtmpIngest::storeRecording(const StreamName& name, const std::string& flvPath) {
  std::string mp4 = directory_.newTemporaryPath(".mp4");
  OptionalError error = remuxer_->remux(flvPath, mp4, RemuxOptions{});
  std::error_code ignored;
  fs::remove(flvPath, ignored);
  if (!error) {
    auto stored = library_.attachFile(name.application, MediaKind::Video, name.video, name.stream,
                                      mp4, MediaLibrary::Unplayable::Refuse, true);
    if (stored) {
      log_("rtmp: stored the recording of stream " + name.stream);
      return;
    }
    error = stored.error();
  }
  fs::remove(mp4, ignored);
  log_("rtmp: the recording of stream " + name.stream + " is lost: " + error->message);
  library_.abandonLive(name.application, name.video, name.stream);
}

}  // namespace nembra
