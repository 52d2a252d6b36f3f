#include "service/http_connection_server.h"

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "platform/dispatch/thread_name.h"
#include "service/http_worker_pool.h"

namespace nembra {
namespace {

using Clock = std::chrono::steady_clock;

// How long a refused client may keep sending before its connection closes under it.
constexpr std::chrono::milliseconds kRefusalLinger{1000};

}  // namespace

HttpConnectionServer::HttpConnectionServer(std::string name, HttpRequestHandler& handler,
                                           HttpConnectionLimits limits)
    : name_(std::move(name)),
      handler_(handler),
      limits_(limits),
      pool_(std::make_unique<HttpWorkerPool>(name_, std::max<size_t>(limits.workers, 1))) {}

HttpConnectionServer::~HttpConnectionServer() { stop(); }

bool HttpConnectionServer::start(std::unique_ptr<TcpListener> listener) {
  poller_ = SocketPoller::create();
  if (!poller_) return false;
  listener_ = std::move(listener);
  loopThread_ = std::thread([this] {
    setCurrentThreadName(name_ + ".heads");
    headLoop();
  });
  acceptThread_ = std::thread([this] {
    setCurrentThreadName(name_ + ".listen");
    acceptLoop();
  });
  return true;
}

void HttpConnectionServer::stop() {
  if (listener_) listener_->shutdown();
  if (acceptThread_.joinable()) acceptThread_.join();
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    if (limits_.cutOnStop) {
      for (SocketStream* stream : served_) stream->shutdown();
    }
  }
  if (poller_) poller_->wake();
  if (loopThread_.joinable()) loopThread_.join();
  if (pool_) pool_->shutdown();
  std::lock_guard lock(mutex_);
  incoming_.clear();
  listener_.reset();
}

void HttpConnectionServer::acceptLoop() {
  for (;;) {
    std::unique_ptr<TcpSocket> socket = listener_->accept();
    if (!socket) return;
    {
      std::lock_guard lock(mutex_);
      // Past the limit a connection is closed unread: holding it would only cost descriptors.
      if (open_ >= limits_.maxConnections) continue;
      ++open_;
    }
    auto connection = std::make_unique<Connection>();
    connection->stream = std::make_unique<SocketStream>(std::move(socket));
    handBack(std::move(connection));
  }
}

void HttpConnectionServer::handBack(std::unique_ptr<Connection> connection) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      --open_;
      return;
    }
    incoming_.push_back(std::move(connection));
  }
  poller_->wake();
}

void HttpConnectionServer::release() {
  std::lock_guard lock(mutex_);
  --open_;
}

void HttpConnectionServer::headLoop() {
  std::unordered_map<uint64_t, std::unique_ptr<Connection>> waiting;
  uint64_t nextKey = 0;
  std::vector<uint64_t> ready;
  auto drop = [&](uint64_t key) {
    auto found = waiting.find(key);
    poller_->forget(found->second->stream->pollHandle());
    auto connection = std::move(found->second);
    waiting.erase(found);
    return connection;
  };
  for (;;) {
    std::deque<std::unique_ptr<Connection>> arrived;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) break;
      arrived.swap(incoming_);
    }
    auto now = Clock::now();
    for (auto& connection : arrived) {
      // A pipelined request may be buffered already: it is read without waiting for input.
      connection->inHead = !connection->stream->buffered().empty();
      connection->deadline = now + (connection->inHead ? limits_.headTimeout : limits_.idleTimeout);
      if (connection->inHead && !advance(connection)) continue;
      uint64_t key = nextKey++;
      if (!poller_->watch(connection->stream->pollHandle(), key)) {
        release();
        continue;
      }
      waiting.emplace(key, std::move(connection));
    }

    auto soonest = Clock::time_point::max();
    for (const auto& [key, connection] : waiting) soonest = std::min(soonest, connection->deadline);
    auto wait = soonest == Clock::time_point::max()
                    ? std::chrono::milliseconds(60000)
                    : std::chrono::ceil<std::chrono::milliseconds>(soonest - Clock::now());
    poller_->wait(std::max(wait, std::chrono::milliseconds(0)), ready);

    for (uint64_t key : ready) {
      auto found = waiting.find(key);
      if (found == waiting.end()) continue;
      poller_->forget(found->second->stream->pollHandle());
      auto connection = std::move(found->second);
      waiting.erase(found);
      if (!advance(connection)) continue;
      poller_->watch(connection->stream->pollHandle(), key);
      waiting.emplace(key, std::move(connection));
    }

    now = Clock::now();
    std::vector<uint64_t> expired;
    for (const auto& [key, connection] : waiting) {
      if (connection->deadline <= now) expired.push_back(key);
    }
    for (uint64_t key : expired) {
      Connection& connection = *waiting.at(key);
      bool keep = false;
      if (connection.draining) {
        keep = false;
      } else if (connection.head) {
        keep = refuse(connection, 408, "the request body came too slowly");
      } else if (connection.inHead) {
        keep = refuse(connection, 408,
                      "the request head did not arrive within " +
                          std::to_string(limits_.headTimeout.count()) + " ms");
      }
      // An idle keep-alive connection ends without a word.
      if (!keep) {
        drop(key);
        release();
      }
    }
  }
  for (auto& [key, connection] : waiting) {
    poller_->forget(connection->stream->pollHandle());
    release();
  }
}

