// The storage endpoint's own HTTP server, beside the API's: one accept thread hands each
// connection to a thread of its pool, where a StorageConnection serves it. It serves nothing but
// storage POSTs, and reads their bodies in large blocks straight into the upload receiver.
//
// Threading: start() and stop() from the owner thread. The accept thread is
// "com.nembra.storage.listen", connections are served on "storage.conn.N".
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "platform/net/tcp_listener.h"
#include "service/fault_injection.h"
#include "service/storage_connection.h"
#include "service/storage_upload_receiver.h"

namespace nembra {

class HttpWorkerPool;
class SocketStream;

class StorageServer {
 public:
  // At most |maxConnections| are served at once; more wait for a thread.
  StorageServer(StorageUploadReceiver& receiver, FaultInjection& faults, size_t maxConnections,
                StorageConnection::Timeouts timeouts = {});
  // stop()
  ~StorageServer();
  StorageServer(const StorageServer&) = delete;
  StorageServer& operator=(const StorageServer&) = delete;

  // Serves the connections |listener| accepts until stop().
  void start(std::unique_ptr<TcpListener> listener);
  // Stops accepting, ends the open connections (uploads in progress fail) and joins every
  // thread. Safe to call twice.
  void stop();

 private:
  void acceptLoop();
  void serve(SocketStream& stream);

  StorageUploadReceiver& receiver_;
  FaultInjection& faults_;
  const StorageConnection::Timeouts timeouts_;
  std::unique_ptr<TcpListener> listener_;
  std::unique_ptr<HttpWorkerPool> pool_;
  std::thread acceptThread_;

  std::mutex mutex_;
  std::set<SocketStream*> open_;  // guarded by mutex_; each owned by the thread serving it
  bool stopping_ = false;         // guarded by mutex_
};

}  // namespace nembra
