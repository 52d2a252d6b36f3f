// Test helper: a one-connection RTMP server on 127.0.0.1 that follows a script, for what real
// servers rarely do (a wrong version byte, pings, a larger chunk size, an abrupt close). It
// answers connect, createStream and publish the way ingest servers do and records every message
// the client sends.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "streaming/amf.h"
#include "streaming/media_callback.h"
#include "streaming/rtmp_chunk_demuxer.h"
#include "streaming/rtmp_chunk_formatter.h"

namespace nembra {

class ScriptedRTMPServer {
 public:
  struct Script {
    uint8_t version = 3;                  // the S0 byte
    uint32_t chunkSizeAtConnect = 0;      // announced before the connect reply when not 0
    bool refusePublish = false;           // answer publish with an error status
    bool closeAfterPublishStart = false;  // drop the connection once publishing is confirmed
    size_t closeAfterMediaMessages = 0;   // drop it after this many audio/video messages (0: no)
  };

  struct Message {
    RTMPChannel channel;
    RTMPPacketType type;
    uint32_t streamId;
    uint64_t timestamp;
    std::vector<uint8_t> payload;
    // For commands: the name and the values after it.
    std::string command;
    std::vector<std::shared_ptr<AMFValue>> values;
  };

  explicit ScriptedRTMPServer(Script script) : script_(script) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listener_, 1) != 0) {
      throw std::runtime_error("scripted server can't listen");
    }
    socklen_t length = sizeof(address);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
  }

  ~ScriptedRTMPServer() {
    stop_.store(true);
    if (thread_.joinable()) thread_.join();
    if (client_ >= 0) ::close(client_);
    ::close(listener_);
  }

  uint16_t Port() const { return port_; }
  std::string Url(const std::string& path = "/live/x") const {
    return "rtmp://127.0.0.1:" + std::to_string(port_) + path;
  }

  // The client's C0 + C1 and C2, once received.
  std::vector<uint8_t> Hello() const {
    std::lock_guard lock(mutex_);
    return hello_;
  }
  std::vector<uint8_t> C2() const {
    std::lock_guard lock(mutex_);
    return c2_;
  }
  static constexpr uint32_t kServerTime = 0x01020304;

  std::vector<Message> Messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }

  // Waits until |done| holds for the messages received; false after |timeout|.
  bool WaitFor(const std::function<bool(const std::vector<Message>&)>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(messages_); });
  }
  bool WaitForCommand(const std::string& name,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
    return WaitFor(
        [&](const std::vector<Message>& messages) {
          for (const Message& message : messages) {
            if (message.command == name) return true;
          }
          return false;
        },
        timeout);
  }
  bool WaitForClose(std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return clientGone_; });
  }

  // Sends to the client from the test's thread.
  void SendPing(uint32_t value) {
    RTMPPacket packet(MediaType::Data, MediaCodec::None, RTMPChannel::Control,
                      RTMPPacketType::UserControl, 0);
    BitstreamWriter writer = packet.GetDataWriter();
    writer.PutBits(6, 16);
    writer.PutBits(value, 32);
    Send(packet);
  }
  void SendSetChunkSize(uint32_t size) {
    RTMPPacket packet(MediaType::Data, MediaCodec::None, RTMPChannel::Control,
                      RTMPPacketType::SetChunkSize, 0);
    packet.GetDataWriter().PutBits(size, 32);
    Send(packet);
    std::lock_guard lock(sendMutex_);
    for (auto& [channel, formatter] : formatters_) formatter->SetChunkSize(size);
    outgoingChunkSize_ = size;
  }
  void SendCommand(RTMPChannel channel, uint32_t streamId,
                   const std::vector<std::shared_ptr<AMFValue>>& values) {
    RTMPPacket packet(MediaType::Data, MediaCodec::None, channel, RTMPPacketType::Command,
                      streamId);
    BitstreamWriter writer = packet.GetDataWriter();
    for (const auto& value : values) WriteAMFValueOrNull(writer, value);
    Send(packet);
  }
  static std::shared_ptr<AMFValue> Status(const std::string& level, const std::string& code,
                                          const std::string& description) {
    auto info = std::make_shared<AMFObject>();
    info->AddValue("level", AMFValue::String(level));
    info->AddValue("code", AMFValue::String(code));
    info->AddValue("description", AMFValue::String(description));
    return info;
  }
  // Closes the connection at once, mid-stream. The descriptor itself is released only once the
  // server's thread has ended: closed under its recv, the number could go to another socket.
  void CloseClient() {
    std::lock_guard lock(sendMutex_);
    if (client_ >= 0) ::shutdown(client_, SHUT_RDWR);
  }

 private:
  void Send(const RTMPPacket& packet) {
    std::lock_guard lock(sendMutex_);
    auto& formatter = formatters_[packet.Channel()];
    if (!formatter) {
      formatter = std::make_unique<RTMPChunkFormatter>(
          std::make_shared<MediaCallback<RTMPChunk>>([this](RTMPChunk chunk) {
            if (client_ >= 0) {
              const auto& data = chunk.Data();
              ssize_t ignored = ::send(client_, data.data(), data.size(), MSG_NOSIGNAL);
              (void)ignored;
            }
          }),
          packet.Channel());
      formatter->SetChunkSize(outgoingChunkSize_);
    }
    formatter->PutFrame(packet);
  }

  bool ReceiveExactly(uint8_t* buffer, size_t size) {
    size_t received = 0;
    while (received < size && !stop_.load()) {
      pollfd descriptor{client_, POLLIN, 0};
      if (::poll(&descriptor, 1, 50) <= 0) continue;
      const ssize_t n = ::recv(client_, buffer + received, size - received, 0);
      if (n <= 0) return false;
      received += static_cast<size_t>(n);
    }
    return received == size;
  }

  void Run() {
    while (!stop_.load()) {
      pollfd descriptor{listener_, POLLIN, 0};
      if (::poll(&descriptor, 1, 50) > 0) break;
    }
    if (stop_.load()) return;
    {
      std::lock_guard lock(sendMutex_);
      client_ = ::accept(listener_, nullptr, nullptr);
    }
    if (client_ < 0 || !Handshake()) {
      MarkGone();
      return;
    }
    RTMPChunkDemuxer demuxer(std::make_shared<MediaCallback<RTMPPacket>>(
        [this](RTMPPacket packet) { OnMessage(packet); }));
    std::vector<uint8_t> buffer(65536);
    while (!stop_.load()) {
      int fd;
      {
        std::lock_guard lock(sendMutex_);
        fd = client_;
      }
      if (fd < 0) break;
      pollfd descriptor{fd, POLLIN, 0};
      if (::poll(&descriptor, 1, 50) <= 0) continue;
      const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (n <= 0) break;
      try {
        demuxer.Consume({buffer.data(), static_cast<size_t>(n)});
      } catch (const std::exception&) {
        break;
      }
    }
    MarkGone();
  }

  bool Handshake() {
    std::vector<uint8_t> hello(1537);
    if (!ReceiveExactly(hello.data(), hello.size())) return false;
    std::vector<uint8_t> reply(1 + 1536 * 2, 0);
    reply[0] = script_.version;
    BitstreamWriter writer(reply);
    writer.SetPosition(1);
    writer.PutBits(kServerTime, 32);
    {
      std::lock_guard lock(sendMutex_);
      ssize_t ignored = ::send(client_, reply.data(), reply.size(), MSG_NOSIGNAL);
      (void)ignored;
    }
    std::vector<uint8_t> c2(1536);
    const bool ok = ReceiveExactly(c2.data(), c2.size());
    std::lock_guard lock(mutex_);
    hello_ = hello;
    if (ok) c2_ = c2;
    changed_.notify_all();
    return ok;
  }

  void MarkGone() {
    std::lock_guard lock(mutex_);
    clientGone_ = true;
    changed_.notify_all();
  }

  void OnMessage(RTMPPacket packet) {
    Message message{packet.Channel(),
                    packet.PacketType(),
                    packet.StreamID(),
                    packet.RTMPTimestamp(),
                    packet.Data(),
                    {},
                    {}};
    if (packet.PacketType() == RTMPPacketType::Command) {
      BitstreamReader reader = packet.GetDataReader();
      while (reader.RemainingDataSize() > 0) message.values.push_back(AMFValue::ReadValue(reader));
      if (!message.values.empty()) {
        if (auto name = std::dynamic_pointer_cast<AMFString>(message.values[0])) {
          message.command = name->Value();
        }
      }
    }
    size_t mediaMessages = 0;
    {
      std::lock_guard lock(mutex_);
      messages_.push_back(message);
      for (const Message& m : messages_) {
        mediaMessages += m.type == RTMPPacketType::Audio || m.type == RTMPPacketType::Video;
      }
      changed_.notify_all();
    }
    React(message);
    if (script_.closeAfterMediaMessages > 0 && mediaMessages == script_.closeAfterMediaMessages) {
      CloseClient();
    }
  }

  void React(const Message& message) {
    auto transaction = message.values.size() > 1 ? message.values[1] : AMFValue::Number(0);
    if (message.command == "connect") {
      if (script_.chunkSizeAtConnect) SendSetChunkSize(script_.chunkSizeAtConnect);
      auto properties = std::make_shared<AMFObject>();
      properties->AddValue("fmsVer", AMFValue::String("FMS/3,0,1,123"));
      properties->AddValue("capabilities", AMFValue::Number(31));
      SendCommand(RTMPChannel::Command, 0,
                  {AMFValue::String("_result"), transaction, properties,
                   Status("status", "NetConnection.Connect.Success", "Connection succeeded.")});
    } else if (message.command == "createStream") {
      SendCommand(
          RTMPChannel::Command, 0,
          {AMFValue::String("_result"), transaction, AMFValue::Null(), AMFValue::Number(1)});
    } else if (message.command == "publish" && message.values.size() > 3 &&
               message.values[3]->Type() == AMFType::String) {
      if (script_.refusePublish) {
        SendCommand(RTMPChannel::AudioAndData, 1,
                    {AMFValue::String("onStatus"), AMFValue::Number(0), AMFValue::Null(),
                     Status("error", "NetStream.Publish.BadName", "Already publishing")});
        return;
      }
      SendCommand(RTMPChannel::AudioAndData, 1,
                  {AMFValue::String("onStatus"), AMFValue::Number(0), AMFValue::Null(),
                   Status("status", "NetStream.Publish.Start", "Start publishing")});
      if (script_.closeAfterPublishStart) CloseClient();
    }
  }

  Script script_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;

  std::mutex sendMutex_;
  int client_ = -1;                                                        // guarded by sendMutex_
  std::map<RTMPChannel, std::unique_ptr<RTMPChunkFormatter>> formatters_;  // guarded by sendMutex_
  uint64_t outgoingChunkSize_ = 128;                                       // guarded by sendMutex_

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<uint8_t> hello_;     // guarded by mutex_
  std::vector<uint8_t> c2_;        // guarded by mutex_
  std::vector<Message> messages_;  // guarded by mutex_
  bool clientGone_ = false;        // guarded by mutex_
};

}  // namespace nembra
