#include "service/local_service.h"

#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "platform/dispatch/thread_name.h"
#include "platform/http/http_time.h"
#include "platform/media/frame_grabber.h"
#include "platform/media/media_probe.h"
#include "platform/media/media_remuxer.h"
#include "platform/net/tcp_listener.h"
#include "service/ad_routes.h"
#include "service/api_http_server.h"
#include "service/audio_transcriber.h"
#include "service/cdn_file_server.h"
#include "service/data_directory.h"
#include "service/fault_injection.h"
#include "service/hostless_routes.h"
#include "service/media_analyzer.h"
#include "service/media_library.h"
#include "service/media_routes.h"
#include "service/media_store.h"
#include "service/rest_auth_gate.h"
#include "service/route_table.h"
#include "service/rtmp_ingest.h"
#include "service/service_reply.h"
#include "service/session_registry.h"
#include "service/storage_policy_signer.h"
#include "service/storage_policy_verifier.h"
#include "service/storage_server.h"
#include "service/storage_upload_receiver.h"
#include "service/token_rules.h"
#include "service/videos_routes.h"

namespace nembra {
namespace {

constexpr const char* kBucket = "nembra-media";
constexpr const char* kSecretSetting = "storage_secret";

bool startsWithNoCase(const std::string& text, const char* prefix) {
  for (size_t i = 0; prefix[i]; ++i) {
    if (i >= text.size() || std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) {
      return false;
    }
  }
  return true;
}

}  // namespace

LocalService::LocalService(ServiceOptions options, Log log)
    : options_(std::move(options)), log_(std::move(log)) {
  if (!log_) {
    log_ = [](const std::string& line) {
      std::fprintf(stderr, "nembra serve: %s\n", line.c_str());
    };
  }
  dataDir_ = options_.dataDir.empty() ? defaultDataDirectory() : options_.dataDir;
  // Absolute: the ingest's nginx reads paths relative to its own prefix, not to ours.
  std::error_code ec;
  auto absolute = std::filesystem::absolute(dataDir_, ec);
  if (!ec) dataDir_ = absolute.lexically_normal().string();
}

LocalService::~LocalService() { stop(); }

int LocalService::rtmpPort() const { return ingest_ && ingest_->running() ? options_.rtmpPort : 0; }

const PublicUrls& LocalService::urls() const { return json_->urls(); }

OptionalError LocalService::open() {
  for (const auto& token : options_.tokens) {
    if (!isSafeToken(token)) {
      return Error::invalidArgument("the application token \"" + token +
                                    "\" may hold only letters, digits, '_' and '-'");
    }
  }
  directory_ = std::make_unique<DataDirectory>(dataDir_);
  if (auto error = directory_->prepare()) return error;
  auto store = MediaStore::open(directory_->databasePath());
  if (!store) return store.error();
  store_ = std::move(*store);
  if (auto error = store_->resetLiveStreams(unixNow())) return error;

  std::string secret = options_.secret;
  if (secret.empty()) {
    // Kept in the store, so forms signed before a restart stay valid after it.
    auto saved = store_->setting(kSecretSetting);
    if (!saved) return saved.error();
    secret = saved->value_or("");
    if (secret.empty()) {
      secret = randomHex(32);
      if (auto error = store_->putSetting(kSecretSetting, secret)) return error;
    }
  }
  StorageCredentials credentials;
  credentials.secret = secret;
  credentials.accessKeyId = "NMBR" + toHex(sha256(secret)).substr(0, 16);
  for (auto& c : credentials.accessKeyId) c = static_cast<char>(std::toupper(c));

  sessions_ = std::make_unique<SessionRegistry>(
      *store_, options_.tokens,
      SessionLimits{options_.sessionLifetimeSeconds, options_.sessionsPerMinute});
  analyzer_ = std::make_unique<MediaAnalyzer>(makeMediaProbe(), makeFrameGrabber());
  std::string base = options_.publicBaseUrl(port_);
  std::string storageUrl = options_.publicBaseUrl(storagePort_) + "/storage/" + kBucket;
  signer_ = std::make_unique<StoragePolicySigner>(credentials, kBucket, storageUrl);
  verifier_ = std::make_unique<StoragePolicyVerifier>(credentials);
  library_ = std::make_unique<MediaLibrary>(*store_, *directory_, *analyzer_, *signer_, options_);
  transcriber_ = std::make_unique<AudioTranscriber>(*library_, log_);
  library_->setReadyListener([transcriber = transcriber_.get()](const std::string& application,
                                                                MediaKind kind,
                                                                const StreamRecord& stream) {
    transcriber->enqueue(application, kind, stream);
  });
  faults_ = std::make_unique<FaultInjection>(options_.faults);
  ingest_ =
      std::make_unique<RtmpIngest>(*library_, *sessions_, *directory_, makeMediaRemuxer(), log_);

  std::string rtmpUrl;
  if (options_.rtmpPort != 0) {
    if (!RtmpIngest::findNginx() || !RtmpIngest::findRtmpModule()) {
      log_(
          "no RTMP ingest: nginx with its RTMP module is not installed "
          "(Debian: apt-get install nginx libnginx-mod-rtmp)");
    } else {
      if (auto error = ingest_->start(options_.host, options_.rtmpPort, base)) {
        return Error::file("the RTMP ingest did not start: " + error->message);
      }
      rtmpUrl = "rtmp://" + options_.publicHost() + ":" + std::to_string(options_.rtmpPort) +
                "/record/_definst_";
    }
  }
  json_ = std::make_unique<MediaJson>(PublicUrls::fromBase(base, storageUrl, rtmpUrl));
  gate_ = std::make_unique<RestAuthGate>(*sessions_, options_);
  cdn_ =
      std::make_unique<CdnFileServer>(*library_, *sessions_, *faults_, options_.cdnMaxAgeSeconds);
  videos_ = std::make_unique<VideosRoutes>(*library_, *json_, *gate_, *cdn_, *faults_, options_);
  audios_ = std::make_unique<MediaRoutes>(MediaKind::Audio, *library_, *json_, *gate_);
  images_ = std::make_unique<MediaRoutes>(MediaKind::Image, *library_, *json_, *gate_);
  hostless_ = std::make_unique<HostlessRoutes>(*library_, *store_, *json_, *gate_, *videos_,
                                               *audios_, *images_, options_);
  storage_ =
      std::make_unique<StorageUploadReceiver>(*library_, *verifier_, kBucket, *faults_, options_);
  ads_ = std::make_unique<AdRoutes>(base, directory_->root() + "/ads/ad.mp4");
  routes_ = std::make_unique<RouteTable>();
  ads_->registerRoutes(*routes_);
  hostless_->registerRoutes(*routes_);
  videos_->registerRoutes(*routes_);
  audios_->registerRoutes(*routes_);
  images_->registerRoutes(*routes_);
  cdn_->registerRoutes(*routes_);
  ingest_->registerRoutes(*routes_);
  return std::nullopt;
}

void LocalService::installServer() {
  httplib::Server& server = *server_;

  server.set_pre_routing_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        // A multipart Content-Type would make the server library parse the body itself (with a
        // stricter reader than clients need); the routes read such bodies, so the type moves aside.
        auto& headers = const_cast<httplib::Headers&>(request.headers);
        headers.erase(RestRequest::kMultipartTypeHeader);
        auto type = headers.find("Content-Type");
        if (type != headers.end() && startsWithNoCase(type->second, "multipart/")) {
          std::string value = type->second;
          headers.erase(type);
          headers.emplace(RestRequest::kMultipartTypeHeader, value);
        }
        if (request.path.rfind("/rtmp-hooks/", 0) == 0)
          return httplib::Server::HandlerResponse::Unhandled;
        faults_->delay();
        if (!faults_->shouldFail()) return httplib::Server::HandlerResponse::Unhandled;
        response.set_header("Connection", "close");
        ServiceReply::error(response, 503, "the service is failing this request on purpose");
        return httplib::Server::HandlerResponse::Handled;
      });
  server.set_exception_handler(
      [](const httplib::Request&, httplib::Response& response, std::exception_ptr error) {
        std::string what = "unknown";
        try {
          if (error) std::rethrow_exception(error);
        } catch (const std::exception& e) {
          what = e.what();
        } catch (...) {
        }
        ServiceReply::error(response, 500, "internal error: " + what);
      });
  server.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request& request,
                                                                   httplib::Response& response) {
    // Answers the server library made itself (an unreadable Range, an unknown method) get the
    // same JSON body as the routes' own errors.
    if (!response.body.empty() || response.content_provider_) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    if (response.status == 416 && request.has_header("Range")) {
      ServiceReply::error(response, 416, "the Range header cannot be read");
    } else {
      ServiceReply::error(response, response.status, ServiceReply::reasonPhrase(response.status));
    }
    return httplib::Server::HandlerResponse::Handled;
  }));

  auto plain = [this](const httplib::Request& request, httplib::Response& response) {
    routes_->dispatch(request, response, nullptr);
  };
  auto withBody = [this](const httplib::Request& request, httplib::Response& response,
                         const httplib::ContentReader& reader) {
    routes_->dispatch(request, response, &reader);
  };
  server.Get(".*", plain);
  server.Post(".*", withBody);
  server.Post(".*", plain);
  server.Delete(".*", withBody);
  server.Delete(".*", plain);
  server.Put(".*", withBody);
  server.Put(".*", plain);
  server.Patch(".*", withBody);
  server.Patch(".*", plain);
}

