// The HttpClient of Linux, on libcurl: one network thread ("com.nembra.network") drives every
// transfer through a curl multi handle.
//
// Threading: any thread may create tasks and use them. Task events (progress, completion) run
// on the serial queue "com.nembra.network.callbacks", one at a time, never on the caller's
// stack. Destroying the client aborts the tasks still running without reporting them; it must
// not be done from one of its own callbacks.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "nembra/http_task.h"
#include "platform/http/http_client.h"

namespace nembra {

class CurlMultiLoop;
class HttpBodyFile;
struct CurlTransferSettings;

class CurlHttpClient final : public HttpClient {
 public:
  struct Options {
    std::chrono::milliseconds connectTimeout{30000};
    // A request without a body file (REST calls, the session, downloads) fails when no answer
    // has begun this long after it connected or sent its last body byte: a server that accepts
    // and never answers must not hold a small request for the whole stall time. File uploads
    // keep the stall limit alone (storage may take its time once the body is in).
    std::chrono::milliseconds firstByteTimeout{5000};
    // Abort a transfer that moves fewer than lowSpeedLimit bytes per second for lowSpeedTime.
    long lowSpeedLimit = 1;
    std::chrono::seconds lowSpeedTime{60};
    // A PEM file of roots trusted in addition to the system's. TLS verification is always on.
    std::optional<std::string> extraRootsPath;

    // The defaults, with extraRootsPath from NEMBRA_CA_BUNDLE when it is set and not empty.
    static Options fromEnvironment();
  };

  explicit CurlHttpClient(Options options = Options::fromEnvironment());
  ~CurlHttpClient() override;
  CurlHttpClient(const CurlHttpClient&) = delete;
  CurlHttpClient& operator=(const CurlHttpClient&) = delete;

  std::shared_ptr<HttpTask> dataTask(HttpRequest request, HttpTaskEvents events) override;
  std::shared_ptr<HttpTask> uploadTask(HttpRequest request, std::unique_ptr<HttpBodyFile> body,
                                       HttpTaskEvents events) override;
  std::shared_ptr<HttpTask> failedTask(HttpRequest request, Error error,
                                       HttpTaskEvents events) override;

 private:
  std::shared_ptr<HttpTask> makeTask(HttpRequest request, HttpTaskEvents events,
                                     std::unique_ptr<HttpBodyFile> body, OptionalError presetError);

  std::shared_ptr<const CurlTransferSettings> settings_;
  // Set when the options cannot be honoured (unreadable extra roots): every task then fails
  // with it rather than run with a trust setting other than the one asked for.
  OptionalError configurationError_;
  std::atomic<uint64_t> nextIdentifier_{1};
  std::shared_ptr<CurlMultiLoop> loop_;
};

}  // namespace nembra
