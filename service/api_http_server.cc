#include "service/api_http_server.h"

#include <limits>

#include "platform/http/http_time.h"
#include "service/framed_http_stream.h"
#include "service/rest_request.h"
#include "service/service_reply.h"

namespace nembra {

ApiHttpServer::ApiHttpServer(HttpConnectionLimits limits)
    : limits_([&] {
        limits.cutOnStop = false;
        return limits;
      }()),
      connections_("nembra.http", *this, limits_) {
  // The library takes an invalid listening socket for a server shutting down and then stops
  // streaming answers part way; its own listener is never used here, so any other value does.
  svr_sock_ = std::numeric_limits<socket_t>::max();
}

ApiHttpServer::~ApiHttpServer() { stop(); }

bool ApiHttpServer::start(std::unique_ptr<TcpListener> listener) {
  return connections_.start(std::move(listener));
}

void ApiHttpServer::stop() { connections_.stop(); }

std::string ApiHttpServer::errorAnswer(int status, const std::string& message) {
  std::string body = ServiceReply::errorBody(status, message);
  return "HTTP/1.1 " + std::to_string(status) + " " + ServiceReply::reasonPhrase(status) +
         "\r\nDate: " + formatHttpDate(unixNow()) +
         "\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

HttpRequestHandler::After ApiHttpServer::serve(SocketStream& stream, const HttpRequestHead& head,
                                               const std::string& rawHead) {
  FramedHttpStream framed(
      stream, head, rawHead, limits_.body, limits_.write, [this](SocketStream& slow) {
        slow.send(errorAnswer(408, "the request body came too slowly"), limits_.write);
      });
  bool close = !head.keepAlive;
  bool closedByRequest = false;
  bool written = process_request(framed, close, closedByRequest, nullptr);
  written = framed.flush() && written;
  if (framed.dead() || !written) return After::Close;
  if (!framed.bodyFinished()) {
    // Answered without reading the whole body: the rest cannot be told from a next request.
    stream.lingeringClose(RestRequest::kMaxDrainBytes, limits_.idleTimeout);
    return After::Close;
  }
  return close || closedByRequest ? After::Close : After::KeepOpen;
}

void ApiHttpServer::refuse(SocketStream& stream, int status, const std::string& message) {
  stream.send(errorAnswer(status, "the request cannot be read: " + message), limits_.write);
}

}  // namespace nembra
