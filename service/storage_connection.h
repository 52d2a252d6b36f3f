// Serves the requests of one connection to the storage endpoint, one after the other while the
// client keeps it open: reads each head, applies the injected faults as the API does (delay,
// then a share failed with 503 SlowDown), routes POST /storage/BUCKET to the upload receiver
// with the body read straight off the socket, and writes the answer: 204, or an S3-style XML
// error (404 and 405 for other paths and methods). An answer given before the body was read
// ends the connection, since the client may still be sending it.
//
// Threading: serve() runs on one connection thread; the stream's shutdown() may end it from
// any thread.
#pragma once

#include <chrono>
#include <string>

#include "service/fault_injection.h"
#include "service/http_head_parser.h"
#include "service/socket_stream.h"
#include "service/storage_upload_receiver.h"

namespace nembra {

class StorageConnection {
 public:
  struct Timeouts {
    std::chrono::milliseconds read{60000};  // within a request
    std::chrono::milliseconds write{60000};
    // Between requests: an idle client holds a thread for no longer than this.
    std::chrono::milliseconds idle{2000};
  };

  StorageConnection(SocketStream& stream, StorageUploadReceiver& receiver, FaultInjection& faults,
                    Timeouts timeouts);

  // Serves requests until the client closes, stalls, or a request ends the connection.
  void serve();

 private:
  // How a request leaves its connection.
  enum class Next { KeepOpen, Close, CloseAfterBody, Cut };

  // Reads the next head; false when the connection is to end (an answer was sent if owed).
  bool readHead(HttpRequestHead& head);
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
  const Timeouts timeouts_;
};

}  // namespace nembra
