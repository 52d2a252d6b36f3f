#include "streaming/rtmp_client.h"

#include <array>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "streaming/amf.h"
#include "streaming/media_callback.h"
#include "streaming/stream_log.h"
#include "streaming/uri.h"

namespace nembra {

namespace {

constexpr uint8_t kProtocolVersion = 3;
constexpr size_t kHandshakeSize = 1536;
constexpr uint16_t kUserControlPingRequest = 6;
constexpr uint16_t kUserControlPingResponse = 7;
constexpr uint64_t kMaxChunkSize = 0x7FFFFFFF;  // the top bit of the field must be 0
// Lets the unpublish reach the server before the socket goes.
constexpr auto kClosePause = std::chrono::milliseconds(50);

std::string StringProperty(const std::shared_ptr<AMFValue>& object, const std::string& name) {
  auto asObject = std::dynamic_pointer_cast<AMFObject>(object);
  if (!asObject) return {};
  auto value = std::dynamic_pointer_cast<AMFString>(asObject->GetValue(name));
  return value ? value->Value() : std::string();
}

}  // namespace

RTMPClient::RTMPClient(const std::string& targetAddress, std::string streamName,
                       std::unique_ptr<NetworkConnection> connection)
    : streamName_(std::move(streamName)),
      connection_(connection ? std::move(connection) : std::make_unique<NetworkConnection>()) {
  const Uri uri = Uri::Parse(targetAddress);
  host_ = uri.host;
  if (uri.port > 0 && uri.port <= 0xFFFF) port_ = static_cast<uint16_t>(uri.port);
  const std::vector<std::string> segments = uri.GetSegments();
  for (size_t i = 0; i + 1 < segments.size(); ++i) {
    appName_ += (i ? "/" : "") + segments[i];
  }
}

RTMPClient::~RTMPClient() { Close(); }

std::string RTMPClient::TcUrl() const {
  Uri uri;
  uri.scheme = "rtmp";
  uri.host = host_;
  uri.port = port_;
  uri.path = "/" + appName_;
  return uri.ToString();
}

bool RTMPClient::IsReceiving() const { return packetStream_ && packetStream_->IsReceiving(); }

std::string RTMPClient::ReceiverFailureCause() const {
  return packetStream_ ? packetStream_->ReceiverFailureCause() : std::string();
}

std::string RTMPClient::ReceiverError() const {
  return packetStream_ ? packetStream_->ReceiverError() : std::string();
}

RemoteProcedureCaller& RTMPClient::Caller() {
  if (!caller_) throw std::runtime_error("rtmp client is not connected");
  return *caller_;
}

void RTMPClient::Connect() {
  StreamLog::Write("connecting to rtmp server " + host_ + ":" + std::to_string(port_));
  connection_->Connect(host_, port_);
  MakeHandshake();
  packetStream_ = std::make_shared<RTMPPacketStream>(
      *connection_, std::make_shared<MediaCallback<RTMPPacket>>(
                        [this](RTMPPacket packet) { DispatchPacket(std::move(packet)); }));
  caller_ = std::make_unique<RemoteProcedureCaller>(
      packetStream_,
      [this](std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info) {
        OnError(std::move(command), std::move(info));
      },
      [this](std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info) {
        OnStatus(std::move(command), std::move(info));
      });
  callerForReplies_.store(caller_.get());
  MakeConnect();
}

void RTMPClient::MakeHandshake() {
  // C0 and C1 in one write: the version byte and 1536 zero bytes.
  std::vector<uint8_t> hello(1 + kHandshakeSize, 0);
  hello[0] = kProtocolVersion;
  connection_->Send(hello.data(), hello.size());

  uint8_t version = 0;
  connection_->Receive(&version, 1);
  StreamLog::Write("server protocol version: " + std::to_string(version));
  if (version != kProtocolVersion) throw std::runtime_error("unknown rtmp protocol version");

  std::vector<uint8_t> s1(kHandshakeSize);
  connection_->Receive(s1.data(), s1.size());
  BitstreamReader reader(s1);
  const auto serverTime = static_cast<uint32_t>(reader.GetBits(32));
  StreamLog::Write("server time: " + std::to_string(serverTime));

  // C2 echoes only the server time; the rest stays zero, and servers accept it.
  std::vector<uint8_t> c2(kHandshakeSize, 0);
  BitstreamWriter writer(c2);
  writer.PutBits(serverTime, 32);
  connection_->Send(c2.data(), c2.size());

  std::vector<uint8_t> s2(kHandshakeSize);
  connection_->Receive(s2.data(), s2.size());
}

void RTMPClient::MakeConnect() {
  const std::string tcUrl = TcUrl();
  StreamLog::Write("AppName: " + appName_);
  StreamLog::Write("tcUrl: " + tcUrl);
  auto object = std::make_shared<AMFObject>();
  object->AddValue("app", AMFValue::String(appName_));
  object->AddValue("type", AMFValue::String("nonprivate"));
  object->AddValue("flashVer", AMFValue::String("FMLE/3.0 (compatible; livestreamer)"));
  object->AddValue("tcUrl", AMFValue::String(tcUrl));
  Caller().Call(
      RTMPChannel::Command, "connect", object, RemoteProcedureCaller::Arguments{},
      [this](std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info) {
        StreamLog::Write("connection result: " + DumpAMF(command) + ", " + DumpAMF(info));
        CreateStream();
      },
      0);
}

void RTMPClient::CreateStream() {
  Caller().Call(
      RTMPChannel::Command, "createStream", AMFValue::Null(), RemoteProcedureCaller::Arguments{},
      [this](std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info) {
        StreamLog::Write("createStream result: " + DumpAMF(command) + ", " + DumpAMF(info));
        if (auto number = std::dynamic_pointer_cast<AMFNumber>(info)) {
          streamId_.store(static_cast<uint32_t>(number->Value()));
          StreamLog::Write("streamID: " + std::to_string(streamId_.load()));
        }
        Publish();
      },
      0);
}

void RTMPClient::Publish() {
  Caller().Call(
      RTMPChannel::Publish, "publish", nullptr, AMFValue::String(streamName_),
      AMFValue::String("record"),
      [](std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info) {
        StreamLog::Write("publish result: " + DumpAMF(command) + ", " + DumpAMF(info));
      },
      streamId_.load());
}

void RTMPClient::ReleaseStream() {
  Caller().Call(RTMPChannel::Command, "releaseStream", nullptr, AMFValue::String(streamName_), {},
                0);
}

void RTMPClient::FCPublish() {
  Caller().Call(RTMPChannel::Command, "FCPublish", nullptr, AMFValue::String(streamName_), {}, 0);
}

void RTMPClient::FCUnpublish() {
  Caller().Call(RTMPChannel::Command, "FCUnpublish", nullptr, AMFValue::String(streamName_), {}, 0);
}

void RTMPClient::DeleteStream() {
  Caller().Call(RTMPChannel::Command, "deleteStream", nullptr, AMFValue::Number(streamId_.load()),
                {}, 0);
}

void RTMPClient::DispatchPacket(RTMPPacket packet) {
  StreamLog::Write(
      "RTMP packet received: type = " + std::to_string(static_cast<unsigned>(packet.PacketType())) +
      ", channel = " + std::to_string(static_cast<unsigned>(packet.Channel())));
  BitstreamReader reader = packet.GetDataReader();
  switch (packet.PacketType()) {
    case RTMPPacketType::SetChunkSize: {
      const uint64_t size = reader.GetBits(32);
      StreamLog::Write("chunk size set: " + std::to_string(size));
      // A chunk of nothing would never finish a message; such a server is not followed.
      if (size == 0 || size > kMaxChunkSize) throw std::runtime_error("invalid chunk size");
      packetStream_->SetChunkSize(size);
      break;
    }
    case RTMPPacketType::UserControl: {
      const auto event = static_cast<uint16_t>(reader.GetBits(16));
      const auto value = static_cast<uint32_t>(reader.GetBits(32));
      if (event != kUserControlPingRequest) break;
      StreamLog::Write("ping received");
      RTMPPacket pong(MediaType::Data, MediaCodec::None, RTMPChannel::Control,
                      RTMPPacketType::UserControl, 0);
      BitstreamWriter writer = pong.GetDataWriter();
      writer.PutBits(kUserControlPingResponse, 16);
      writer.PutBits(value, 32);
      packetStream_->PutFrame(pong);
      StreamLog::Write("pong send");
      break;
    }
    case RTMPPacketType::Command:
      if (RemoteProcedureCaller* caller = callerForReplies_.load()) caller->PutFrame(packet);
      break;
    default:
      break;
  }
}

void RTMPClient::OnStatus(std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info) {
  StreamLog::Write("status received: " + DumpAMF(command) + ", " + DumpAMF(info));
  const std::string code = StringProperty(info, "code");
  if (code == "NetStream.Publish.Start") {
    // Servers confirm the unpublish sent at close like a publish; it starts nothing.
    if (closed_.load()) return;
    publishing_.store(true);
    StreamLog::Write("publishing successfully started");
    if (publishStart_) publishStart_();
  } else if (code == "NetStream.Unpublish.Success") {
    if (publishing_.exchange(false) && publishStop_) publishStop_();
  }
}

void RTMPClient::OnError(std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info) {
  StreamLog::Write("error: " + DumpAMF(command) + ", " + DumpAMF(info));
  if (!errorCallback_) return;
  const std::string code = StringProperty(info, "code");
  const std::string description = StringProperty(info, "description");
  std::string message = code;
  if (!description.empty()) message += (message.empty() ? "" : ": ") + description;
  if (message.empty()) message = "server error: " + DumpAMF(info);
  errorCallback_(message);
}

void RTMPClient::PutFrameImpl(FLVFrame frame) {
  if (!publishing_.load()) throw std::runtime_error("can't start publishing");
  if (frame.FLVTagType() == FLVTagType::ScriptData) {
    PutMetadata(frame);
  } else {
    PutAudioVideo(frame);
  }
}

namespace {

// The tag body: the FLV tag without its 11-byte header and 4-byte previous-tag-size.
std::span<const uint8_t> TagBody(const FLVFrame& frame) {
  constexpr size_t kHeader = 11;
  constexpr size_t kTrailer = 4;
  const std::vector<uint8_t>& data = frame.Data();
  if (data.size() < kHeader + kTrailer) throw std::runtime_error("FLV tag too short");
  return std::span<const uint8_t>(data).subspan(kHeader, data.size() - kHeader - kTrailer);
}

}  // namespace

void RTMPClient::PutMetadata(const FLVFrame& frame) {
  RTMPPacket packet(MediaType::Data, MediaCodec::None, RTMPChannel::AudioAndData,
                    RTMPPacketType::Data, streamId_.load());
  packet.SetPTS(frame.PTS());
  BitstreamWriter writer = packet.GetDataWriter();
  AMFValue::String("@setDataFrame")->Write(writer);
  writer.PutBytes(TagBody(frame));
  packetStream_->PutFrame(packet);
}

void RTMPClient::PutAudioVideo(const FLVFrame& frame) {
  const bool video = frame.FLVTagType() == FLVTagType::Video;
  const MediaDescriptor descriptor = frame.Descriptor();
  RTMPPacket packet(descriptor.type, descriptor.codec,
                    video ? RTMPChannel::Video : RTMPChannel::AudioAndData,
                    video ? RTMPPacketType::Video : RTMPPacketType::Audio, streamId_.load());
  packet.SetPTS(frame.PTS());
  packet.SetKeyFrame(frame.KeyFrame());
  const std::span<const uint8_t> body = TagBody(frame);
  packet.Data().assign(body.begin(), body.end());
  packetStream_->PutFrame(packet);
}

void RTMPClient::CloseImpl() {
  if (closed_.exchange(true)) return;
  StreamLog::Write("closing rtmp connection");
  if (publishing_.exchange(false)) {
    try {
      // The publish command once more, as at the start.
      Caller().Call(RTMPChannel::Publish, "publish", nullptr, AMFValue::String(streamName_),
                    AMFValue::String("record"), {}, streamId_.load());
    } catch (const std::exception& error) {
      StreamLog::Write(std::string("unpublish failed: ") + error.what());
    }
    if (publishStop_) publishStop_();
    std::this_thread::sleep_for(kClosePause);
  }
  if (packetStream_) packetStream_->Close();
  callerForReplies_.store(nullptr);
  connection_->Close();
}

}  // namespace nembra