OptionalError LocalService::start() {
  if (server_) return Error::invalidArgument("the service is already running");
  OptionalError listenError;
  std::unique_ptr<TcpListener> apiListener =
      TcpListener::open(options_.host, options_.port, listenError);
  if (!apiListener) return listenError;
  port_ = apiListener->port();
  std::unique_ptr<TcpListener> storageListener =
      TcpListener::open(options_.host, options_.storagePort, listenError);
  if (!storageListener) return listenError;
  storagePort_ = storageListener->port();
  if (auto error = open()) {
    ingest_.reset();
    return error;
  }
  server_ = std::make_unique<ApiHttpServer>(options_.connectionLimits());
  installServer();
  transcriber_->start();
  storageServer_ =
      std::make_unique<StorageServer>(*storage_, *faults_, options_.connectionLimits());
  if (!server_->start(std::move(apiListener)) ||
      !storageServer_->start(std::move(storageListener))) {
    stop();
    server_.reset();
    return Error::transport("cannot watch connections: the system has no poller to give");
  }
  return std::nullopt;
}

void LocalService::stop() {
  if (transcriber_) transcriber_->stop();
  if (faults_) faults_->stopTransfers();
  if (ingest_) ingest_->stop();
  if (storageServer_) storageServer_->stop();
  if (server_) server_->stop();
}

}  // namespace nembra
