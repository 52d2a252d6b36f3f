// The connection handling both of the service's HTTP ports share. One accept thread, one event
// loop that reads every connection's request head, and a pool of workers that serve whole heads.
//
// Why an event loop for heads: a client that sends its head slowly (or keeps an idle keep-alive
// connection) then costs a socket and at most kMaxHeadBytes of buffer, never a worker, so any
// number of slow clients leave the workers free for the others. Each head must be complete within
// headTimeout (408 otherwise), within HttpHeadParser's size limit (431) and framed the one way
// the parser accepts (400, 501): every port answers the same shapes the same way. Small bodies
// (every REST call's) are collected by the loop too, under the pace BodyPace sets, so a worker
// only ever waits on a client for a large body (an upload), under a BodyPace, which bounds how
// long a trickling client can hold it.
//
// Threading: start() and stop() from the owner thread. The accept thread is "<name>.listen", the
// loop "<name>.heads", the workers "<name>.N". The handler is called on the workers.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "platform/net/socket_poller.h"
#include "platform/net/tcp_listener.h"
#include "service/body_pace.h"
#include "service/http_head_parser.h"
#include "service/socket_stream.h"

namespace nembra {

class HttpWorkerPool;

// What a port does with the requests whose heads were read.
class HttpRequestHandler {
 public:
  enum class After { KeepOpen, Close };

  virtual ~HttpRequestHandler() = default;
  // Serves the request |head| on |stream| (the body, if any, is next in it); |rawHead| is the
  // head as it was received. KeepOpen only when the body was read to its end and the answer
  // sent: the next head is read from the stream.
  virtual After serve(SocketStream& stream, const HttpRequestHead& head,
                      const std::string& rawHead) = 0;
  // Sends this port's answer to a head that was refused with |status| (the connection closes
  // after it). Called on the head loop: it must not wait on the client beyond a short send.
  virtual void refuse(SocketStream& stream, int status, const std::string& message) = 0;
};

struct HttpConnectionLimits {
  size_t workers = 128;
  // Connections held open at once (waiting for a head, or served); more are closed at accept.
  size_t maxConnections = 400;
  std::chrono::milliseconds headTimeout{10000};  // from a head's first byte to its end
  std::chrono::milliseconds idleTimeout{5000};   // between requests of one connection
  BodyPaceLimits body;
  std::chrono::milliseconds write{60000};
  // Whether stop() cuts the requests being served; otherwise they finish first.
  bool cutOnStop = true;
};

class HttpConnectionServer {
 public:
  // Bodies up to this size are read whole before a worker is given the request.
  static constexpr uint64_t kLoopBodyBytes = 64 * 1024;

  HttpConnectionServer(std::string name, HttpRequestHandler& handler, HttpConnectionLimits limits);
  // stop()
  ~HttpConnectionServer();
  HttpConnectionServer(const HttpConnectionServer&) = delete;
  HttpConnectionServer& operator=(const HttpConnectionServer&) = delete;

  // Serves the connections |listener| accepts until stop(). False when no poller was available.
  bool start(std::unique_ptr<TcpListener> listener);
  // Stops accepting, closes the connections waiting for a head, ends (or lets finish) the ones
  // being served, and joins every thread. Safe to call twice.
  void stop();

  const HttpConnectionLimits& limits() const { return limits_; }

 private:
  struct Connection {
    std::unique_ptr<SocketStream> stream;
    std::chrono::steady_clock::time_point deadline;
    bool inHead = false;  // some bytes of a head came: the head deadline runs
    // A small body the loop collects before the request goes to a worker, with its head.
    std::unique_ptr<HttpRequestHead> head;
    std::string rawHead;
    // Answered and refused: what the client still sends is dropped until it closes or the
    // deadline passes, so that the answer is not lost to a reset.
    bool draining = false;
  };

  void acceptLoop();
  void headLoop();
  // Loop thread: reads what |connection| sent and acts on a complete or refused head. False when
  // the connection left the loop (handed on or closed).
  bool advance(std::unique_ptr<Connection>& connection);
  // Loop thread: collects a small body after its head; dispatches the request once it is whole.
  bool collectBody(std::unique_ptr<Connection>& connection);
  void dispatch(std::unique_ptr<Connection> connection, HttpRequestHead head, std::string rawHead);
  // Loop thread: answers a refused head and starts draining the connection. False when it
  // closed at once.
  bool refuse(Connection& connection, int status, const std::string& message);
  // Loop thread: drops what a refused client still sends; false once the connection closed.
  bool drain(Connection& connection);
  // From a worker or the accept thread: puts a connection (back) under the loop's watch.
  void handBack(std::unique_ptr<Connection> connection);
  void release();

  const std::string name_;
  HttpRequestHandler& handler_;
  const HttpConnectionLimits limits_;
  std::unique_ptr<TcpListener> listener_;
  std::unique_ptr<SocketPoller> poller_;
  std::unique_ptr<HttpWorkerPool> pool_;
  std::thread acceptThread_;
  std::thread loopThread_;

  std::mutex mutex_;
  std::deque<std::unique_ptr<Connection>> incoming_;  // guarded by mutex_
  std::set<SocketStream*> served_;                    // guarded by mutex_
  size_t open_ = 0;                                   // guarded by mutex_
  bool stopping_ = false;                             // guarded by mutex_
};

}  // namespace nembra
