#include "platform/system/mpris_now_playing_publisher.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>

#include "platform/dispatch/serial_queue.h"
#include "platform/system/testing/private_session_bus.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A private session bus started for the test, and dbus-send as the desktop's side.
class MprisNowPlayingPublisherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::PrivateSessionBus::available()) {
      GTEST_SKIP() << "needs dbus-daemon and dbus-send (Debian: dbus)";
    }
    ASSERT_TRUE(bus_.start(fs::temp_directory_path() /
                           ("nembra-mpris-" + std::to_string(::getpid()) + "-" +
                            ::testing::UnitTest::GetInstance()->current_test_info()->name())));
    publisher_ = MprisNowPlayingPublisher::makeOnBus(queue_, bus_.address(), &name_);
    ASSERT_FALSE(name_.empty()) << "no name taken on the private bus";
  }

  void TearDown() override { publisher_.reset(); }

  std::string send(const std::vector<std::string>& call) {
    return bus_.call(name_, MprisNowPlayingPublisher::kObjectPath, call);
  }

  std::string property(const std::string& name) {
    return send({"org.freedesktop.DBus.Properties.Get", "string:org.mpris.MediaPlayer2.Player",
                 "string:" + name});
  }

  testing::PrivateSessionBus bus_;
  std::string name_;
  SerialQueue queue_{"test.mpris.commands"};
  std::unique_ptr<NowPlayingPublisher> publisher_;
};

TEST_F(MprisNowPlayingPublisherTest, TheDesktopReadsTheItemStatusAndPosition) {
  EXPECT_NE(property("PlaybackStatus").find("\"Stopped\""), std::string::npos);
  NowPlayingInfo info;
  info.title = "Nembra";
  info.listTitle = "Nembra Title";
  info.iconPath = "/usr/share/nembra/icon.png";
  info.durationSeconds = 62.5;
  info.url = "http://127.0.0.1/a/audio.aac";
  publisher_->publish(info);
  publisher_->setPlaying(true);
  publisher_->setPosition(12.25);

  std::string metadata = property("Metadata");
  EXPECT_NE(metadata.find(R"(string "xesam:title" variant string "Nembra" )"), std::string::npos)
      << metadata;
  EXPECT_NE(metadata.find(R"(string "xesam:album" variant string "Nembra Title" )"),
            std::string::npos);
  EXPECT_NE(metadata.find("file:///usr/share/nembra/icon.png"), std::string::npos);
  EXPECT_NE(metadata.find("int64 62500000"), std::string::npos);
  EXPECT_NE(property("PlaybackStatus").find("\"Playing\""), std::string::npos);
  EXPECT_NE(property("Position").find("int64 12250000"), std::string::npos);

  publisher_->setPlaying(false);
  EXPECT_NE(property("PlaybackStatus").find("\"Paused\""), std::string::npos);
  std::string identity = send(
      {"org.freedesktop.DBus.Properties.Get", "string:org.mpris.MediaPlayer2", "string:Identity"});
  EXPECT_NE(identity.find("\"Nembra\""), std::string::npos) << identity;

  publisher_->clear();
  EXPECT_NE(property("PlaybackStatus").find("\"Stopped\""), std::string::npos);
  EXPECT_EQ(property("Metadata").find("xesam:title"), std::string::npos);
}

TEST_F(MprisNowPlayingPublisherTest, MediaKeysReachTheHandlerOnItsQueue) {
  std::mutex mutex;
  std::vector<NowPlayingCommand> received;
  std::promise<void> four;
  publisher_->setCommandHandler([&](NowPlayingCommand command) {
    EXPECT_TRUE(queue_.isCurrent());
    std::lock_guard lock(mutex);
    received.push_back(command);
    if (received.size() == 4) four.set_value();
  });
  for (const char* method : {"Play", "Pause", "Next", "Previous"}) {
    send({std::string("org.mpris.MediaPlayer2.Player.") + method});
  }
  ASSERT_EQ(four.get_future().wait_for(5s), std::future_status::ready);
  std::lock_guard lock(mutex);
  EXPECT_EQ(received,
            (std::vector<NowPlayingCommand>{NowPlayingCommand::Play, NowPlayingCommand::Pause,
                                            NowPlayingCommand::Next, NowPlayingCommand::Previous}));
}

TEST(MprisWithoutBusTest, NoReachableBusGivesAPublisherThatDoesNothing) {
  SerialQueue queue("test.mpris.none");
  std::string name = "unset";
  auto publisher =
      MprisNowPlayingPublisher::makeOnBus(queue, "unix:path=/nonexistent/nembra/bus", &name);
  ASSERT_TRUE(publisher);
  EXPECT_TRUE(name.empty());
  publisher->publish(NowPlayingInfo{});
  publisher->setPlaying(true);
  publisher->setPosition(3);
  publisher->clear();
}

}  // namespace
}  // namespace nembra
