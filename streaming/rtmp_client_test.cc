// The publishing client against a scripted loopback server.
#include "streaming/rtmp_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "streaming/testing/scripted_rtmp_server.h"
#include "streaming/testing/stream_log_capture.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;
using Message = ScriptedRTMPServer::Message;
using namespace std::chrono_literals;

std::string Str(const std::shared_ptr<AMFValue>& value) {
  auto text = std::dynamic_pointer_cast<AMFString>(value);
  return text ? text->Value() : "<not a string>";
}

const Message* Find(const std::vector<Message>& messages, const std::string& command) {
  for (const Message& message : messages) {
    if (message.command == command) return &message;
  }
  return nullptr;
}

FLVFrame VideoTag(size_t bodySize, double pts) {
  FLVFrame frame(MediaType::Video, MediaCodec::H264, FLVTagType::Video);
  frame.SetPTS(pts);
  Bytes& data = frame.Data();
  data.assign(11, 0);
  data[0] = 9;
  for (size_t i = 0; i < bodySize; ++i) data.push_back(static_cast<uint8_t>(i));
  data.insert(data.end(), {0, 0, 0, 0});
  return frame;
}

struct AddressCase {
  std::string address;
  std::string host;
  uint16_t port;
  std::string app;
  std::string tcUrl;
};

class RTMPClientAddressTest : public testing::TestWithParam<AddressCase> {};

TEST_P(RTMPClientAddressTest, TakesApplicationFromAllSegmentsButTheLast) {
  const AddressCase& c = GetParam();
  RTMPClient client(c.address, "name");
  EXPECT_EQ(client.Host(), c.host);
  EXPECT_EQ(client.Port(), c.port);
  EXPECT_EQ(client.AppName(), c.app);
  EXPECT_EQ(client.TcUrl(), c.tcUrl);
  EXPECT_EQ(client.StreamName(), "name");
}

INSTANTIATE_TEST_SUITE_P(
    TargetAddresses, RTMPClientAddressTest,
    testing::Values(AddressCase{"rtmp://10.0.0.1:1936/live/x", "10.0.0.1", 1936, "live",
                                "rtmp://10.0.0.1:1936/live"},
                    // The placeholder segment, trailing character included, is dropped.
                    AddressCase{"rtmp://ingest.example/record/_definst_\xC3\x9F", "ingest.example",
                                1935, "record", "rtmp://ingest.example:1935/record"},
                    AddressCase{"rtmp://h:99/a/b/c", "h", 99, "a/b", "rtmp://h:99/a/b"}));

class RTMPClientTest : public testing::Test {
 protected:
  StreamLogCapture log_;
};

TEST_F(RTMPClientTest, RefusesServerWithOtherProtocolVersion) {
  ScriptedRTMPServer server({.version = 6});
  RTMPClient client(server.Url(), "x");
  try {
    client.Connect();
    FAIL() << "connected";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "unknown rtmp protocol version");
  }
  EXPECT_EQ(log_.Count("server protocol version: 6"), 1u);
}

