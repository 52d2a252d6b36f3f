// The local media service `nembra serve` runs: one HTTP server for the REST API (API base and
// "/embed" dev base), storage ("/storage"), CDN ("/cdn") and files ("/files"), with the RTMP
// ingest beside it when asked for and installed. Everything lives under the data directory and
// survives restarts.
//
// Threading: construct, start() and stop() from one owner thread. Requests are served on the
// HTTP worker threads "nembra.http.N", the listener on "com.nembra.service.listen"; the log
// callback may be called from any of them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "nembra/error.h"
#include "service/media_json.h"
#include "service/service_options.h"

namespace httplib {
class Server;
}

namespace nembra {

class CdnFileServer;
class DataDirectory;
class FaultInjection;
class HostlessRoutes;
class MediaAnalyzer;
class MediaLibrary;
class MediaRoutes;
class MediaStore;
class RestAuthGate;
class RouteTable;
class RtmpIngest;
class SessionRegistry;
class StoragePolicySigner;
class StoragePolicyVerifier;
class StorageUploadReceiver;
class VideosRoutes;

class LocalService {
 public:
  using Log = std::function<void(const std::string&)>;

  // |log| receives one line per notable event (the ingest's publishes, warnings); by default
  // they go to standard error.
  explicit LocalService(ServiceOptions options, Log log = nullptr);
  ~LocalService();
  LocalService(const LocalService&) = delete;
  LocalService& operator=(const LocalService&) = delete;

  // Opens the data directory, binds the port (a free one when the port is 0), starts the RTMP
  // ingest when asked for, and serves. An error when any of it fails; nothing keeps running then.
  OptionalError start();
  // Stops the ingest and the server; requests in progress finish. Safe to call twice.
  void stop();

  int port() const { return port_; }
  // The RTMP port, 0 when no ingest runs.
  int rtmpPort() const;
  const PublicUrls& urls() const;
  const std::string& dataDirectory() const { return dataDir_; }

 private:
  OptionalError open();
  void installServer();

  const ServiceOptions options_;
  Log log_;
  std::string dataDir_;
  int port_ = 0;

  std::unique_ptr<DataDirectory> directory_;
  std::unique_ptr<MediaStore> store_;
  std::unique_ptr<SessionRegistry> sessions_;
  std::unique_ptr<MediaAnalyzer> analyzer_;
  std::unique_ptr<StoragePolicySigner> signer_;
  std::unique_ptr<StoragePolicyVerifier> verifier_;
  std::unique_ptr<MediaLibrary> library_;
  std::unique_ptr<FaultInjection> faults_;
  std::unique_ptr<MediaJson> json_;
  std::unique_ptr<RestAuthGate> gate_;
  std::unique_ptr<CdnFileServer> cdn_;
  std::unique_ptr<VideosRoutes> videos_;
  std::unique_ptr<MediaRoutes> audios_;
  std::unique_ptr<MediaRoutes> images_;
  std::unique_ptr<HostlessRoutes> hostless_;
  std::unique_ptr<StorageUploadReceiver> storage_;
  std::unique_ptr<RtmpIngest> ingest_;
  std::unique_ptr<RouteTable> routes_;
  std::unique_ptr<httplib::Server> server_;
  std::thread listener_;
};

}  // namespace nembra