bool HttpConnectionServer::collectBody(std::unique_ptr<Connection>& connection) {
  SocketStream& stream = *connection->stream;
  uint64_t length = connection->head->contentLength;
  auto read = stream.fill(
      std::chrono::milliseconds(1),
      static_cast<size_t>(length - std::min<uint64_t>(length, stream.buffered().size())));
  if (read == SocketStream::Read::TimedOut) return true;
  if (read == SocketStream::Read::Failed) {
    release();
    connection.reset();
    return false;
  }
  // A client that closed its side early still gets its answer (a short body's) from the port.
  if (read == SocketStream::Read::Data && stream.buffered().size() < length) return true;
  auto head = std::move(*connection->head);
  std::string rawHead = std::move(connection->rawHead);
  connection->head.reset();
  dispatch(std::move(connection), std::move(head), std::move(rawHead));
  return false;
}

bool HttpConnectionServer::advance(std::unique_ptr<Connection>& connection) {
  if (connection->draining) {
    if (drain(*connection)) return true;
    release();
    connection.reset();
    return false;
  }
  if (connection->head) return collectBody(connection);
  SocketStream& stream = *connection->stream;
  HttpHeadParser parser;
  HttpRequestHead head;
  size_t consumed = 0;
  // What is buffered first (a pipelined request, or one whose client has closed its side
  // since), then what the socket has.
  auto status = stream.buffered().empty() ? HttpHeadParser::Status::NeedMore
                                          : parser.parse(stream.buffered(), head, consumed);
  if (status == HttpHeadParser::Status::NeedMore) {
    // Never more than a head's worth: a client sending an endless head costs this much at most.
    size_t buffered = stream.buffered().size();
    auto read = stream.fill(
        std::chrono::milliseconds(1),
        HttpHeadParser::kMaxHeadBytes + 4 - std::min(buffered, HttpHeadParser::kMaxHeadBytes));
    if (read == SocketStream::Read::TimedOut) return true;  // woken without data after all
    if (read != SocketStream::Read::Data) {
      release();
      connection.reset();
      return false;
    }
    if (!connection->inHead) {
      connection->inHead = true;
      connection->deadline = Clock::now() + limits_.headTimeout;
    }
    status = parser.parse(stream.buffered(), head, consumed);
  }
  switch (status) {
    case HttpHeadParser::Status::NeedMore:
      return true;
    case HttpHeadParser::Status::Failed:
      if (refuse(*connection, parser.errorStatus(), parser.error())) return true;
      release();
      connection.reset();
      return false;
    case HttpHeadParser::Status::Done: {
      // Without the empty lines a client may send before a request.
      std::string_view raw = stream.buffered().substr(0, consumed);
      while (raw.substr(0, 2) == "\r\n") raw.remove_prefix(2);
      std::string rawHead(raw);
      stream.consume(consumed);
      // A client waiting for "100 Continue" sends nothing until a worker answers it.
      if (head.body == HttpRequestHead::Body::Length && head.contentLength <= kLoopBodyBytes &&
          !head.expectContinue && stream.buffered().size() < head.contentLength) {
        auto allowed = limits_.body.grace;
        if (limits_.body.minBytesPerSecond > 0) {
          allowed +=
              std::chrono::milliseconds(head.contentLength * 1000 / limits_.body.minBytesPerSecond);
        }
        connection->deadline = Clock::now() + allowed;
        connection->head = std::make_unique<HttpRequestHead>(std::move(head));
        connection->rawHead = std::move(rawHead);
        return true;
      }
      dispatch(std::move(connection), std::move(head), std::move(rawHead));
      return false;
    }
  }
  return false;
}

void HttpConnectionServer::dispatch(std::unique_ptr<Connection> connection, HttpRequestHead head,
                                    std::string rawHead) {
  // Shared only because a queued task must be copyable; one worker uses it.
  std::shared_ptr<Connection> shared(std::move(connection));
  pool_->enqueue([this, shared, head = std::move(head), rawHead = std::move(rawHead)] {
    SocketStream* stream = shared->stream.get();
    {
      std::lock_guard lock(mutex_);
      if (stopping_ && limits_.cutOnStop) {
        --open_;
        return;
      }
      served_.insert(stream);
    }
    auto after = handler_.serve(*stream, head, rawHead);
    {
      std::lock_guard lock(mutex_);
      served_.erase(stream);
    }
    if (after == HttpRequestHandler::After::Close) {
      release();
      return;
    }
    auto back = std::make_unique<Connection>();
    back->stream = std::move(shared->stream);
    handBack(std::move(back));
  });
}

bool HttpConnectionServer::refuse(Connection& connection, int status, const std::string& message) {
  SocketStream& stream = *connection.stream;
  handler_.refuse(stream, status, message);
  stream.shutdownSending();
  connection.draining = true;
  connection.deadline = Clock::now() + kRefusalLinger;
  stream.consume(stream.buffered().size());
  return true;
}

bool HttpConnectionServer::drain(Connection& connection) {
  SocketStream& stream = *connection.stream;
  auto read = stream.fill(std::chrono::milliseconds(1));
  stream.consume(stream.buffered().size());
  return read == SocketStream::Read::Data || read == SocketStream::Read::TimedOut;
}

}  // namespace nembra
