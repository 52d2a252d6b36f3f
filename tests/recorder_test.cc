// `nembra record` from the virtual camera and microphone against `nembra serve`: a recording
// uploaded with its cover, a recorder killed mid-recording and its file recovered, and the
// failures a user meets. Files are checked with ffprobe.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "platform/system/child_process.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nembra::testing::CommandResult;
using nembra::testing::TempDir;
using ::testing::HasSubstr;

constexpr const char* kApp = "recapp";

struct Probe {
  std::string codecs;  // "h264,aac"
  double duration = 0;
};

Probe probe(const std::string& path) {
  const CommandResult result = nembra::testing::runCommand(
      {"ffprobe", "-v", "error", "-show_entries", "stream=codec_name:format=duration", "-of",
       "default=noprint_wrappers=1:nokey=1", path});
  Probe probe;
  std::istringstream lines(result.output);
  std::string line;
  std::vector<std::string> values;
  while (std::getline(lines, line)) values.push_back(line);
  if (values.empty()) return probe;
  probe.duration = std::atof(values.back().c_str());
  values.pop_back();
  for (const std::string& codec : values) probe.codecs += (probe.codecs.empty() ? "" : ",") + codec;
  return probe;
}

// Every file under |root| whose name ends with |suffix|.
std::vector<std::string> filesEndingWith(const std::string& root, const std::string& suffix) {
  std::vector<std::string> found;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().string();
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      found.push_back(name);
    }
  }
  return found;
}

class RecordCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!nembra::testing::findProgram("ffprobe")) GTEST_SKIP() << "ffprobe is not installed";
    nembra::testing::ServeProcess::Options options;
    options.dataDir = scratch_.file("data");
    std::string error;
    service_ = nembra::testing::ServeProcess::start(options, error);
    ASSERT_TRUE(service_) << error;
  }
  std::vector<std::string> argv(std::vector<std::string> args) {
    return commandLine(service_->baseUrl(), "", std::move(args), scratch_.file("home"));
  }
  // `nembra record ARGS` without a UI against |server| (and the ingest |rtmp| unless empty).
  static std::vector<std::string> commandLine(const std::string& server, const std::string& rtmp,
                                              std::vector<std::string> args,
                                              const std::string& home) {
    std::vector<std::string> all = {"/usr/bin/env", "NEMBRA_HOME=" + home, NEMBRA_CLI_PATH,
                                    "--server", server};
    if (!rtmp.empty()) all.insert(all.end(), {"--rtmp-url", rtmp});
    all.insert(all.end(), {"--token", kApp, "--ui", "none", "record"});
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }
  std::string documents() { return scratch_.file("home") + "/Documents"; }
  // A second service, with its RTMP ingest listening, its data in the scratch directory |dir|.
  void startWithIngest(const std::string& dir, nembra::testing::ServeProcess::Options& options,
                       std::unique_ptr<nembra::testing::ServeProcess>& service) {
    options.dataDir = scratch_.file(dir);
    options.rtmpPort = nembra::testing::freeTcpPort();
    std::string error;
    service = nembra::testing::ServeProcess::start(options, error);
    ASSERT_TRUE(service) << error;
    ASSERT_TRUE(nembra::testing::waitForTcpListener(options.rtmpPort, 10s)) << service->output();
  }

  TempDir scratch_;
  std::unique_ptr<nembra::testing::ServeProcess> service_;
};

TEST_F(RecordCommandTest, RecordsFromTheVirtualCameraAndUploadsWithItsCover) {
  const CommandResult result = nembra::testing::runCommand(
      argv({"--camera", "lavfi", "--mic", "lavfi", "--start-delay", "0", "--max-duration", "3",
            "--send-immediately", "--quality", "low", "--extra", "title=take one"}),
      120s);
  ASSERT_EQ(result.exitCode, 0) << result.output;
  std::smatch token;
  ASSERT_TRUE(std::regex_search(result.output, token, std::regex("video token: (\\S+)")))
      << result.output;
  const std::string videoDir =
      scratch_.file("data") + "/media/" + kApp + "/videos/" + token[1].str();
  const std::vector<std::string> videos = filesEndingWith(videoDir, "/video.mp4");
  ASSERT_EQ(videos.size(), 1u) << result.output;
  const Probe uploaded = probe(videos[0]);
  EXPECT_EQ(uploaded.codecs, "h264,aac");
  EXPECT_NEAR(uploaded.duration, 3.0, 0.25);
  EXPECT_EQ(filesEndingWith(videoDir, "/cover.jpg").size(), 1u) << "no cover attached";
  // The local recording goes once it is uploaded.
  std::smatch recorded;
  ASSERT_TRUE(std::regex_search(result.output, recorded, std::regex("recorded: file://(\\S+)")));
  EXPECT_FALSE(fs::exists(recorded[1].str()));
}

