// Media transfer against `nembra serve` run as a child: every type uploaded, confirmed, read,
// listed, downloaded byte for byte and deleted through the SDK; the lost-connection actions with
// the service cutting uploads; reachability holding a transfer; a `nembra upload` killed with
// SIGKILL mid-transfer and finished by `nembra upload --resume`; and the CLI's media commands.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "api/reachability.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_audios.h"
#include "nembra/nembra_connect.h"
#include "nembra/nembra_images.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/nembra_videos.h"
#include "platform/files/file_system.h"
#include "platform/media/media_log.h"
#include "platform/media/media_sample_writer.h"
#include "platform/media/testing/media_test_files.h"
#include "platform/net/testing/fake_network_interfaces.h"
#include "platform/system/child_process.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::readFile;
using testing::runCommand;
using testing::ServeProcess;
using testing::TempDir;

constexpr const char* kApp = "app1";
// The encoders' own chatter would bury the test output.
[[maybe_unused]] const bool kQuietMedia = [] {
  setMediaLogLevel(MediaLogLevel::Errors);
  return true;
}();

std::unique_ptr<ServeProcess> startService(const std::string& dataDir,
                                           std::vector<std::string> extraArgs = {}) {
  ServeProcess::Options options;
  options.dataDir = dataDir;
  options.extraArgs = std::move(extraArgs);
  std::string error;
  auto service = ServeProcess::start(options, error);
  EXPECT_TRUE(service) << error;
  return service;
}

// Patterned bytes that a broken transfer could not reproduce by accident.
void writeBytes(const std::string& path, size_t size) {
  std::ofstream out(path, std::ios::binary);
  for (size_t i = 0; i < size; ++i) out.put(static_cast<char>((i * 131 + i / 7) % 251));
}

// A playable video of about 3.5 MB per second: noise does not compress, so a throttled service
// takes a while to receive it.
std::string noisyVideo(testing::MediaTestFiles& files, const std::string& name, double seconds) {
  return files.make(
      name, {"-f",       "lavfi",
             "-i",       "testsrc2=size=320x240:rate=25:duration=" + std::to_string(seconds),
             "-f",       "lavfi",
             "-i",       "sine=duration=" + std::to_string(seconds),
             "-vf",      "noise=alls=60:allf=t",
             "-c:v",     "libx264",
             "-preset",  "ultrafast",
             "-pix_fmt", "yuv420p",
             "-qp",      "0",
             "-c:a",     "aac"});
}

// The SDK in this process, talking to the service, with its uploading delegate recorded.
class Sdk {
 public:
  Sdk(const std::string& home, const std::string& baseUrl) {
    FileSystem::shared().setRoot(home);
    nembra_ = std::make_unique<Nembra>(kApp, main_);
    nembra_->config().useSingleServer(baseUrl);
    nembra_->setUploadingDelegate(delegate_);
    reachability_->setInterfaceSource(network_);
    reachability_->setNotificationCenter(center_);
    nembra_->uploadingHandler().setReachability(reachability_, center_);
    delegate_->uploadVerifiedWithPath =
        [this](const std::string&, const std::string& token, const std::string&,
               const HttpResponse&, const OptionalError& error, const std::optional<Json>&) {
          verified.push_back(error ? "error: " + error->message : token);
        };
    delegate_->errorWithInfo = [this](const std::optional<Json>&, const Error& error,
                                      int32_t action) {
      transferErrors.push_back(std::to_string(action) + " " + error.message);
    };
    delegate_->errorWithError = [this](const Error& error) { urlErrors.push_back(error.message); };
    delegate_->uploadProgressWithPath = [this](const std::string&, const std::string&,
                                               const std::string&, int64_t sent,
                                               int64_t) { lastSent = sent; };
  }
  ~Sdk() { nembra_.reset(); }

  Nembra& nembra() { return *nembra_; }
  bool pump(const std::function<bool()>& done, std::chrono::milliseconds timeout = 60s) {
    return main_.runUntil(done, timeout);
  }

  // Uploads and waits for the verification; the media token, or "" on failure.
  std::string upload(int type, const std::string& path) {
    size_t before = verified.size() + transferErrors.size() + urlErrors.size();
    nembra_->uploadingHandler().uploadWithType(type, path, Json{{"title", "transfer test"}});
    pump([&] { return verified.size() + transferErrors.size() + urlErrors.size() > before; });
    if (verified.size() == 0 || verified.back().rfind("error", 0) == 0) return "";
    return verified.back();
  }