TEST_F(RTMPClientTest, HandshakeSendsZerosAndEchoesOnlyServerTime) {
  ScriptedRTMPServer server({});
  RTMPClient client(server.Url(), "x");
  client.Connect();
  ASSERT_TRUE(server.WaitForCommand("connect"));
  Bytes hello = server.Hello();
  ASSERT_EQ(hello.size(), 1537u);
  EXPECT_EQ(hello[0], 3);
  EXPECT_EQ(std::count(hello.begin() + 1, hello.end(), 0), 1536);
  Bytes c2 = server.C2();
  ASSERT_EQ(c2.size(), 1536u);
  EXPECT_THAT(Bytes(c2.begin(), c2.begin() + 4), testing::ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(std::count(c2.begin() + 4, c2.end(), 0), 1532);
  EXPECT_EQ(log_.Count("server time: 16909060"), 1u);
}

TEST_F(RTMPClientTest, ConnectCommandHasExactPayload) {
  ScriptedRTMPServer server({});
  RTMPClient client("rtmp://127.0.0.1:" + std::to_string(server.Port()) + "/live/x", "x");
  client.Connect();
  ASSERT_TRUE(server.WaitForCommand("connect"));
  const auto messages = server.Messages();
  const Message* connect = Find(messages, "connect");
  ASSERT_NE(connect, nullptr);
  EXPECT_EQ(connect->channel, RTMPChannel::Command);
  EXPECT_EQ(connect->streamId, 0u);

  const std::string tcUrl = "rtmp://127.0.0.1:" + std::to_string(server.Port()) + "/live";
  Bytes expected = {0x02, 0x00, 0x07, 'c', 'o', 'n', 'n', 'e', 'c', 't',
                    0x00, 0x3F, 0xF0, 0,   0,   0,   0,   0,   0,   0x03};
  auto property = [&expected](const std::string& name, const std::string& value) {
    expected.insert(expected.end(), {0, static_cast<uint8_t>(name.size())});
    expected.insert(expected.end(), name.begin(), name.end());
    expected.insert(expected.end(), {0x02, 0, static_cast<uint8_t>(value.size())});
    expected.insert(expected.end(), value.begin(), value.end());
  };
  // Sorted by name, not in the order they were added.
  property("app", "live");
  property("flashVer", "FMLE/3.0 (compatible; livestreamer)");
  property("tcUrl", tcUrl);
  property("type", "nonprivate");
  expected.insert(expected.end(), {0, 0, 9});
  EXPECT_EQ(connect->payload, expected);
}

TEST_F(RTMPClientTest, PublishesAfterCreateStreamAndConfirmsStart) {
  ScriptedRTMPServer server({});
  RTMPClient client(server.Url(), "stream-name");
  std::atomic<int> starts{0};
  client.SetPublishStartCallback([&] { ++starts; });
  client.Connect();
  ASSERT_TRUE(log_.WaitFor("publishing successfully started"));
  EXPECT_TRUE(client.IsPublishing());
  for (int i = 0; i < 100 && starts.load() == 0; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(starts.load(), 1);
  EXPECT_EQ(client.StreamID(), 1u);

  const auto messages = server.Messages();
  const Message* createStream = Find(messages, "createStream");
  const Message* publish = Find(messages, "publish");
  ASSERT_NE(createStream, nullptr);
  ASSERT_NE(publish, nullptr);
  EXPECT_EQ(createStream->channel, RTMPChannel::Command);
  ASSERT_EQ(publish->values.size(), 5u);
  auto id = std::dynamic_pointer_cast<AMFNumber>(publish->values[1]);
  ASSERT_TRUE(id);
  EXPECT_EQ(id->Value(), 3.0);
  EXPECT_EQ(publish->channel, RTMPChannel::Publish);
  EXPECT_EQ(publish->values[2]->Type(), AMFType::Null);
  EXPECT_EQ(Str(publish->values[3]), "stream-name");
  EXPECT_EQ(Str(publish->values[4]), "record");
  EXPECT_EQ(log_.Count("streamID: 1"), 1u);
}

TEST_F(RTMPClientTest, RefusesMediaBeforePublishStart) {
  ScriptedRTMPServer server({.refusePublish = true});
  RTMPClient client(server.Url(), "x");
  std::string error;
  std::mutex mutex;
  client.SetErrorCallback([&](const std::string& message) {
    std::lock_guard lock(mutex);
    error = message;
  });
  client.Connect();
  ASSERT_TRUE(
      log_.WaitFor("error: NULL, OBJECT: {\ncode STRING: NetStream.Publish.BadName\n"
                   "description STRING: Already publishing\nlevel STRING: error\n}"));
  for (int i = 0; i < 100; ++i) {
    {
      std::lock_guard lock(mutex);
      if (!error.empty()) break;
    }
    std::this_thread::sleep_for(10ms);
  }
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(error, "NetStream.Publish.BadName: Already publishing");
  }
  EXPECT_FALSE(client.IsPublishing());
  try {
    client.PutFrame(VideoTag(10, 0));
    FAIL() << "sent";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "can't start publishing");
  }
}

TEST_F(RTMPClientTest, AnswersPingOnControlChannel) {
  ScriptedRTMPServer server({});
  RTMPClient client(server.Url(), "x");
  client.Connect();
  ASSERT_TRUE(log_.WaitFor("publishing successfully started"));
  server.SendPing(1234);
  ASSERT_TRUE(server.WaitFor([](const std::vector<Message>& messages) {
    for (const Message& m : messages) {
      if (m.type == RTMPPacketType::UserControl) return true;
    }
    return false;
  }));
  for (const Message& m : server.Messages()) {
    if (m.type != RTMPPacketType::UserControl) continue;
    EXPECT_EQ(m.channel, RTMPChannel::Control);
    EXPECT_THAT(m.payload, testing::ElementsAre(0, 7, 0, 0, 0x04, 0xD2));
  }
  EXPECT_EQ(log_.Count("ping received"), 1u);
  EXPECT_TRUE(log_.WaitFor("pong send"));
}

