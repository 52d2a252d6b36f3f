// `nembra stream` against real RTMP servers (nginx with its RTMP module, ffmpeg listening) and a
// scripted one for what real servers rarely do. Recordings are checked with ffprobe and decoded
// with ffmpeg.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "nembra/json.h"
#include "platform/system/child_process.h"
#include "streaming/testing/scripted_rtmp_server.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using nembra::testing::CommandResult;
using nembra::testing::TempDir;
using ::testing::HasSubstr;

constexpr const char* kRtmpModule = "/usr/lib/nginx/modules/ngx_rtmp_module.so";

#define REQUIRE_PROGRAM(variable, name)                     \
  const auto variable = nembra::testing::findProgram(name); \
  if (!variable) GTEST_SKIP() << name << " is not installed (scripts/install-deps.sh)"

std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& argv,
                                    const std::string& output) {
  std::unique_ptr<ChildProcess> process;
  ChildProcessOptions options;
  options.argv = argv;
  options.stdoutPath = output;
  options.stderrPath = output + ".err";
  if (OptionalError error = ChildProcess::start(options, process)) {
    ADD_FAILURE() << "can't start " << argv[0] << ": " << error->message;
  }
  return process;
}

// A 640x360 30 fps H.264 + 48 kHz AAC file. No B-frames unless asked: composition offsets are
// never sent, so reordered frames would come out of a recording with decode-order timestamps.
std::string MakeClip(const TempDir& dir, int seconds, const std::string& size = "640x360",
                     int bFrames = 0) {
  const std::string path = dir.file("clip-" + std::to_string(bFrames) + ".mp4");
  const CommandResult made =
      nembra::testing::runCommand({"ffmpeg",    "-v",
                                   "error",     "-y",
                                   "-f",        "lavfi",
                                   "-i",        "testsrc2=size=" + size + ":rate=30",
                                   "-f",        "lavfi",
                                   "-i",        "sine=frequency=440:sample_rate=48000",
                                   "-t",        std::to_string(seconds),
                                   "-c:v",      "libx264",
                                   "-preset",   "veryfast",
                                   "-bf",       std::to_string(bFrames),
                                   "-g",        "60",
                                   "-c:a",      "aac",
                                   "-b:a",      "96k",
                                   "-shortest", path});
  EXPECT_EQ(made.exitCode, 0) << made.output;
  return path;
}

struct Probe {
  std::vector<std::string> codecs;
  int width = 0;
  int height = 0;
  double duration = 0;
};

Probe ProbeRecording(const std::string& path) {
  const CommandResult probed = nembra::testing::runCommand(
      {"ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height:format=duration",
       "-of", "json", path});
  EXPECT_EQ(probed.exitCode, 0) << probed.output;
  Probe probe;
  const Json json = Json::parse(probed.output, nullptr, false);
  if (json.is_discarded()) {
    ADD_FAILURE() << "ffprobe said: " << probed.output;
    return probe;
  }
  for (const Json& stream : json.value("streams", Json::array())) {
    probe.codecs.push_back(stream.value("codec_name", ""));
    if (stream.contains("width")) {
      probe.width = stream["width"].get<int>();
      probe.height = stream["height"].get<int>();
    }
  }
  probe.duration = std::stod(json["format"].value("duration", "0"));
  return probe;
}

void ExpectDecodesCleanly(const std::string& path) {
  const CommandResult decoded =
      nembra::testing::runCommand({"ffmpeg", "-v", "error", "-i", path, "-f", "null", "-"});
  EXPECT_EQ(decoded.exitCode, 0);
  EXPECT_EQ(decoded.output, "");
}