TEST_F(RecordCommandTest, ACameraThatGoesAwayMidwayUploadsWhatWasRecorded) {
  // A camera whose pictures end after two seconds of a ten-second recording.
  const CommandResult result = nembra::testing::runCommand(
      argv({"--camera", "lavfi:testsrc2=size=320x240:rate=30:duration=2", "--mic", "lavfi",
            "--start-delay", "0", "--max-duration", "10", "--quality", "low"}),
      60s);
  ASSERT_EQ(result.exitCode, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr("nembra record: the recording stopped early (camera "
                                       "stopped"));
  std::smatch token;
  ASSERT_TRUE(std::regex_search(result.output, token, std::regex("video token: (\\S+)")))
      << result.output;
  const std::vector<std::string> videos = filesEndingWith(
      scratch_.file("data") + "/media/" + kApp + "/videos/" + token[1].str(), "/video.mp4");
  ASSERT_EQ(videos.size(), 1u) << result.output;
  const Probe uploaded = probe(videos[0]);
  EXPECT_THAT(uploaded.codecs, HasSubstr("h264"));
  EXPECT_NEAR(uploaded.duration, 2.0, 0.3);
}

TEST_F(RecordCommandTest, AFullDiskStopsTheRecordingAndUploadsWhatWasWritten) {
  // The recordings' directory is a 400 KB file system of its own, mounted in a private mount
  // namespace so nothing outside the test sees it.
  if (nembra::testing::runCommand({"unshare", "-Urm", "true"}, 10s).exitCode != 0) {
    GTEST_SKIP() << "no private mount namespace on this machine";
  }
  fs::create_directories(documents());
  std::string line = "mount -t tmpfs -o size=400k tmpfs '" + documents() + "' && exec";
  for (const std::string& arg : argv({"--camera", "lavfi", "--mic", "lavfi", "--start-delay", "0",
                                      "--max-duration", "30", "--quality", "low"})) {
    line += " '" + arg + "'";
  }
  const CommandResult result =
      nembra::testing::runCommand({"unshare", "-Urm", "/bin/sh", "-c", line}, 60s);
  ASSERT_EQ(result.exitCode, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr("the recording stopped early (the disk is full)"));
  std::smatch token;
  ASSERT_TRUE(std::regex_search(result.output, token, std::regex("video token: (\\S+)")))
      << result.output;
  const std::vector<std::string> videos = filesEndingWith(
      scratch_.file("data") + "/media/" + kApp + "/videos/" + token[1].str(), "/video.mp4");
  ASSERT_EQ(videos.size(), 1u) << result.output;
  const Probe uploaded = probe(videos[0]);
  EXPECT_EQ(uploaded.codecs, "h264,aac");
  EXPECT_GT(uploaded.duration, 0.5);
  EXPECT_LT(uploaded.duration, 30.0);
}

