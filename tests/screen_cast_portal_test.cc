// `nembra record-screen` on a Wayland desktop: the ScreenCast portal of a headless wlroots
// compositor, a stand-in portal casting a PipeWire stream, their answers, and the choice between
// the portal and X11.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "platform/ffmpeg/testing/private_pipewire.h"
#include "platform/ui/testing/xvfb_display.h"
#include "tests/test_support.h"
#include "tests/testing/headless_wayland_desktop.h"
#include "tests/testing/stand_in_screen_cast_portal.h"

namespace nembra {
namespace {

constexpr const char* kGroup = "it.portal";

class ScreenCastPortalTest : public ::testing::Test {
 protected:
  testing::CommandResult record(const std::vector<std::string>& environment,
                                const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {"env", "NEMBRA_HOME=" + home_.path()};
    argv.insert(argv.end(), environment.begin(), environment.end());
    argv.insert(argv.end(), {NEMBRA_CLI_PATH, "record-screen", "--app-group", kGroup, "--mic",
                             "none", "--duration", "2"});
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return testing::runCommand(argv, std::chrono::seconds(60));
  }

  std::vector<std::string> movies() const {
    std::vector<std::string> found;
    const std::string shared =
        home_.path() + "/AppGroups/" + kGroup + "/Library/Caches/com.nembra.screen-recording";
    if (!std::filesystem::exists(shared)) return found;
    for (const auto& entry : std::filesystem::directory_iterator(shared))
      found.push_back(entry.path());
    return found;
  }

  void clearMovies() {
    for (const std::string& movie : movies()) std::filesystem::remove(movie);
  }

  // The movie's "codec_name=", "width=", "height=" and "duration=" lines.
  static std::string probe(const std::string& movie) {
    const auto result = testing::runCommand(
        {"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
         "stream=codec_name,width,height:format=duration", "-of", "default=nw=1", movie});
    EXPECT_EQ(result.exitCode, 0) << result.output;
    return result.output;
  }

