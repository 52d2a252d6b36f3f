// The local media service `nembra serve` runs: one HTTP server for the REST API (API base and
// "/embed" dev base), CDN ("/cdn") and files ("/files"); the storage endpoint of signed uploads
// ("/storage/BUCKET") on a port of its own, served by its own server built for large bodies; and
// the RTMP ingest beside them when asked for and installed. Everything lives under the data
// directory and survives restarts.
//
// Threading: construct, start() and stop() from one owner thread. API requests are served on
// "nembra.http.N" (heads read on "nembra.http.heads", accepted on "nembra.http.listen"); storage
// uploads on "storage.conn.N" (and "storage.conn.heads", "storage.conn.listen"). The log
// callback may be called from any of them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "nembra/error.h"
#include "service/media_json.h"
#include "service/service_options.h"

namespace nembra {

class ApiHttpServer;
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
class StorageServer;
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

  // Opens the data directory, binds the ports (free ones when 0), starts the RTMP
  // ingest when asked for, and serves. An error when any of it fails; nothing keeps running then.
  OptionalError start();
  // Stops the ingest and the servers: API requests in progress finish, storage uploads in
  // progress are cut. Safe to call twice.
  void stop();

  int port() const { return port_; }
  // The storage endpoint's port.
  int storagePort() const { return storagePort_; }
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
  int storagePort_ = 0;

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
  std::unique_ptr<ApiHttpServer> server_;
  std::unique_ptr<StorageServer> storageServer_;
};

}  // namespace nembra
