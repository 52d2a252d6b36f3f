// The publishing RTMP client: handshake, connect / createStream / publish, then FLV tags out as
// RTMP messages.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "streaming/amf_value.h"
#include "streaming/flv_frame.h"
#include "streaming/network_connection.h"
#include "streaming/receiver.h"
#include "streaming/remote_procedure_caller.h"
#include "streaming/rtmp_packet.h"
#include "streaming/rtmp_packet_stream.h"

namespace nembra {

// Threading: Connect, PutFrame and Close run on the owner's thread (the streamer's caller).
// Replies, pings and the publish confirmation arrive on the packet stream's receiving thread,
// where the callbacks run; set them before Connect. A callback must not call Close or destroy
// the client. Failures are std::runtime_error with fixed messages; on the receiving thread they
// end it (IsReceiving), a chunk size of 0 or above 2^31 - 1 with "invalid chunk size".
class RTMPClient : public IReceiver<FLVFrame> {
 public:
  using ErrorCallback = std::function<void(const std::string& message)>;
  using EventCallback = std::function<void()>;

  static constexpr uint16_t kDefaultPort = 1935;

  // |targetAddress| is "rtmp://host[:port]/app.../placeholder": the application name is every
  // path segment but the last, which is ignored (the stream is named by |streamName|). Nothing
  // is sent before Connect. |connection| replaces the TCP connection, for tests.
  RTMPClient(const std::string& targetAddress, std::string streamName,
             std::unique_ptr<NetworkConnection> connection = nullptr);
  ~RTMPClient() override;
  RTMPClient(const RTMPClient&) = delete;
  RTMPClient& operator=(const RTMPClient&) = delete;

  // The error callback gets the server's refusal ("code: description") for an "_error" reply or
  // an error status.
  void SetErrorCallback(ErrorCallback callback) { errorCallback_ = std::move(callback); }
  void SetPublishStartCallback(EventCallback callback) { publishStart_ = std::move(callback); }
  void SetPublishStopCallback(EventCallback callback) { publishStop_ = std::move(callback); }

  // Connects, shakes hands and sends the connect command; createStream and publish follow on
  // the receiving thread as the replies come in. Throws the connection's errors ("unknown host:
  // ", "can't open socket", "can't connect socket", "netowrk recv data failed", ...) and
  // "unknown rtmp protocol version".
  void Connect();

  // Set once the server has answered "NetStream.Publish.Start".
  bool IsPublishing() const { return publishing_.load(); }
  // False once the receiving thread has ended; ReceiverError says why (empty after Close).
  bool IsReceiving() const;
  std::string ReceiverError() const;
  // ReceiverError in plain words when the socket failed (RTMPPacketStream); else empty.
  std::string ReceiverFailureCause() const;

  uint32_t StreamID() const { return streamId_.load(); }
  const std::string& Host() const { return host_; }
  uint16_t Port() const { return port_; }
  const std::string& AppName() const { return appName_; }
  const std::string& StreamName() const { return streamName_; }
  std::string TcUrl() const;

  // Commands that servers of other kinds expect around publishing. The start-up and close
  // sequences do not send them. Each throws what sending throws.
  void ReleaseStream();
  void FCPublish();
  void FCUnpublish();
  void DeleteStream();

 protected:
  // Throws "can't start publishing" before "NetStream.Publish.Start", and what sending throws.
  void PutFrameImpl(FLVFrame frame) override;
  // Unpublishes when publishing, stops the receiving thread and closes the connection. Safe to
  // call more than once.
  void CloseImpl() override;

 private:
  void MakeHandshake();
  void MakeConnect();
  void CreateStream();
  void Publish();
  void DispatchPacket(RTMPPacket packet);
  void OnStatus(std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info);
  void OnError(std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info);
  void PutMetadata(const FLVFrame& frame);
  void PutAudioVideo(const FLVFrame& frame);
  RemoteProcedureCaller& Caller();

  std::string host_;
  uint16_t port_ = kDefaultPort;
  std::string appName_;
  std::string streamName_;

  ErrorCallback errorCallback_;
  EventCallback publishStart_;
  EventCallback publishStop_;

  std::unique_ptr<NetworkConnection> connection_;
  std::shared_ptr<RTMPPacketStream> packetStream_;
  std::unique_ptr<RemoteProcedureCaller> caller_;
  // Published once the caller exists, for the receiving thread.
  std::atomic<RemoteProcedureCaller*> callerForReplies_{nullptr};
  std::atomic<uint32_t> streamId_{0};
  std::atomic<bool> publishing_{false};
  std::atomic<bool> closed_{false};
};

}  // namespace nembra
