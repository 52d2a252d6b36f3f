// What the HTTP tests share: a loopback server, a scratch directory, and large files with a
// known digest.
#pragma once

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nembra::testing {

// A request as it reached the server.
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

// A loopback HTTP server: cpp-httplib on 127.0.0.1 at a port the kernel picks, serving on its
// own thread. Routes registered through on() record each request before answering, so a test
// can assert the exact bytes that reached the server.
class HttpTestServer {
 public:
  using Responder = std::function<void(const httplib::Request&, httplib::Response&)>;

  explicit HttpTestServer(
      std::unique_ptr<httplib::Server> server = std::make_unique<httplib::Server>())
      : server_(std::move(server)) {
    // Tests pause uploads for a while; the default five seconds would cut them off.
    server_->set_read_timeout(30, 0);
    // cpp-httplib parses multipart bodies and never shows their bytes; relabelled before
    // routing, they reach the handlers raw. on() restores the label in what it records.
    server_->set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
      auto& headers = const_cast<httplib::Request&>(request).headers;  // a non-const object
      auto type = headers.find("Content-Type");
      if (type != headers.end() && type->second.rfind("multipart/form-data", 0) == 0) {
        headers.emplace(kSentContentType, type->second);
        headers.erase(type);
        headers.emplace("Content-Type", "application/octet-stream");
      }
      return httplib::Server::HandlerResponse::Unhandled;
    });
  }

  // Where a multipart request's Content-Type is kept while its body is read raw.
  static constexpr const char* kSentContentType = "X-Sent-Content-Type";

  ~HttpTestServer() { stop(); }

  // Stops serving and waits until no handler runs: a fixture calls it before anything its
  // handlers touch goes away. Any later call does nothing.
  void stop() {
    server_->stop();
    if (thread_.joinable()) thread_.join();
  }

  httplib::Server& server() { return *server_; }

  // Records, then answers with |responder|, every |method| request whose path matches |pattern|.
  void on(const std::string& method, const std::string& pattern, Responder responder) {
    auto handler = [this, responder](const httplib::Request& request, httplib::Response& reply) {
      {
        std::lock_guard lock(mutex_);
        httplib::Headers headers = request.headers;
        if (auto sent = headers.find(kSentContentType); sent != headers.end()) {
          headers.erase("Content-Type");
          headers.emplace("Content-Type", sent->second);
          headers.erase(kSentContentType);
        }
        received_.push_back({request.method, request.target, request.body, headers});
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
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
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

class Sha256 {
 public:
  Sha256() : context_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(context_, EVP_sha256(), nullptr); }
  ~Sha256() { EVP_MD_CTX_free(context_); }
  void update(const void* data, size_t length) { EVP_DigestUpdate(context_, data, length); }
  std::string hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context_, digest, &length);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
      text += kHex[digest[i] >> 4];
      text += kHex[digest[i] & 0xF];
    }
    return text;
  }

 private:
  EVP_MD_CTX* context_;
};

// Writes |size| bytes of a fixed pattern to |path|; returns their SHA-256.
inline std::string writePatternFile(const std::string& path, size_t size) {
  std::ofstream out(path, std::ios::binary);
  Sha256 hash;
  std::vector<char> block(1 << 16);
  for (size_t written = 0; written < size;) {
    size_t n = std::min(block.size(), size - written);
    for (size_t i = 0; i < n; ++i) block[i] = static_cast<char>(((written + i) * 131) % 251);
    out.write(block.data(), static_cast<std::streamsize>(n));
    hash.update(block.data(), n);
    written += n;
  }
  return hash.hex();
}

}  // namespace nembra::testing