  testing::TempDir home_{"nembra-portal"};
};

// The stand-in portal casting PipeWire's test pattern, whose pictures are this size.
constexpr int kPatternWidth = 320;
constexpr int kPatternHeight = 240;

testing::StandInScreenCastPortal::Stream patternStream(const testing::PrivatePipeWire& pipewire) {
  return {static_cast<uint32_t>(pipewire.node()), kPatternWidth, kPatternHeight,
          [&pipewire] { return pipewire.connect(); }};
}

// The portal closes the cast with the session; the recorder must not leave it open.
bool sessionsCloseSoon(const testing::StandInScreenCastPortal& portal) {
  for (int i = 0; i < 100 && portal.openSessions() > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return portal.openSessions() == 0;
}

TEST_F(ScreenCastPortalTest, RecordsTheStreamThePortalStartsThroughItsPipeWireConnection) {
  if (::access("/usr/bin/pipewire", X_OK) != 0 || ::access("/usr/bin/wireplumber", X_OK) != 0)
    GTEST_SKIP() << "PipeWire and WirePlumber are not installed";
  // Asked for by name, and chosen on a Wayland session; no X11 display to fall back on.
  const struct {
    const char* name;
    std::vector<std::string> environment;
    std::vector<std::string> arguments;
  } cases[] = {
      {"--source portal", {}, {"--source", "portal"}},
      {"automatic on Wayland", {"WAYLAND_DISPLAY=wayland-0"}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clearMovies();
    // A daemon per recording: its test pattern does not always start again for a second
    // reader, which a compositor's stream would.
    testing::PrivatePipeWire pipewire;
    ASSERT_GE(pipewire.node(), 0);
    testing::StandInScreenCastPortal portal(testing::StandInScreenCastPortal::StartAnswer::Cast,
                                            patternStream(pipewire));
    ASSERT_TRUE(portal.ready()) << portal.whyNot();
    std::vector<std::string> environment = portal.environment();
    environment.push_back("DISPLAY=");
    environment.insert(environment.end(), c.environment.begin(), c.environment.end());
    const auto result = record(environment, c.arguments);
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_NE(result.output.find("through the screen-cast portal"), std::string::npos)
        << result.output;
    const auto found = movies();
    ASSERT_EQ(found.size(), 1u);
    const std::string facts = probe(found[0]);
    EXPECT_NE(facts.find("codec_name=h264"), std::string::npos) << facts;
    EXPECT_NE(facts.find("width=" + std::to_string(kPatternWidth)), std::string::npos) << facts;
    EXPECT_NE(facts.find("height=" + std::to_string(kPatternHeight)), std::string::npos) << facts;
    const auto at = facts.find("duration=");
    ASSERT_NE(at, std::string::npos) << facts;
    EXPECT_NEAR(std::stod(facts.substr(at + 9)), 2.0, 0.5) << facts;
    EXPECT_TRUE(sessionsCloseSoon(portal));
    const auto calls = portal.calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "ScreenCast.OpenPipeWireRemote"), 1);
  }
}

TEST_F(ScreenCastPortalTest, APortalThatDoesNotStartTheCastIsTheAnswerEvenWithX11) {
  testing::XvfbDisplay xvfb;
  if (xvfb.display().empty()) GTEST_SKIP() << "no Xvfb";
  using Answer = testing::StandInScreenCastPortal::StartAnswer;
  const struct {
    Answer answer;
    const char* message;
  } cases[] = {
      {Answer::Cancel, "the screen cast was cancelled by the user"},
      {Answer::Fail, "the screen-cast portal refused to start the screen cast (response 2)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    // Nothing is ever cast: the stream is never asked for.
    testing::StandInScreenCastPortal portal(c.answer, {});
    ASSERT_TRUE(portal.ready()) << portal.whyNot();
    std::vector<std::string> environment = portal.environment();
    environment.push_back("WAYLAND_DISPLAY=wayland-0");
    for (const std::vector<std::string>& source :
         {std::vector<std::string>{"--source", "portal"}, std::vector<std::string>{}}) {
      std::vector<std::string> arguments = source;
      arguments.insert(arguments.end(), {"--display", xvfb.display()});
      const auto result = record(environment, arguments);
      EXPECT_EQ(result.exitCode, 1) << result.output;
      EXPECT_NE(result.output.find(c.message), std::string::npos) << result.output;
      EXPECT_EQ(result.output.find("recording the screen"), std::string::npos) << result.output;
    }
    EXPECT_TRUE(sessionsCloseSoon(portal));
    const auto calls = portal.calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "ScreenCast.OpenPipeWireRemote"), 0);
  }
  EXPECT_TRUE(movies().empty());
}

TEST_F(ScreenCastPortalTest, AUserWhoCancelsTheChooserIsAnsweredNotRecordedFromX11) {
  testing::HeadlessWaylandDesktop desktop(testing::HeadlessWaylandDesktop::Chooser::Cancel, 640,
                                          480);
  if (!desktop.ready()) GTEST_SKIP() << desktop.whyNot();
  testing::XvfbDisplay xvfb;
  if (xvfb.display().empty()) GTEST_SKIP() << "no Xvfb";
  // An X11 display is there too: the portal's answer must stand all the same.
  for (const std::vector<std::string>& source :
       {std::vector<std::string>{"--source", "portal"}, std::vector<std::string>{}}) {
    std::vector<std::string> arguments = source;
    arguments.insert(arguments.end(), {"--display", xvfb.display()});
    const auto result = record(desktop.environment(), arguments);
    EXPECT_EQ(result.exitCode, 1) << result.output;
    EXPECT_NE(result.output.find("the screen cast was cancelled by the user"), std::string::npos)
        << result.output;
    EXPECT_EQ(result.output.find("recording the screen"), std::string::npos) << result.output;
  }
  EXPECT_TRUE(movies().empty());
}

TEST_F(ScreenCastPortalTest, AWaylandSessionWithoutAPortalIsRecordedFromX11) {
  testing::XvfbDisplay xvfb;
  if (xvfb.display().empty()) GTEST_SKIP() << "no Xvfb";
  // A session bus on which nothing offers the portal.
  const std::string bus = home_.file("bus");
  const std::string config = home_.file("bus.conf");
  testing::writeFile(config,
                     "<busconfig><type>session</type><listen>unix:path=" + bus +
                         "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                         "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                         "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>");
  std::unique_ptr<ChildProcess> daemon;
  ASSERT_FALSE(ChildProcess::start(
      {{"dbus-daemon", "--nofork", "--config-file=" + config}, "/dev/null", "/dev/null"}, daemon));
  for (int i = 0; i < 100 && !std::filesystem::exists(bus); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

  const auto result =
      record({"DBUS_SESSION_BUS_ADDRESS=unix:path=" + bus, "WAYLAND_DISPLAY=wayland-nowhere"},
             {"--display", xvfb.display()});
  ASSERT_EQ(result.exitCode, 0) << result.output;
  EXPECT_NE(result.output.find("from X11"), std::string::npos) << result.output;
  EXPECT_EQ(movies().size(), 1u);

  // Asked for by name, the missing portal is an error, not X11.
  const auto forced = record({"DBUS_SESSION_BUS_ADDRESS=unix:path=" + bus},
                             {"--source", "portal", "--display", xvfb.display()});
  EXPECT_EQ(forced.exitCode, 1) << forced.output;
  EXPECT_NE(forced.output.find("no screen-cast portal"), std::string::npos) << forced.output;
}

// The compositor offers its screen to the portal's wlroots backend only as shared memory when it
// renders without a GPU; the backend shipped with Debian 12 then refuses to start the cast (it
// insists on a DMA-BUF format too). With a render node the whole path runs.
TEST_F(ScreenCastPortalTest, RecordsTheMonitorThroughThePortal) {
  if (!std::filesystem::exists("/dev/dri")) {
    GTEST_SKIP() << "no DRM render node: the wlroots portal backend will not cast";
  }
  testing::HeadlessWaylandDesktop desktop(testing::HeadlessWaylandDesktop::Chooser::PickOutput, 640,
                                          480);
  if (!desktop.ready()) GTEST_SKIP() << desktop.whyNot();
  const auto result = record(desktop.environment(), {"--source", "portal"});
  ASSERT_EQ(result.exitCode, 0) << result.output;
  const auto found = movies();
  ASSERT_EQ(found.size(), 1u);
  const auto probe = testing::runCommand(
      {"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
       "stream=codec_name,width,height:format=duration", "-of", "default=nw=1", found[0]});
  ASSERT_EQ(probe.exitCode, 0) << probe.output;
  EXPECT_NE(probe.output.find("codec_name=h264"), std::string::npos) << probe.output;
  EXPECT_NE(probe.output.find("width=640"), std::string::npos) << probe.output;
  EXPECT_NE(probe.output.find("height=480"), std::string::npos) << probe.output;
  const auto at = probe.output.find("duration=");
  ASSERT_NE(at, std::string::npos) << probe.output;
  EXPECT_NEAR(std::stod(probe.output.substr(at + 9)), 2.0, 0.5) << probe.output;
}

}  // namespace
}  // namespace nembra