TEST_F(RTMPClientTest, AdoptsServerChunkSizeInBothDirections) {
  ScriptedRTMPServer server({.chunkSizeAtConnect = 4096});
  RTMPClient client(server.Url(), std::string(300, 'n'));
  client.Connect();
  ASSERT_TRUE(log_.WaitFor("publishing successfully started"));
  EXPECT_EQ(log_.Count("chunk size set: 4096"), 1u);
  // A status far beyond 128 bytes comes in one 4096-byte chunk and must still be read whole.
  server.SendCommand(
      RTMPChannel::AudioAndData, 1,
      {AMFValue::String("onStatus"), AMFValue::Number(0), AMFValue::Null(),
       ScriptedRTMPServer::Status("status", "NetStream.Play.Custom", std::string(1000, 'd'))});
  ASSERT_TRUE(
      log_.WaitFor("status received: NULL, OBJECT: {\ncode STRING: NetStream.Play.Custom\n"
                   "description STRING: " +
                   std::string(1000, 'd') + "\nlevel STRING: status\n}"));
  // The publish channel was created after the change and still cuts at 128: the 300-byte name
  // arrived intact at a server reading 128-byte chunks.
  const auto messages = server.Messages();
  const Message* publish = Find(messages, "publish");
  ASSERT_NE(publish, nullptr);
  EXPECT_EQ(Str(publish->values[3]), std::string(300, 'n'));
}

TEST_F(RTMPClientTest, SendsTagBodiesOnMediaChannels) {
  ScriptedRTMPServer server({});
  RTMPClient client(server.Url(), "x");
  client.Connect();
  ASSERT_TRUE(log_.WaitFor("publishing successfully started"));

  client.PutFrame(VideoTag(300, 1.5));
  FLVFrame audio(MediaType::Audio, MediaCodec::AAC, FLVTagType::Audio);
  audio.SetPTS(0.25);
  audio.Data() = {8, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0xAF, 0x01, 0, 0, 0, 13};
  client.PutFrame(audio);
  FLVFrame metadata(MediaType::Data, MediaCodec::None, FLVTagType::ScriptData);
  metadata.Data() = {18, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0x05, 0, 0, 0, 12};
  client.PutFrame(metadata);

  ASSERT_TRUE(server.WaitFor([](const std::vector<Message>& m) {
    return !m.empty() && m.back().type == RTMPPacketType::Data;
  }));
  std::vector<Message> media;
  for (const Message& m : server.Messages()) {
    if (m.command.empty()) media.push_back(m);
  }
  ASSERT_EQ(media.size(), 3u);
  EXPECT_EQ(media[0].type, RTMPPacketType::Video);
  EXPECT_EQ(media[0].channel, RTMPChannel::Video);
  EXPECT_EQ(media[0].streamId, 0x01000000u);  // read big-endian by the parser, sent as 1
  EXPECT_EQ(media[0].timestamp, 1500u);
  EXPECT_EQ(media[0].payload.size(), 300u);
  EXPECT_EQ(media[0].payload[299], static_cast<uint8_t>(299));
  EXPECT_EQ(media[1].type, RTMPPacketType::Audio);
  EXPECT_EQ(media[1].channel, RTMPChannel::AudioAndData);
  EXPECT_THAT(media[1].payload, testing::ElementsAre(0xAF, 0x01));
  EXPECT_EQ(media[2].type, RTMPPacketType::Data);
  Bytes setDataFrame = {0x02, 0, 13};
  for (char c : std::string("@setDataFrame")) setDataFrame.push_back(static_cast<uint8_t>(c));
  setDataFrame.push_back(0x05);
  EXPECT_EQ(media[2].payload, setDataFrame);
}

TEST_F(RTMPClientTest, ReportsLostServerThroughReceiver) {
  ScriptedRTMPServer server({});
  RTMPClient client(server.Url(), "x");
  client.Connect();
  ASSERT_TRUE(log_.WaitFor("publishing successfully started"));
  EXPECT_TRUE(client.IsReceiving());
  server.CloseClient();
  ASSERT_TRUE(log_.WaitFor("rtmp receiver thread done"));
  for (int i = 0; i < 50 && client.IsReceiving(); ++i) std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(client.IsReceiving());
  EXPECT_EQ(client.ReceiverError(), "netowrk recv data failed");
}

TEST_F(RTMPClientTest, CloseUnpublishesAndReportsStop) {
  ScriptedRTMPServer server({});
  RTMPClient client(server.Url(), "x");
  std::atomic<int> stops{0};
  client.SetPublishStopCallback([&] { ++stops; });
  client.Connect();
  ASSERT_TRUE(log_.WaitFor("publishing successfully started"));
  client.Close();
  EXPECT_EQ(stops.load(), 1);
  EXPECT_FALSE(client.IsPublishing());
  // Unpublishing repeats the publish command; the server's second confirmation, arriving while
  // the client closes, must not make it publishing again.
  ASSERT_TRUE(server.WaitFor([](const std::vector<Message>& messages) {
    return std::count_if(messages.begin(), messages.end(),
                         [](const Message& m) { return m.command == "publish"; }) == 2;
  }));
  EXPECT_EQ(server.Messages().back().channel, RTMPChannel::Publish);
  EXPECT_TRUE(server.WaitForClose());
  EXPECT_FALSE(client.IsPublishing());
  client.Close();  // a second close does nothing
  EXPECT_EQ(stops.load(), 1);
}

}  // namespace
}  // namespace nembra
