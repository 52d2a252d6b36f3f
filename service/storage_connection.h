// Serves one request on a connection to the storage endpoint, whose head was read: applies the
// injected faults as the API does (delay, then a share failed with 503 SlowDown), routes POST
// /storage/BUCKET to the upload receiver with the body read straight off the socket, and writes the
// answer: 204, or an S3-style XML error (404 and 405 for other paths and methods). An answer given
// before the body was read ends the connection, since the client may still be sending it.
//
// Threading: on the worker serving the request; the stream's shutdown() may end it from any
// thread.
#pragma once

#include <chrono>
#include <string>

#include "service/fault_injection.h"
#include "service/http_connection_server.h"
#include "service/http_head_parser.h"
#include "service/socket_stream.h"
#include "service/storage_upload_receiver.h"

namespace nembra {

class StorageConnection {
 public:
  StorageConnection(SocketStream& stream, StorageUploadReceiver& receiver, FaultInjection& faults,
                    const HttpConnectionLimits& limits);

  // Serves the request |head|; KeepOpen when the connection may carry another.
  HttpRequestHandler::After serve(const HttpRequestHead& head);
  // Answers a head that could not be read.
  void refuseHead(int status, const std::string& message);

 private:
  // How a request leaves its connection.
  enum class Next { KeepOpen, Close, CloseAfterBody, Cut };

  Next handle(const HttpRequestHead& head);
  Next post(const HttpRequestHead& head, const std::string& bucket);
  // Sends an S3-style error and ends the connection. |bodyComing|: the client may be sending
  // a body that is left unread, which is then drained before the connection closes.
  Next refuse(const HttpRequestHead& head, const StorageError& error, bool bodyComing,
              const std::string& extraHeaders = "");
  bool sendAnswer(int status, const std::string& headers, const std::string& body, bool close,
                  const HttpRequestHead* head);

  SocketStream& stream_;
  StorageUploadReceiver& receiver_;
  FaultInjection& faults_;
  const HttpConnectionLimits& limits_;
};

}  // namespace nembra