CommandResult Stream(const std::vector<std::string>& arguments,
                     std::chrono::seconds timeout = 60s) {
  std::vector<std::string> argv = {NEMBRA_CLI_PATH, "stream"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return nembra::testing::runCommand(argv, timeout);
}

// nginx with the RTMP module, run as this user under a scratch prefix, recording every stream.
class NginxRtmpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    nginx_ = nembra::testing::findProgram("nginx");
    if (!nginx_ || !std::filesystem::exists(kRtmpModule)) {
      GTEST_SKIP() << "nginx with the RTMP module is not installed (scripts/install-deps.sh)";
    }
    if (!nembra::testing::findProgram("ffmpeg") || !nembra::testing::findProgram("ffprobe")) {
      GTEST_SKIP() << "ffmpeg is not installed (scripts/install-deps.sh)";
    }
    port_ = nembra::testing::freeTcpPort();
    std::filesystem::create_directories(dir_.file("logs"));
    std::filesystem::create_directories(dir_.file("rec"));
    // As root, nginx would hand its workers to "nobody", who can't write the recordings.
    std::string user;
    if (::geteuid() == 0) user = "user root;\n";
    nembra::testing::writeFile(
        dir_.file("nginx.conf"),
        "load_module " + std::string(kRtmpModule) + ";\n" + user +
            "worker_processes 1;\nerror_log logs/error.log info;\npid logs/nginx.pid;\n"
            "events { worker_connections 64; }\n"
            "rtmp { server { listen 127.0.0.1:" +
            std::to_string(port_) +
            ";\n"
            "  application live { live on; record all; record_path " +
            dir_.file("rec") + "; record_unique off; } } }\n");
    server_ =
        Start({*nginx_, "-p", dir_.path(), "-c", dir_.file("nginx.conf"), "-g", "daemon off;"},
              dir_.file("nginx.out"));
    ASSERT_TRUE(server_);
    ASSERT_TRUE(nembra::testing::waitForTcpListener(port_, 10s))
        << nembra::testing::readFile(dir_.file("nginx.out.err"))
        << nembra::testing::readFile(dir_.file("logs/error.log"));
  }

  std::string Url() const { return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live"; }
  std::string Recording(const std::string& name) const { return dir_.file("rec/" + name + ".flv"); }

  TempDir dir_{"nembra-live"};
  std::optional<std::string> nginx_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> server_;
};

TEST_F(NginxRtmpTest, FilePassesThroughIntoRecording) {
  const std::string clip = MakeClip(dir_, 5);
  const CommandResult streamed = Stream({Url(), "--name", "file", "--source", clip});
  ASSERT_EQ(streamed.exitCode, 0) << streamed.output;
  EXPECT_THAT(streamed.output, HasSubstr("published 150 video"));
  EXPECT_THAT(streamed.output, Not(HasSubstr("B-frames")));
  const Probe probe = ProbeRecording(Recording("file"));
  EXPECT_THAT(probe.codecs, ::testing::UnorderedElementsAre("h264", "aac"));
  EXPECT_EQ(probe.width, 640);
  EXPECT_EQ(probe.height, 360);
  EXPECT_NEAR(probe.duration, 5.0, 0.5);
  ExpectDecodesCleanly(Recording("file"));
}

TEST_F(NginxRtmpTest, BFramesAreToldBeforeStreamingAndReencodingSendsTheFileInOrder) {
  const std::string clip = MakeClip(dir_, 3, "320x240", 2);
  const CommandResult passed =
      Stream({Url(), "--name", "passed", "--source", clip, "--as-fast-as-possible"});
  ASSERT_EQ(passed.exitCode, 0) << passed.output;
  EXPECT_THAT(passed.output, HasSubstr("has B-frames"));

  const CommandResult reencoded = Stream(
      {Url(), "--name", "reencoded", "--source", clip, "--reencode", "--as-fast-as-possible"});
  ASSERT_EQ(reencoded.exitCode, 0) << reencoded.output;
  EXPECT_THAT(reencoded.output, Not(HasSubstr("B-frames")));
  EXPECT_THAT(reencoded.output, HasSubstr("published 90 video")) << "the held-back frames too";
  const Probe probe = ProbeRecording(Recording("reencoded"));
  EXPECT_THAT(probe.codecs, ::testing::UnorderedElementsAre("h264", "aac"));
  EXPECT_EQ(probe.width, 320);
  EXPECT_NEAR(probe.duration, 3.0, 0.5);
  ExpectDecodesCleanly(Recording("reencoded"));
}