TEST_F(RecordCommandTest, ARecordingKilledMidwayIsRecoveredAndPlays) {
  ChildProcessOptions options;
  options.argv = argv({"--camera", "lavfi", "--mic", "lavfi", "--start-delay", "0", "--quality",
                       "low", "--send-immediately"});
  options.stdoutPath = scratch_.file("record.out");
  options.stderrPath = scratch_.file("record.err");
  std::unique_ptr<ChildProcess> child;
  ASSERT_FALSE(ChildProcess::start(options, child));
  std::optional<std::chrono::steady_clock::time_point> started;
  for (int i = 0; i < 200 && !started; ++i) {
    std::this_thread::sleep_for(50ms);
    if (!filesEndingWith(documents(), ".mp4.part").empty())
      started = std::chrono::steady_clock::now();
  }
  ASSERT_TRUE(started) << nembra::testing::readFile(scratch_.file("record.err"));
  std::this_thread::sleep_for(4s);
  const double recorded =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - *started).count();
  child->signal(SIGKILL);
  child->wait(5s);

  const CommandResult recovered = nembra::testing::runCommand(argv({"--recover"}), 60s);
  ASSERT_EQ(recovered.exitCode, 0) << recovered.output;
  std::smatch path;
  ASSERT_TRUE(std::regex_search(recovered.output, path, std::regex("recovered: (\\S+)")))
      << recovered.output;
  const Probe file = probe(path[1].str());
  EXPECT_EQ(file.codecs, "h264,aac");
  EXPECT_GE(file.duration, recorded - 1.0);
  EXPECT_TRUE(filesEndingWith(documents(), ".part").empty());
  // It plays: every frame decodes.
  const CommandResult decoded = nembra::testing::runCommand(
      {"ffmpeg", "-v", "error", "-i", path[1].str(), "-f", "null", "-"});
  EXPECT_EQ(decoded.exitCode, 0) << decoded.output;
  EXPECT_EQ(decoded.output, "");
}

TEST_F(RecordCommandTest, LiveModeStreamsToTheIngestAndSubmits) {
  nembra::testing::ServeProcess::Options options;
  std::unique_ptr<nembra::testing::ServeProcess> service;
  ASSERT_NO_FATAL_FAILURE(startWithIngest("live-data", options, service));
  const CommandResult result = nembra::testing::runCommand(
      commandLine(service->baseUrl(),
                  "rtmp://127.0.0.1:" + std::to_string(options.rtmpPort) + "/record/_definst_",
                  {"--live", "--camera", "lavfi", "--mic", "lavfi", "--start-delay", "0",
                   "--max-duration", "4", "--quality", "low"},
                  scratch_.file("home")),
      120s);
  ASSERT_EQ(result.exitCode, 0) << result.output;
  std::smatch token;
  ASSERT_TRUE(std::regex_search(result.output, token, std::regex("video token: (\\S+)")))
      << result.output;
  // The submit turned the ingest's recording into the stream's file.
  std::vector<std::string> videos;
  for (int i = 0; i < 100 && videos.empty(); ++i) {
    videos = filesEndingWith(options.dataDir + "/media/" + kApp + "/videos/" + token[1].str(),
                             "/video.mp4");
    if (videos.empty()) std::this_thread::sleep_for(100ms);
  }
  ASSERT_EQ(videos.size(), 1u) << service->output();
  const Probe streamed = probe(videos[0]);
  EXPECT_THAT(streamed.codecs, HasSubstr("h264"));
  EXPECT_THAT(streamed.codecs, HasSubstr("aac"));
  EXPECT_GT(streamed.duration, 1.5);
}

TEST_F(RecordCommandTest, AnIngestThatDropsMidStreamEndsWithTheErrorAlert) {
  nembra::testing::ServeProcess::Options serve;
  std::unique_ptr<nembra::testing::ServeProcess> service;
  ASSERT_NO_FATAL_FAILURE(startWithIngest("drop-data", serve, service));
  ChildProcessOptions options;
  options.argv =
      commandLine(service->baseUrl(),
                  "rtmp://127.0.0.1:" + std::to_string(serve.rtmpPort) + "/record/_definst_",
                  {"--live", "--camera", "lavfi", "--mic", "none", "--start-delay", "0",
                   "--max-duration", "60", "--quality", "low"},
                  scratch_.file("home"));
  options.stdoutPath = scratch_.file("live.out");
  options.stderrPath = scratch_.file("live.err");
  std::unique_ptr<ChildProcess> child;
  ASSERT_FALSE(ChildProcess::start(options, child));
  // Publishing is under way once the ingest has been sent pictures for a moment.
  bool publishing = false;
  for (int i = 0; i < 200 && !publishing; ++i) {
    std::this_thread::sleep_for(50ms);
    publishing = nembra::testing::readFile(scratch_.file("live.out"))
                     .find("publishing successfully started") != std::string::npos;
  }
  ASSERT_TRUE(publishing) << nembra::testing::readFile(scratch_.file("live.err"));
  std::this_thread::sleep_for(1s);
  service->stop(SIGKILL);
  const std::optional<int> code = child->wait(20s);
  ASSERT_TRUE(code) << "the recorder went on streaming into nothing";
  EXPECT_EQ(*code, 1);
  EXPECT_THAT(nembra::testing::readFile(scratch_.file("live.err")),
              HasSubstr("nembra record: Error: the live stream was cut"));
}

