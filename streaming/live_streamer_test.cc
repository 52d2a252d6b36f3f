// The streamer's sample handling, end to end through the client to a scripted server.
#include "streaming/live_streamer.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "streaming/testing/scripted_rtmp_server.h"
#include "streaming/testing/stream_log_capture.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;
using Message = ScriptedRTMPServer::Message;
using testing::ElementsAre;

const Bytes kSps = {0x67, 0x42, 0xC0, 0x1F, 0xDA, 0x01, 0x40, 0x16};
const Bytes kPps = {0x68, 0xCE, 0x3C, 0x80};

EncodedVideoSample Video(bool key, double pts, Bytes sps = kSps) {
  EncodedVideoSample sample;
  sample.keyFrame = key;
  sample.pts = pts;
  sample.sps = std::move(sps);
  sample.pps = kPps;
  sample.data = {0, 0, 0, 2, static_cast<uint8_t>(key ? 0x65 : 0x41), 0x88};
  return sample;
}

class Events : public LiveStreamerDelegate {
 public:
  void onPublishStart() override { started = true; }
  void onError(const std::string& message) override {
    std::lock_guard lock(mutex);
    errors.push_back(message);
  }
  std::atomic<bool> started{false};
  std::mutex mutex;
  std::vector<std::string> errors;
};

class LiveStreamerTest : public testing::Test {
 protected:
  std::unique_ptr<LiveStreamer> Publish() {
    std::string error;
    auto streamer = LiveStreamer::initWithTargetAddress(server_.Url(), "x", events_, &error);
    EXPECT_TRUE(streamer) << error;
    EXPECT_TRUE(log_.WaitFor("publishing successfully started"));
    for (int i = 0; i < 100 && !events_->started.load(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(events_->started.load());
    return streamer;
  }

  // Audio and video messages received, in order.
  std::vector<Message> Media(size_t count) {
    EXPECT_TRUE(server_.WaitFor([count](const std::vector<Message>& messages) {
      size_t n = 0;
      for (const Message& m : messages) {
        n += m.type == RTMPPacketType::Audio || m.type == RTMPPacketType::Video;
      }
      return n >= count;
    }));
    std::vector<Message> media;
    for (const Message& m : server_.Messages()) {
      if (m.type == RTMPPacketType::Audio || m.type == RTMPPacketType::Video) media.push_back(m);
    }
    return media;
  }

  StreamLogCapture log_;
  ScriptedRTMPServer server_{{}};
  std::shared_ptr<Events> events_ = std::make_shared<Events>();
};

TEST_F(LiveStreamerTest, FirstAudioSampleIsReplacedByConfig) {
  auto streamer = Publish();
  ASSERT_TRUE(streamer->putAudioSample({0xA1, 0xA2}, {0x13, 0x90}, 0.0));
  ASSERT_TRUE(streamer->putAudioSample({0xB1, 0xB2}, {0x13, 0x90}, 0.023));
  const auto media = Media(2);
  ASSERT_EQ(media.size(), 2u);
  // Audio goes out without waiting for a video key frame.
  EXPECT_THAT(media[0].payload, ElementsAre(0xAF, 0x00, 0x13, 0x90));
  EXPECT_THAT(media[1].payload, ElementsAre(0xAF, 0x01, 0xB1, 0xB2));
  EXPECT_EQ(streamer->counters().audioFrames, 1u);
}

TEST_F(LiveStreamerTest, VideoWaitsForKeyFrameAndCarriesParameterSets) {
  auto streamer = Publish();
  EXPECT_TRUE(streamer->putVideoSample(Video(false, 0.0)));
  EXPECT_TRUE(streamer->putVideoSample(Video(true, 0.033)));
  EXPECT_TRUE(streamer->putVideoSample(Video(false, 0.066)));
  const auto media = Media(3);
  ASSERT_EQ(media.size(), 3u);
  EXPECT_EQ(media[0].payload[0], 0x17);  // sequence header
  EXPECT_EQ(media[0].payload[1], 0x00);
  Bytes key = {0x17, 0x01, 0, 0, 0, 0, 0, 0, 8};
  key.insert(key.end(), kSps.begin(), kSps.end());
  key.insert(key.end(), {0, 0, 0, 4});
  key.insert(key.end(), kPps.begin(), kPps.end());
  key.insert(key.end(), {0, 0, 0, 2, 0x65, 0x88});
  EXPECT_EQ(media[1].payload, key);
  EXPECT_THAT(media[2].payload, ElementsAre(0x27, 0x01, 0, 0, 0, 0, 0, 0, 2, 0x41, 0x88));
  EXPECT_EQ(streamer->counters().videoFrames, 2u);
}

TEST_F(LiveStreamerTest, LongParameterSetGetsOnlyLowLengthByte) {
  auto streamer = Publish();
  Bytes longSps = kSps;
  longSps.resize(300, 0xEE);
  ASSERT_TRUE(streamer->putVideoSample(Video(true, 0, longSps)));
  const auto media = Media(2);
  ASSERT_EQ(media.size(), 2u);
  ASSERT_GT(media[1].payload.size(), 9u);
  EXPECT_THAT(Bytes(media[1].payload.begin() + 5, media[1].payload.begin() + 9),
              ElementsAre(0, 0, 0, 300 & 0xFF));
}

TEST_F(LiveStreamerTest, KeyFrameWithoutParameterSetsIsNotSent) {
  auto streamer = Publish();
  EXPECT_FALSE(streamer->putVideoSample(Video(true, 0, {})));
  EXPECT_EQ(log_.Count("Error getting of sps NAL"), 1u);
  EncodedVideoSample noPps = Video(true, 0);
  noPps.pps.clear();
  EXPECT_FALSE(streamer->putVideoSample(noPps));
  EXPECT_EQ(log_.Count("Error getting of pps NAL"), 1u);
  ASSERT_TRUE(streamer->putAudioSample({}, {0x12, 0x10}, 0));
  const auto media = Media(1);
  ASSERT_EQ(media.size(), 1u);
  EXPECT_EQ(media[0].type, RTMPPacketType::Audio);
}

TEST_F(LiveStreamerTest, SendAfterStopIsRefused) {
  auto streamer = Publish();
  streamer->stop();
  EXPECT_FALSE(streamer->putAudioSample({1}, {0x12, 0x10}, 0));
  EXPECT_TRUE(server_.WaitForClose());
}

TEST(LiveStreamerConnectTest, UnreachableServerGivesNoStreamer) {
  StreamLogCapture log;
  // A port that was free a moment ago: nothing listens there.
  int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  socklen_t length = sizeof(address);
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(probe);
  const std::string url = "rtmp://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/a/b";
  std::string error;
  EXPECT_EQ(LiveStreamer::initWithTargetAddress(url, "x", {}, &error), nullptr);
  EXPECT_EQ(error, "can't connect socket");
  EXPECT_EQ(log.Count("can't connect socket"), 1u);
}

}  // namespace
}  // namespace nembra