TEST_F(NginxRtmpTest, TestPatternIsEncodedIntoRecording) {
  const auto started = std::chrono::steady_clock::now();
  const CommandResult streamed = Stream({Url() + "/pattern", "--source", "lavfi", "--duration", "5",
                                         "--size", "480x270", "--fps", "25", "--bitrate", "800k"});
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  ASSERT_EQ(streamed.exitCode, 0) << streamed.output;
  EXPECT_GE(wall, 4.5);  // paced in real time
  const Probe probe = ProbeRecording(Recording("pattern"));
  EXPECT_THAT(probe.codecs, ::testing::UnorderedElementsAre("h264", "aac"));
  EXPECT_EQ(probe.width, 480);
  EXPECT_EQ(probe.height, 270);
  EXPECT_NEAR(probe.duration, 5.0, 0.5);
  ExpectDecodesCleanly(Recording("pattern"));
}

TEST_F(NginxRtmpTest, CtrlCClosesAndExitsCleanly) {
  std::unique_ptr<ChildProcess> client =
      Start({NEMBRA_CLI_PATH, "stream", Url(), "--name", "stopped", "--source", "lavfi", "--size",
             "320x180"},
            dir_.file("client.out"));
  ASSERT_TRUE(client);
  std::this_thread::sleep_for(2500ms);
  ASSERT_TRUE(client->isRunning()) << nembra::testing::readFile(dir_.file("client.out.err"));
  client->signal(SIGINT);
  const auto exitCode = client->wait(5s);
  ASSERT_TRUE(exitCode.has_value());
  EXPECT_EQ(*exitCode, 0) << nembra::testing::readFile(dir_.file("client.out.err"));
  EXPECT_THAT(nembra::testing::readFile(dir_.file("client.out")), HasSubstr("stopped after"));
  const Probe probe = ProbeRecording(Recording("stopped"));
  EXPECT_THAT(probe.codecs, ::testing::UnorderedElementsAre("h264", "aac"));
  EXPECT_GT(probe.duration, 1.0);
}

TEST(FfmpegListenTest, SecondServerRecordsPublishedFile) {
  REQUIRE_PROGRAM(ffmpeg, "ffmpeg");
  TempDir dir("nembra-live");
  const std::string clip = MakeClip(dir, 3);
  const int port = nembra::testing::freeTcpPort();
  const std::string url = "rtmp://127.0.0.1:" + std::to_string(port) + "/live/x";
  std::unique_ptr<ChildProcess> server = Start({*ffmpeg, "-v", "error", "-listen", "1", "-f", "flv",
                                                "-i", url, "-c", "copy", "-y", dir.file("out.flv")},
                                               dir.file("ffmpeg.out"));
  ASSERT_TRUE(server);
  // ffmpeg serves exactly one client, so a probe connection would use it up: the publish itself
  // is retried until ffmpeg listens.
  CommandResult streamed;
  for (int attempt = 0; attempt < 50; ++attempt) {
    streamed = Stream({url, "--source", clip, "--as-fast-as-possible"});
    if (streamed.output.find("can't connect socket") == std::string::npos) break;
    std::this_thread::sleep_for(200ms);
  }
  ASSERT_EQ(streamed.exitCode, 0) << streamed.output;
  ASSERT_TRUE(server->wait(10s).has_value()) << "ffmpeg did not finish";
  const Probe probe = ProbeRecording(dir.file("out.flv"));
  EXPECT_THAT(probe.codecs, ::testing::UnorderedElementsAre("h264", "aac"));
  EXPECT_EQ(probe.width, 640);
  EXPECT_NEAR(probe.duration, 3.0, 0.3);
  ExpectDecodesCleanly(dir.file("out.flv"));
}

class ScriptedServerTest : public ::testing::Test {
 protected:
  TempDir dir_{"nembra-live"};
};

