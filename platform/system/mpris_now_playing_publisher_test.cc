#include "platform/system/mpris_now_playing_publisher.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "platform/dispatch/serial_queue.h"
#include "platform/system/child_process.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A private session bus started for the test, and dbus-send as the desktop's side.
class MprisNowPlayingPublisherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0 || ::access("/usr/bin/dbus-send", X_OK) != 0) {
      GTEST_SKIP() << "needs dbus-daemon and dbus-send (Debian: dbus)";
    }
    dir_ = fs::temp_directory_path() /
           ("nembra-mpris-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_);
    address_ = "unix:path=" + (dir_ / "bus").string();
    ChildProcessOptions options;
    options.argv = {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + address_};
    options.stdoutPath = (dir_ / "daemon.log").string();
    options.stderrPath = options.stdoutPath;
    ASSERT_FALSE(ChildProcess::start(options, daemon_));
    for (int i = 0; i < 500 && !fs::exists(dir_ / "bus"); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(fs::exists(dir_ / "bus"));
    // The socket appears a moment before the daemon answers on it.
    for (int i = 0; i < 100 && name_.empty(); ++i) {
      publisher_ = MprisNowPlayingPublisher::makeOnBus(queue_, address_, &name_);
      if (name_.empty()) std::this_thread::sleep_for(20ms);
    }
    ASSERT_FALSE(name_.empty()) << "no name taken on the private bus";
  }

  void TearDown() override {
    publisher_.reset();
    daemon_.reset();
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  // dbus-send's reply, printed, with each run of blanks made one space.
  std::string send(const std::vector<std::string>& call) {
    std::vector<std::string> argv = {"dbus-send",       "--bus=" + address_,
                                     "--print-reply",   "--reply-timeout=5000",
                                     "--dest=" + name_, MprisNowPlayingPublisher::kObjectPath};
    argv.insert(argv.end(), call.begin(), call.end());
    ChildProcessOptions options;
    options.argv = argv;
    options.stdoutPath = (dir_ / "reply").string();
    options.stderrPath = options.stdoutPath;
    std::unique_ptr<ChildProcess> process;
    if (ChildProcess::start(options, process)) return "";
    process->wait(10s);
    std::ifstream in(options.stdoutPath);
    std::string text, word;
    while (in >> word) text += word + " ";
    return text;
  }

  std::string property(const std::string& name) {
    return send({"org.freedesktop.DBus.Properties.Get", "string:org.mpris.MediaPlayer2.Player",
                 "string:" + name});
  }

  fs::path dir_;
  std::string address_;
  std::string name_;
  std::unique_ptr<ChildProcess> daemon_;
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