  std::optional<std::string> download(int type, const std::string& token) {
    std::optional<std::string> path;
    bool done = false;
    nembra_->uploadingHandler().downloadWithType(
        type, token, [&](const std::optional<std::string>& p, const OptionalError& error) {
          EXPECT_FALSE(error) << error->message;
          path = p;
          done = true;
        });
    pump([&] { return done; });
    return path;
  }

  void setNetwork(bool up) {
    network_->change(up ? NetworkSnapshot{FakeNetworkInterfaces::wired()} : NetworkSnapshot{});
  }

  std::vector<std::string> verified;
  std::vector<std::string> transferErrors;
  std::vector<std::string> urlErrors;
  int64_t lastSent = 0;

 private:
  MainQueue main_;
  NotificationCenter center_{main_};
  std::shared_ptr<FakeNetworkInterfaces> network_ =
      std::make_shared<FakeNetworkInterfaces>(NetworkSnapshot{FakeNetworkInterfaces::wired()});
  std::shared_ptr<Reachability> reachability_ = Reachability::reachabilityForInternetConnection();
  std::shared_ptr<NembraUploadingDelegate> delegate_ = std::make_shared<NembraUploadingDelegate>();
  std::unique_ptr<Nembra> nembra_;
};

// ---- Each type end to end ---------------------------------------------------------------

struct TypeCase {
  const char* name;
  int type;
  const char* file;
};

class EndToEndTest : public ::testing::TestWithParam<TypeCase> {};

TEST_P(EndToEndTest, UploadConfirmGetListDownloadDelete) {
  const TypeCase& c = GetParam();
  TempDir scratch;
  auto service = startService(scratch.file("data"));
  ASSERT_TRUE(service);
  std::string source = scratch.file(c.file);
  OptionalError made = c.type == VIDEO   ? MediaSampleWriter::writeVideo(source, 1.0, 320, 240)
                       : c.type == AUDIO ? MediaSampleWriter::writeAudio(source, 1.0)
                                         : MediaSampleWriter::writePicture(source, 320, 240);
  ASSERT_FALSE(made) << made->message;
  const std::string original = readFile(source);
  std::string handed = scratch.file(std::string("handed-") + c.file);
  fs::copy_file(source, handed);

  Sdk sdk(scratch.file("home"), service->baseUrl());
  std::string token = sdk.upload(c.type, handed);
  ASSERT_FALSE(token.empty()) << ::testing::PrintToString(sdk.transferErrors)
                              << ::testing::PrintToString(sdk.urlErrors) << service->output();
  EXPECT_FALSE(fs::exists(handed)) << "deleted once confirmed";

  // Get and list through the endpoints' models.
  std::string title;
  std::vector<std::string> listed;
  int answers = 0;
  auto noteTitle = [&](const ContentModel& model, const OptionalError& error) {
    EXPECT_FALSE(error) << error->message;
    title = model.title;
    ++answers;
  };
  auto noteList = [&](const std::vector<std::string>& tokens, const OptionalError& error) {
    EXPECT_FALSE(error) << error->message;
    listed = tokens;
    ++answers;
  };
  auto tokensOf = [](const auto& models) {
    std::vector<std::string> tokens;
    for (const auto& m : models) tokens.push_back(m.token);
    return tokens;
  };
  Nembra& nembra = sdk.nembra();
  if (c.type == VIDEO) {
    nembra.videos().get(
        token, nullptr,
        [&](const Video& v, const HttpResponse&, const OptionalError& e) { noteTitle(v, e); });
    nembra.videos().index(Json::object(),
                          [&](const std::vector<Video>& all, const HttpResponse&,
                              const OptionalError& e) { noteList(tokensOf(all), e); });
  } else if (c.type == AUDIO) {
    nembra.audios().get(
        token, nullptr,
        [&](const Audio& a, const HttpResponse&, const OptionalError& e) { noteTitle(a, e); });
    nembra.audios().index(Json::object(),
                          [&](const std::vector<Audio>& all, const HttpResponse&,
                              const OptionalError& e) { noteList(tokensOf(all), e); });
  } else {
    nembra.images().get(
        token, nullptr,
        [&](const Image& i, const HttpResponse&, const OptionalError& e) { noteTitle(i, e); });
    nembra.images().index(Json::object(),
                          [&](const std::vector<Image>& all, const HttpResponse&,
                              const OptionalError& e) { noteList(tokensOf(all), e); });
  }
  ASSERT_TRUE(sdk.pump([&] { return answers == 2; }));
  EXPECT_EQ(title, "transfer test");
  EXPECT_EQ(listed, std::vector<std::string>{token});

  auto downloaded = sdk.download(c.type, token);
  ASSERT_TRUE(downloaded);
  EXPECT_TRUE(readFile(*downloaded) == original) << "the download differs from the upload";

  std::atomic<int> status = 0;
  nembra.uploadingHandler().deleteWithType(c.type, token, "",
                                           [&](const std::optional<Json>&, const HttpResponse& r,
                                               const OptionalError&) { status = r.status; });
  ASSERT_TRUE(sdk.pump([&] { return status != 0; }));
  EXPECT_EQ(status, 200);
  std::atomic<int> after = 0;
  nembra.uploadingHandler().getWithType(c.type, token, nullptr,
                                        [&](const std::optional<Json>&, const HttpResponse& r,
                                            const OptionalError&) { after = r.status; });
  ASSERT_TRUE(sdk.pump([&] { return after != 0; }));
  EXPECT_EQ(after, 404);
}

