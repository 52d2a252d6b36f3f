// A loopback HTTP server for tests: cpp-httplib on 127.0.0.1 at a port the kernel picks, serving
// on its own thread. Routes registered through on() record each request before answering, so a
// test can assert the exact bytes that reached the server.
#pragma once

#include <httplib.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nembra::testing {

struct ReceivedRequest {
  std::string method;
  std::string target;  // path and query exactly as sent
  std::string body;
  httplib::Headers headers;

  std::string header(const std::string& name) const {
    auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
  }
};

class HttpTestServer {
 public:
  using Responder = std::function<void(const httplib::Request&, httplib::Response&)>;

  explicit HttpTestServer(std::unique_ptr<httplib::Server> server =
                              std::make_unique<httplib::Server>())
      : server_(std::move(server)) {
    // Tests pause uploads for a while; the default five seconds would cut them off.
    server_->set_read_timeout(30, 0);
  }

  ~HttpTestServer() {
    server_->stop();
    if (thread_.joinable()) thread_.join();
  }

  httplib::Server& server() { return *server_; }

  // Records, then answers with |responder|, every |method| request whose path matches |pattern|.
  void on(const std::string& method, const std::string& pattern, Responder responder) {
    auto handler = [this, responder](const httplib::Request& request, httplib::Response& reply) {
      {
        std::lock_guard lock(mutex_);
        received_.push_back({request.method, request.target, request.body, request.headers});
      }
      responder(request, reply);
    };
    if (method == "GET") server_->Get(pattern, handler);
    if (method == "POST") server_->Post(pattern, handler);
    if (method == "DELETE") server_->Delete(pattern, handler);
    if (method == "PUT") server_->Put(pattern, handler);
  }

  void start() {
    port_ = server_->bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // Connections queue from the bind on; waiting here only makes stop() reliable.
    while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  std::string url(const std::string& path = "") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  int port() const { return port_; }

  std::vector<ReceivedRequest> requests() const {
    std::lock_guard lock(mutex_);
    return received_;
  }

  // A loopback port with nothing listening: connecting to it is refused.
  static int closedPort() {
    httplib::Server probe;
    return probe.bind_to_any_port("127.0.0.1");
  }

 private:
  std::unique_ptr<httplib::Server> server_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<ReceivedRequest> received_;
};

// A fresh directory under /tmp for one test, removed with everything in it afterwards.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    char pattern[] = "/tmp/nembra-http-XXXXXX";
    path_ = ::mkdtemp(pattern);
  }
  ~ScratchDirectory() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace nembra::testing