TEST_F(ScriptedServerTest, WrongProtocolVersionFailsWithClientMessage) {
  ScriptedRTMPServer server({.version = 6});
  const CommandResult streamed =
      Stream({server.Url(), "--source", "lavfi", "--size", "320x180", "--duration", "1"}, 20s);
  EXPECT_EQ(streamed.exitCode, 1);
  EXPECT_THAT(streamed.output, HasSubstr("error: unknown rtmp protocol version"));
}

TEST_F(ScriptedServerTest, RefusedPublishFailsWithServerMessage) {
  ScriptedRTMPServer server({.refusePublish = true});
  const CommandResult streamed =
      Stream({server.Url(), "--source", "lavfi", "--size", "320x180", "--duration", "1"}, 20s);
  EXPECT_EQ(streamed.exitCode, 1);
  EXPECT_THAT(streamed.output, HasSubstr("error: NetStream.Publish.BadName: Already publishing"));
}

TEST_F(ScriptedServerTest, PingsAndLargerChunkSizeDoNotDisturbPublishing) {
  ScriptedRTMPServer server({.chunkSizeAtConnect = 4096});
  std::unique_ptr<ChildProcess> client = Start({NEMBRA_CLI_PATH, "stream", server.Url(), "--source",
                                                "lavfi", "--size", "320x180", "--duration", "2"},
                                               dir_.file("client.out"));
  ASSERT_TRUE(client);
  ASSERT_TRUE(server.WaitForCommand("publish"));
  for (uint32_t ping = 1; ping <= 3; ++ping) {
    std::this_thread::sleep_for(300ms);
    server.SendPing(ping * 1000);
  }
  const auto exitCode = client->wait(15s);
  ASSERT_TRUE(exitCode.has_value());
  EXPECT_EQ(*exitCode, 0) << nembra::testing::readFile(dir_.file("client.out.err"));

  std::vector<uint32_t> pongs;
  size_t video = 0;
  bool sequenceHeader = false;
  for (const auto& message : server.Messages()) {
    if (message.type == RTMPPacketType::UserControl && message.payload.size() == 6) {
      EXPECT_EQ(message.payload[1], 7);
      pongs.push_back(uint32_t{message.payload[2]} << 24 | uint32_t{message.payload[3]} << 16 |
                      uint32_t{message.payload[4]} << 8 | message.payload[5]);
    }
    if (message.type == RTMPPacketType::Video) {
      ++video;
      // Media channels come after the announcement and still send 128-byte chunks, which is
      // how this server reads them: a key frame arriving whole proves it.
      sequenceHeader |=
          message.payload.size() > 5 && message.payload[0] == 0x17 && message.payload[1] == 0;
    }
  }
  EXPECT_THAT(pongs, ::testing::ElementsAre(1000, 2000, 3000));
  EXPECT_GE(video, 55u);
  EXPECT_TRUE(sequenceHeader);
}

TEST_F(ScriptedServerTest, AbruptCloseMidPublishIsNoticedWithinASecond) {
  ScriptedRTMPServer server({});
  std::unique_ptr<ChildProcess> client =
      Start({NEMBRA_CLI_PATH, "stream", server.Url(), "--source", "lavfi", "--size", "320x180"},
            dir_.file("client.out"));
  ASSERT_TRUE(client);
  ASSERT_TRUE(server.WaitFor([](const std::vector<ScriptedRTMPServer::Message>& messages) {
    size_t media = 0;
    for (const auto& m : messages) media += m.type == RTMPPacketType::Video;
    return media >= 20;
  }));
  server.CloseClient();
  const auto closed = std::chrono::steady_clock::now();
  const auto exitCode = client->wait(5s);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - closed).count();
  ASSERT_TRUE(exitCode.has_value()) << "still streaming after the server went away";
  EXPECT_EQ(*exitCode, 1);
  EXPECT_LT(seconds, 1.0);
  EXPECT_THAT(nembra::testing::readFile(dir_.file("client.out.err")),
              HasSubstr("error: connection lost: the server closed the connection"));
}

}  // namespace
}  // namespace nembra
