// The API port's server: the HTTP library's routing and answers, over the service's own
// connection handling. Heads are read and checked by HttpConnectionServer (the same parser,
// limits and framing rules as the storage port), and only a head that passed reaches the library,
// which then reads exactly the body that head frames (FramedHttpStream). Its routes and handlers
// are set as on any httplib::Server.
//
// Threading: start() and stop() from the owner thread; threads "nembra.http.listen",
// "nembra.http.heads", and requests on "nembra.http.N". stop() lets requests in progress finish.
#pragma once

#include <httplib.h>

#include <memory>

#include "platform/net/tcp_listener.h"
#include "service/http_connection_server.h"

namespace nembra {

class ApiHttpServer final : public httplib::Server, public HttpRequestHandler {
 public:
  explicit ApiHttpServer(HttpConnectionLimits limits);
  ~ApiHttpServer() override;

  // Serves the connections |listener| accepts until stop(); false when it cannot.
  bool start(std::unique_ptr<TcpListener> listener);
  void stop();

  After serve(SocketStream& stream, const HttpRequestHead& head,
              const std::string& rawHead) override;
  void refuse(SocketStream& stream, int status, const std::string& message) override;

  // The JSON error answer the API gives outside the library: a whole HTTP/1.1 message.
  static std::string errorAnswer(int status, const std::string& message);

 private:
  HttpConnectionLimits limits_;
  HttpConnectionServer connections_;
};

}  // namespace nembra
