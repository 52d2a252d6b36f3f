// The storage endpoint's own HTTP server, beside the API's: it serves nothing but storage POSTs,
// and reads their bodies in large blocks straight into the upload receiver. Connections, heads
// and their deadlines are HttpConnectionServer's; each request is a StorageConnection's.
//
// Threading: start() and stop() from the owner thread. Threads are HttpConnectionServer's, named
// "storage.conn" ("storage.conn.listen", "storage.conn.heads", requests on "storage.conn.N").
#pragma once

#include <memory>

#include "platform/net/tcp_listener.h"
#include "service/fault_injection.h"
#include "service/http_connection_server.h"
#include "service/storage_upload_receiver.h"

namespace nembra {

class StorageServer final : public HttpRequestHandler {
 public:
  StorageServer(StorageUploadReceiver& receiver, FaultInjection& faults,
                HttpConnectionLimits limits);
  // stop()
  ~StorageServer() override;
  StorageServer(const StorageServer&) = delete;
  StorageServer& operator=(const StorageServer&) = delete;

  // Serves the connections |listener| accepts until stop(); false when it cannot.
  bool start(std::unique_ptr<TcpListener> listener);
  // Stops accepting, ends the open connections (uploads in progress fail) and joins every
  // thread. Safe to call twice.
  void stop();

  After serve(SocketStream& stream, const HttpRequestHead& head,
              const std::string& rawHead) override;
  void refuse(SocketStream& stream, int status, const std::string& message) override;

 private:
  StorageUploadReceiver& receiver_;
  FaultInjection& faults_;
  HttpConnectionServer server_;
};

}  // namespace nembra