INSTANTIATE_TEST_SUITE_P(Types, EndToEndTest,
                         ::testing::Values(TypeCase{"Video", VIDEO, "clip.mp4"},
                                           TypeCase{"Audio", AUDIO, "tone.aac"},
                                           TypeCase{"Image", IMAGE, "still.jpg"}),
                         [](const auto& info) { return info.param.name; });

// ---- Lost connection --------------------------------------------------------------------

struct CutCase {
  const char* name;
  int32_t action;
  bool fileKept;
  size_t attempts;
};

class CutUploadTest : public ::testing::TestWithParam<CutCase> {};

TEST_P(CutUploadTest, ActsOnTheServiceCuttingTheTransfer) {
  const CutCase& c = GetParam();
  TempDir scratch;
  auto service = startService(scratch.file("data"), {"--cut-upload-after", "20000"});
  ASSERT_TRUE(service);
  std::string file = scratch.file("cut.mp4");
  writeBytes(file, 200000);
  Sdk sdk(scratch.file("home"), service->baseUrl());
  sdk.nembra().uploadingConfig().setLostConnectionAction(c.action);
  // The second new attempt would come 400 ms after the first: past the checks below.
  sdk.nembra().uploadingHandler().setReloadDelay(200ms);
  EXPECT_EQ(sdk.upload(VIDEO, file), "");
  ASSERT_TRUE(sdk.pump([&] { return sdk.transferErrors.size() == c.attempts; }));
  sdk.pump([] { return false; }, 300ms);
  EXPECT_EQ(sdk.transferErrors.size(), c.attempts);
  EXPECT_EQ(sdk.transferErrors.back().substr(0, 3), std::to_string(c.action));
  EXPECT_TRUE(sdk.verified.empty());
  EXPECT_EQ(fs::exists(file), c.fileKept);
  sdk.nembra().uploadingConfig().setShouldTurnOffUploader(true);
}

INSTANTIATE_TEST_SUITE_P(
    Actions, CutUploadTest,
    ::testing::Values(CutCase{"Continue", UPLOADING_ERROR_ACTION_CONTINUE_UPLOADING_MEDIA, true, 1},
                      CutCase{"Reload", UPLOADING_ERROR_ACTION_RELOAD_MEDIA, true, 2},
                      CutCase{"Notify", UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION, true, 1},
                      CutCase{"Delete", UPLOADING_ERROR_ACTION_DELETE_MEDIA, false, 1}),
    [](const auto& info) { return info.param.name; });

// ---- Reachability -----------------------------------------------------------------------

TEST(ReachabilityTransferTest, ANetworkLossHoldsTheTransferUntilItReturns) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  TempDir scratch;
  testing::MediaTestFiles media;
  // About 1.7 MB at 300 kB/s: several seconds of transfer to interrupt.
  auto service = startService(scratch.file("data"), {"--throttle", "300000"});
  ASSERT_TRUE(service);
  std::string file = noisyVideo(media, "slow.mp4", 0.5);
  ASSERT_FALSE(file.empty());
  const std::string original = readFile(file);
  Sdk sdk(scratch.file("home"), service->baseUrl());
  sdk.nembra().uploadingHandler().uploadWithType(VIDEO, file, Json::object());
  ASSERT_TRUE(sdk.pump([&] { return sdk.lastSent > 200000; }));

  sdk.setNetwork(false);
  sdk.pump([] { return false; }, 500ms);  // what was in flight drains
  int64_t held = sdk.lastSent;
  sdk.pump([] { return false; }, 1500ms);
  EXPECT_EQ(sdk.lastSent, held) << "nothing is sent while the network is gone";
  EXPECT_TRUE(sdk.verified.empty());

  sdk.setNetwork(true);
  ASSERT_TRUE(sdk.pump([&] { return !sdk.verified.empty(); }));
  ASSERT_EQ(sdk.verified.size(), 1u);
  ASSERT_EQ(sdk.verified[0].rfind("error", 0), std::string::npos) << sdk.verified[0];
  auto downloaded = sdk.download(VIDEO, sdk.verified[0]);
  ASSERT_TRUE(downloaded);
  EXPECT_TRUE(readFile(*downloaded) == original);
}