TEST_F(RecordCommandTest, AnIngestThatRefusesEndsWithTheErrorAlert) {
  const CommandResult result = nembra::testing::runCommand(
      argv({"--live", "--camera", "lavfi", "--mic", "none", "--start-delay", "0", "--rtmp-url",
            "rtmp://127.0.0.1:" + std::to_string(nembra::testing::freeTcpPort()) +
                "/record/_definst_"}),
      60s);
  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_THAT(result.output, HasSubstr("nembra record: Error: failed to start streaming"));
}

TEST_F(RecordCommandTest, ACameraThatIsNotThereEndsWithTheAlertText) {
  const CommandResult result =
      nembra::testing::runCommand(argv({"--camera", "/dev/video-none", "--mic", "none"}), 60s);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("nembra record: Unable to capture media"));
}

TEST_F(RecordCommandTest, ACameraNodeThatMayNotBeOpenedIsNamedInTheRefusal) {
  // A node nobody may open. Root opens anything: the command then runs as nobody.
  std::vector<std::string> prefix;
  if (::geteuid() == 0) {
    const std::optional<std::string> setpriv = nembra::testing::findProgram("setpriv");
    if (!setpriv) GTEST_SKIP() << "running as root without setpriv";
    prefix = {*setpriv, "--reuid=65534", "--regid=65534", "--clear-groups"};
  }
  const std::string open = scratch_.file("open");
  fs::create_directories(open);
  fs::permissions(open, fs::perms::all);
  fs::permissions(scratch_.path(),
                  fs::perms::owner_all | fs::perms::others_exec | fs::perms::group_exec);
  const std::string node = open + "/video9";
  std::ofstream(node) << "";
  fs::permissions(node, fs::perms::none);
  std::vector<std::string> args = prefix;
  for (const std::string& arg :
       commandLine(service_->baseUrl(), "", {"--camera", node, "--mic", "none"}, open + "/home")) {
    args.push_back(arg);
  }
  const CommandResult result = nembra::testing::runCommand(args, 60s);
  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_THAT(result.output, HasSubstr("nembra record: AVCam doesn't have permission to use the "
                                       "camera, please change privacy settings (permission "
                                       "denied on " +
                                       node + ")"));
}

TEST_F(RecordCommandTest, AMicrophoneThatCannotOpenEndsWithTheReason) {
  const CommandResult result =
      nembra::testing::runCommand(argv({"--camera", "lavfi", "--mic", "alsa:no-such-card"}), 60s);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("nembra record: no microphone"));
}

TEST_F(RecordCommandTest, AnUnreachableServiceFailsTheUploadAndKeepsTheRecording) {
  const int port = nembra::testing::freeTcpPort();
  // No --send-immediately: the preview and the cover choice are answered for the user.
  const std::vector<std::string> args =
      commandLine("http://127.0.0.1:" + std::to_string(port), "",
                  {"--camera", "lavfi", "--mic", "none", "--start-delay", "0", "--max-duration",
                   "1", "--cover-shot", "--quality", "low"},
                  scratch_.file("home"));
  const CommandResult result = nembra::testing::runCommand(args, 60s);
  ASSERT_EQ(result.exitCode, 1) << result.output;
  EXPECT_THAT(result.output, HasSubstr("nembra record: upload failed: service unreachable at "
                                       "127.0.0.1:" +
                                       std::to_string(port)));
  std::smatch kept;
  ASSERT_TRUE(std::regex_search(result.output, kept, std::regex("the recording is kept at (\\S+)")))
      << result.output;
  const Probe recording = probe(kept[1].str());
  EXPECT_THAT(recording.codecs, HasSubstr("h264"));
  EXPECT_GT(recording.duration, 0.5);
}

}  // namespace
}  // namespace nembra
