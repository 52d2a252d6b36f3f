// Command encoding and reply routing of the remote procedure caller.
#include "streaming/remote_procedure_caller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "streaming/amf.h"
#include "streaming/media_callback.h"
#include "streaming/testing/stream_log_capture.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;

RTMPPacket Reply(const std::vector<std::shared_ptr<AMFValue>>& values) {
  RTMPPacket packet(MediaType::Data, MediaCodec::None, RTMPChannel::Command,
                    RTMPPacketType::Command, 0);
  BitstreamWriter writer = packet.GetDataWriter();
  for (const auto& value : values) WriteAMFValueOrNull(writer, value);
  return packet;
}

std::shared_ptr<AMFValue> Info(const std::string& level) {
  auto info = std::make_shared<AMFObject>();
  info->AddValue("level", AMFValue::String(level));
  info->AddValue("code", AMFValue::String("Some.Code"));
  return info;
}

struct Routed {
  std::vector<std::string> calls;  // which handler ran, in order
};

class RemoteProcedureCallerTest : public testing::Test {
 protected:
  RemoteProcedureCallerTest()
      : sender_(std::make_shared<MediaCallback<RTMPPacket>>(
            [this](RTMPPacket packet) { sent_.push_back(packet); })),
        caller_(
            sender_, [this](auto, auto) { routed_.calls.push_back("error"); },
            [this](auto, auto) { routed_.calls.push_back("status"); }) {}

  RemoteProcedureCaller::Handler Record(const std::string& name) {
    return [this, name](auto, auto) { routed_.calls.push_back(name); };
  }

  StreamLogCapture log_;
  std::vector<RTMPPacket> sent_;
  std::shared_ptr<MediaCallback<RTMPPacket>> sender_;
  Routed routed_;
  RemoteProcedureCaller caller_;
};

TEST_F(RemoteProcedureCallerTest, NumbersTransactionsAndWritesNullsForEmptyValues) {
  EXPECT_EQ(caller_.Call(RTMPChannel::Command, "connect", nullptr,
                         RemoteProcedureCaller::Arguments{}, {}, 0),
            1u);
  EXPECT_EQ(
      caller_.Call(RTMPChannel::Publish, "publish", nullptr, AMFValue::String("s"), nullptr, {}, 5),
      2u);
  ASSERT_EQ(sent_.size(), 2u);
  EXPECT_EQ(sent_[1].Channel(), RTMPChannel::Publish);
  EXPECT_EQ(sent_[1].PacketType(), RTMPPacketType::Command);
  EXPECT_EQ(sent_[1].StreamID(), 5u);
  const Bytes expected = {0x02, 0, 7, 'p', 'u', 'b', 'l',  'i',  's', 'h', 0x00, 0x40, 0x00,
                          0,    0, 0, 0,   0,   0,   0x05, 0x02, 0,   1,   's',  0x05};
  EXPECT_EQ(sent_[1].Data(), expected);
  EXPECT_EQ(log_.Count("command [publish](STRING: s, NULL), transactionID = 2"), 1u);
}

TEST_F(RemoteProcedureCallerTest, ResultReachesItsTransactionOnce) {
  caller_.Call(RTMPChannel::Command, "connect", nullptr, RemoteProcedureCaller::Arguments{},
               Record("connect"), 0);
  caller_.Call(RTMPChannel::Command, "createStream", nullptr, RemoteProcedureCaller::Arguments{},
               Record("createStream"), 0);
  caller_.PutFrame(Reply(
      {AMFValue::String("_result"), AMFValue::Number(2), AMFValue::Null(), AMFValue::Number(1)}));
  caller_.PutFrame(Reply(
      {AMFValue::String("_result"), AMFValue::Number(2), AMFValue::Null(), AMFValue::Number(1)}));
  caller_.PutFrame(Reply({AMFValue::String("_result"), AMFValue::Number(9)}));
  EXPECT_THAT(routed_.calls, testing::ElementsAre("createStream"));
  EXPECT_EQ(caller_.OpenTransactionCount(), 1u);
  EXPECT_EQ(log_.Count("result sent to callback"), 1u);
}

struct RoutingCase {
  std::string name;
  std::string command;
  std::string level;
  std::string handler;  // empty: none
};

class ReplyRoutingTest : public RemoteProcedureCallerTest,
                         public testing::WithParamInterface<RoutingCase> {};

TEST_P(ReplyRoutingTest, RoutesByNameAndErrorLevel) {
  caller_.Call(RTMPChannel::Command, "connect", nullptr, RemoteProcedureCaller::Arguments{},
               Record("result"), 0);
  caller_.PutFrame(Reply({AMFValue::String(GetParam().command), AMFValue::Number(1),
                          AMFValue::Null(), Info(GetParam().level)}));
  if (GetParam().handler.empty()) {
    EXPECT_TRUE(routed_.calls.empty());
  } else {
    EXPECT_THAT(routed_.calls, testing::ElementsAre(GetParam().handler));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ReplyRoutingTest,
    testing::Values(RoutingCase{"Result", "_result", "status", "result"},
                    RoutingCase{"ResultAtErrorLevel", "_result", "error", "error"},
                    RoutingCase{"Error", "_error", "status", "error"},
                    RoutingCase{"Status", "onStatus", "status", "status"},
                    RoutingCase{"StatusAtErrorLevel", "onStatus", "error", "error"},
                    RoutingCase{"Other", "onBWDone", "status", ""}),
    [](const auto& info) { return info.param.name; });

TEST_F(RemoteProcedureCallerTest, UnsupportedValueInReplyThrows) {
  caller_.Call(RTMPChannel::Command, "connect", nullptr, RemoteProcedureCaller::Arguments{},
               Record("result"), 0);
  RTMPPacket packet = Reply({AMFValue::String("_result"), AMFValue::Number(1)});
  packet.Data().push_back(0x0B);  // a date
  EXPECT_THROW(caller_.PutFrame(packet), std::runtime_error);
  EXPECT_TRUE(routed_.calls.empty());
}

}  // namespace
}  // namespace nembra