// ---- Surviving the process --------------------------------------------------------------

// Killed with SIGKILL at one step of the flow, once the --debug log shows the step under way
// (the service slowed enough that the step is still running), then finished by
// `nembra upload --resume`.
struct KillCase {
  const char* name;
  std::vector<std::string> serviceArgs;
  const char* stepLine;  // the log text that says the step has begun
  std::chrono::milliseconds settle;
  // Videos on the service at the end: the ready one, and for a kill while the service was
  // creating the video, the empty one whose answer never reached the client.
  size_t videosAtMost;
};

class KillTrialTest : public ::testing::TestWithParam<KillCase> {};

TEST_P(KillTrialTest, AnUploadKilledAtThisStepIsFinishedByALaterRunWithOneReadyVideo) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  const KillCase& c = GetParam();
  TempDir scratch;
  testing::MediaTestFiles media;
  auto service = startService(scratch.file("data"), c.serviceArgs);
  ASSERT_TRUE(service);
  std::string file = scratch.file("long take.mp4");
  std::string made = noisyVideo(media, "take.mp4", 0.5);
  ASSERT_FALSE(made.empty());
  fs::copy_file(made, file);
  const std::string original = readFile(file);
  const std::string home = scratch.file("home");

  ChildProcessOptions options;
  options.argv = {NEMBRA_CLI_PATH, "--server", service->baseUrl(), "--token", kApp, "--debug",
                  "upload",        file};
  options.environment = {"NEMBRA_HOME=" + home};
  options.stdoutPath = scratch.file("first.log");
  options.stderrPath = scratch.file("first.err");
  std::unique_ptr<ChildProcess> child;
  ASSERT_FALSE(ChildProcess::start(options, child));
  bool begun = false;
  for (int i = 0; i < 1500 && !begun; ++i) {
    std::this_thread::sleep_for(20ms);
    begun = readFile(scratch.file("first.err")).find(c.stepLine) != std::string::npos;
  }
  ASSERT_TRUE(begun) << readFile(scratch.file("first.err"));
  std::this_thread::sleep_for(c.settle);
  child->signal(SIGKILL);
  ASSERT_TRUE(child->wait(10s));
  EXPECT_TRUE(fs::exists(file)) << "the user's file is never the SDK's to delete";

  ChildProcessOptions second = options;
  second.argv = {NEMBRA_CLI_PATH, "--server", service->baseUrl(), "--token", kApp,
                 "upload",        "--resume"};
  second.stdoutPath = scratch.file("second.log");
  second.stderrPath = scratch.file("second.err");
  std::unique_ptr<ChildProcess> again;
  ASSERT_FALSE(ChildProcess::start(second, again));
  auto code = again->wait(120s);
  ASSERT_TRUE(code);
  EXPECT_EQ(*code, 0) << readFile(scratch.file("second.err"));
  std::string out = readFile(scratch.file("second.log"));
  std::string token = out.substr(0, out.find('\t'));
  ASSERT_FALSE(token.empty()) << out;
  EXPECT_NE(out.find("\t" + file), std::string::npos) << "names the user's file: " << out;

  Sdk sdk(scratch.file("checker"), service->baseUrl());
  auto downloaded = sdk.download(VIDEO, token);
  ASSERT_TRUE(downloaded);
  EXPECT_TRUE(readFile(*downloaded) == original) << "the finished upload is the whole file";
  EXPECT_TRUE(fs::exists(file));
  const std::string journal = home + "/State/uploads/" + kApp;
  EXPECT_TRUE(fs::is_empty(journal)) << "nothing is left to resume";
  std::error_code ec;
  for (fs::recursive_directory_iterator it(home, ec), end; !ec && it != end; it.increment(ec)) {
    EXPECT_NE(it->path().filename().string().rfind("upload-", 0), 0u)
        << "left behind: " << it->path();
  }

  auto listed = runCommand({"/usr/bin/env", "NEMBRA_HOME=" + home, NEMBRA_CLI_PATH, "--server",
                            service->baseUrl(), "--token", kApp, "videos", "list", "--json"});
  ASSERT_EQ(listed.exitCode, 0) << listed.output;
  const Json videos = Json::parse(listed.output.substr(listed.output.find('[')), nullptr, false);
  ASSERT_TRUE(videos.is_array()) << listed.output;
  size_t ready = 0;
  for (const Json& video : videos) ready += video.value("state_string", "") == "ready";
  EXPECT_EQ(ready, 1u) << listed.output;
  EXPECT_LE(videos.size(), c.videosAtMost) << listed.output;
}

