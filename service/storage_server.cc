#include "service/storage_server.h"

#include "service/storage_connection.h"

namespace nembra {

StorageServer::StorageServer(StorageUploadReceiver& receiver, FaultInjection& faults,
                             HttpConnectionLimits limits)
    : receiver_(receiver), faults_(faults), server_("storage.conn", *this, limits) {}

StorageServer::~StorageServer() { stop(); }

bool StorageServer::start(std::unique_ptr<TcpListener> listener) {
  return server_.start(std::move(listener));
}

void StorageServer::stop() { server_.stop(); }

HttpRequestHandler::After StorageServer::serve(SocketStream& stream, const HttpRequestHead& head,
                                               const std::string&) {
  return StorageConnection(stream, receiver_, faults_, server_.limits()).serve(head);
}

void StorageServer::refuse(SocketStream& stream, int status, const std::string& message) {
  StorageConnection(stream, receiver_, faults_, server_.limits()).refuseHead(status, message);
}

}  // namespace nembra
