#include "service/storage_server.h"

#include "platform/dispatch/thread_name.h"
#include "service/http_worker_pool.h"
#include "service/socket_stream.h"

namespace nembra {

StorageServer::StorageServer(StorageUploadReceiver& receiver, FaultInjection& faults,
                             size_t maxConnections, StorageConnection::Timeouts timeouts)
    : receiver_(receiver),
      faults_(faults),
      timeouts_(timeouts),
      pool_(std::make_unique<HttpWorkerPool>("storage.conn", maxConnections)) {}

StorageServer::~StorageServer() { stop(); }

void StorageServer::start(std::unique_ptr<TcpListener> listener) {
  listener_ = std::move(listener);
  acceptThread_ = std::thread([this] {
    setCurrentThreadName("com.nembra.storage.listen");
    acceptLoop();
  });
}

void StorageServer::acceptLoop() {
  for (;;) {
    std::unique_ptr<TcpSocket> socket = listener_->accept();
    if (!socket) return;
    // Shared only because a queued task must be copyable; the serving thread is its one user,
    // and a task the pool drops while stopping closes the socket with it.
    auto stream = std::make_shared<SocketStream>(std::move(socket));
    pool_->enqueue([this, stream] { serve(*stream); });
  }
}

void StorageServer::serve(SocketStream& stream) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    open_.insert(&stream);
  }
  StorageConnection(stream, receiver_, faults_, timeouts_).serve();
  std::lock_guard lock(mutex_);
  open_.erase(&stream);
}

void StorageServer::stop() {
  if (listener_) listener_->shutdown();
  if (acceptThread_.joinable()) acceptThread_.join();
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (SocketStream* stream : open_) stream->shutdown();
  }
  if (pool_) pool_->shutdown();
  listener_.reset();
}

}  // namespace nembra