INSTANTIATE_TEST_SUITE_P(
    Steps, KillTrialTest,
    ::testing::Values(
        KillCase{"UploadUrlRequest", {"--latency-ms", "1500"}, "videos-upload-url?", 500ms, 2},
        KillCase{
            "StorageTransfer", {"--throttle", "400000"}, "background request from file", 700ms, 1},
        KillCase{"Confirm", {"--latency-ms", "1500"}, "confirm-video", 500ms, 1}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- The CLI ----------------------------------------------------------------------------

TEST(MediaCommandsTest, UploadListDownloadAndCacheFromTheCommandLine) {
  TempDir scratch;
  auto service = startService(scratch.file("data"));
  ASSERT_TRUE(service);
  std::string video = scratch.file("a clip.mp4");
  std::string image = scratch.file("still.jpg");
  ASSERT_FALSE(MediaSampleWriter::writeVideo(video, 0.5, 160, 120));
  ASSERT_FALSE(MediaSampleWriter::writePicture(image, 160, 120));
  const std::string home = "NEMBRA_HOME=" + scratch.file("home");
  auto cli = [&](std::vector<std::string> args) {
    std::vector<std::string> argv = {
        "/usr/bin/env", home, NEMBRA_CLI_PATH, "--server", service->baseUrl(), "--token", kApp};
    argv.insert(argv.end(), args.begin(), args.end());
    return runCommand(argv, 120s);
  };

  // An application with nothing yet lists nothing, successfully; a missing video is the
  // service's 404, read from the answer's status.
  auto none = cli({"videos", "list", "--json"});
  EXPECT_EQ(none.exitCode, 0) << none.output;
  EXPECT_NE(none.output.find("[]"), std::string::npos) << none.output;
  auto absent = cli({"videos", "get", "nosuchvideo"});
  EXPECT_EQ(absent.exitCode, 1);
  EXPECT_NE(absent.output.find("the get request answered HTTP 404"), std::string::npos)
      << absent.output;

  auto uploaded = cli({"upload", video, image, "--extra", "title=from cli"});
  ASSERT_EQ(uploaded.exitCode, 0) << uploaded.output;
  EXPECT_TRUE(fs::exists(video) && fs::exists(image)) << "the user's files stay";
  std::string videoToken;
  std::istringstream lines(uploaded.output);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("\t" + video) != std::string::npos) videoToken = line.substr(0, line.find('\t'));
  }
  ASSERT_FALSE(videoToken.empty()) << uploaded.output;

  // Global options may come after the subcommand too.
  auto listed = cli({"videos", "list", "--json"});
  ASSERT_EQ(listed.exitCode, 0) << listed.output;
  EXPECT_NE(listed.output.find("\"from cli\""), std::string::npos) << listed.output;

  std::string copy = scratch.file("copy.mp4");
  auto downloaded = cli({"videos", "download", videoToken, "-o", copy});
  ASSERT_EQ(downloaded.exitCode, 0) << downloaded.output;
  EXPECT_TRUE(readFile(copy) == readFile(video));

  auto cached = cli({"cache", "ls", "--type", "video"});
  EXPECT_EQ(cached.exitCode, 0);
  EXPECT_NE(cached.output.find(videoToken + ".mp4"), std::string::npos) << cached.output;

  auto missing = cli({"upload", scratch.file("nothing.mp4")});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.output.find("no such file"), std::string::npos) << missing.output;
  // Errors name the user's file, not the link the command hands the SDK.
  const std::string empty = scratch.file("empty file.mp4");
  std::ofstream(empty).close();
  auto refused = cli({"upload", empty});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.output.find("cannot upload " + empty + ": the file is empty"),
            std::string::npos)
      << refused.output;
  auto unsafe = cli({"videos", "get", "../secret"});
  EXPECT_EQ(unsafe.exitCode, 1);
  EXPECT_NE(unsafe.output.find("not a valid token"), std::string::npos) << unsafe.output;
}

}  // namespace
}  // namespace nembra
