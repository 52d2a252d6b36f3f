// Everything `nembra serve` can be told, with the defaults a local service runs with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/http_connection_server.h"

namespace nembra {

struct FaultOptions {
  int latencyMs = 0;            // added before every answer
  double failRate = 0.0;        // share of requests answered 503, 0 to 1
  uint64_t cutUploadAfter = 0;  // uploads lose their connection after this many body bytes; 0 off
  uint64_t throttleBps = 0;     // storage and CDN transfer rate cap in bytes per second; 0 off
};

struct ServiceOptions {
  std::string host = "127.0.0.1";
  int port = 8080;                  // 0 picks a free port
  int storagePort = 0;              // the storage endpoint's own port; 0 picks a free one
  std::string dataDir;              // empty: defaultDataDirectory()
  int rtmpPort = 1935;              // 0: no RTMP ingest
  std::vector<std::string> tokens;  // empty: any application token is served
  std::string secret;               // storage signing secret; empty: one kept in the data directory
  FaultOptions faults;

  uint64_t maxBodyBytes = 1 << 20;       // REST form and event bodies
  uint64_t maxImageBytes = 32ull << 20;  // covers and image uploads
  uint64_t maxUploadBytes = 8ull << 30;  // video and audio files
  int uploadUrlLifetimeSeconds = 3600;   // how long a signed storage form stays valid
  int cdnMaxAgeSeconds = 3600;           // Cache-Control max-age of media files
  int httpThreads = 128;                 // most requests served at once, per port

  // Slow clients: a request head must arrive whole within headTimeoutMs; a body may fall behind
  // minBodyBytesPerSecond only for its first bodyGraceMs of waiting. Both answer 408.
  int headTimeoutMs = 10000;
  int idleTimeoutMs = 5000;  // an idle keep-alive connection is closed after this
  int bodyGraceMs = 10000;
  uint64_t minBodyBytesPerSecond = 1024;
  int maxConnections = 400;  // open at once per port; more are closed at accept

  int sessionLifetimeSeconds = 7 * 24 * 3600;  // a session unused this long expires
  int sessionsPerMinute = 120;                 // new sessions per client address (429 beyond)
  // A video created for an upload and never confirmed is removed after this long.
  int unconfirmedVideoLifetimeSeconds = 24 * 3600;

  // The connection limits both HTTP ports are served with.
  HttpConnectionLimits connectionLimits() const;

  // "http://HOST:PORT" as clients should reach the service: a wildcard bind address is shown as
  // the loopback address.
  std::string publicBaseUrl(int boundPort) const;
  std::string publicHost() const;
};

// $XDG_DATA_HOME/nembra/service, else ~/.local/share/nembra/service.
std::string defaultDataDirectory();

}  // namespace nembra
