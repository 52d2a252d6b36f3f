// Contract tests of the local media service: driven with plain HTTP as the SDK formats its
// requests, with the SDK's own connection class, with curl as an independent client, with
// ffmpeg publishing over RTMP, and as the `nembra serve` process scripts run.
#include "service/local_service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "api/percent_encoding.h"
#include "nembra/application.h"
#include "nembra/nembra_connect.h"
#include "platform/media/media_probe.h"
#include "platform/media/testing/media_test_files.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using testing::findProgram;
using testing::readFile;
using testing::runCommand;
using testing::TempDir;
using testing::writeFile;

constexpr const char* kApp = "app1";
const std::string kSessionKey = std::string("k3v9qd72mx0wzr5hub81tnea") + kApp;

// "name=value&" pairs, values encoded as the SDK encodes them.
std::string sdkForm(const std::vector<std::pair<std::string, std::string>>& params) {
  std::string text;
  for (const auto& [name, value] : params) {
    text += name + "=" + percentEncode(value, PercentEncodingSet::UrlQueryAllowed) + "&";
  }
  return text;
}

Json parse(const std::string& body) { return Json::parse(body, nullptr, false); }

// Sends |request| to 127.0.0.1:|port| byte for byte, closes the sending side, and returns all
// the server answers until it closes the connection: what no HTTP library would send.
std::string rawExchange(int port, const std::string& request) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return "";
  timeval timeout{20, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    ::shutdown(fd, SHUT_WR);
    char buffer[4096];
    for (ssize_t got; (got = ::recv(fd, buffer, sizeof(buffer), 0)) > 0;)
      answer.append(buffer, got);
  }
  ::close(fd);
  return answer;
}

// The status codes of the answers in |raw|, in order (interim ones included).
std::vector<int> statusCodes(const std::string& raw) {
  std::vector<int> codes;
  for (size_t at = 0; at < raw.size(); at = raw.find('\n', at) + 1) {
    if (raw.compare(at, 9, "HTTP/1.1 ") == 0) codes.push_back(std::atoi(raw.c_str() + at + 9));
    if (raw.find('\n', at) == std::string::npos) break;
  }
  return codes;
}

// An answer, or status 0 when none came: a failed exchange fails the test's expectations
// instead of crashing the binary.
struct Reply {
  httplib::Response response;
  bool received = false;
  const httplib::Response* operator->() const { return &response; }
  explicit operator bool() const { return received; }
};

Reply reply(httplib::Result result) {
  Reply answer;
  answer.response.status = 0;
  if (result) {
    answer.response = *result;
    answer.received = true;
  }
  return answer;
}

class LocalServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    startService();
  }

  void startService(ServiceOptions options = {}) {
    service_.reset();
    options.port = 0;
    options.rtmpPort = options.rtmpPort == 1935 ? 0 : options.rtmpPort;
    if (options.dataDir.empty()) options.dataDir = data_.path();
    service_ = std::make_unique<LocalService>(options, [this](const std::string& line) {
      std::lock_guard lock(logMutex_);
      log_ += line + "\n";
    });
    auto error = service_->start();
    ASSERT_FALSE(error) << error->message;
    client_ = std::make_unique<httplib::Client>("127.0.0.1", service_->port());
    client_->set_read_timeout(60, 0);
  }

  std::string base() const { return service_->urls().base; }

  std::string openSession() {
    auto answer = reply(client_->Post("/session"));
    EXPECT_TRUE(answer && answer->status == 200);
    return parse(answer->body)["token"];
  }

  std::vector<std::pair<std::string, std::string>> withSession(
      std::vector<std::pair<std::string, std::string>> params = {}) {
    if (session_.empty()) session_ = openSession();
    params.emplace_back(kSessionKey, session_);
    return params;
  }

  Reply get(const std::string& path, std::vector<std::pair<std::string, std::string>> params = {},
            httplib::Headers headers = {}) {
    return reply(client_->Get(path + "?" + sdkForm(withSession(std::move(params))), headers));
  }
  Reply post(const std::string& path,
             std::vector<std::pair<std::string, std::string>> params = {}) {
    return reply(client_->Post(path, sdkForm(withSession(std::move(params))),
                               "application/x-www-form-urlencoded"));
  }
  Reply del(const std::string& path) {
    return reply(client_->Delete(path + "?" + sdkForm(withSession())));
  }

  static std::string videos() { return std::string("/v1/applications/") + kApp + "/videos"; }

  std::string logText() {
    std::lock_guard lock(logMutex_);
    return log_;
  }

  TempDir data_{"nembra-service"};
  testing::MediaTestFiles media_;
  // Before the service: its threads may log until it is gone.
  std::mutex logMutex_;
  std::string log_;
  std::unique_ptr<LocalService> service_;
  std::unique_ptr<httplib::Client> client_;
  std::string session_;
};

// ----- Session and authentication -------------------------------------------------------------

TEST_F(LocalServiceTest, EveryCallButTheSessionNeedsTheSessionOfItsApplication) {
  auto bare = reply(client_->Get(videos()));
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->status, 401);
  EXPECT_EQ(parse(bare->body)["status"], 401);
  EXPECT_EQ(bare->get_header_value("Content-Type"), "application/json; charset=utf-8");

  std::string session = openSession();
  auto otherApp = reply(client_->Get(videos() + "?k3v9qd72mx0wzr5hub81tneaapp2=" + session + "&"));
  EXPECT_EQ(otherApp->status, 401);
  auto forged = reply(client_->Get(videos() + "?" + kSessionKey + "=0123&"));
  EXPECT_EQ(forged->status, 401);
  // The SDK's own shape: the session, a trailing "&", auth tokens recorded.
  auto listed = reply(
      client_->Get(videos() + "?" + kSessionKey + "=" + session + "&client_auth=c&server_auth=s&"));
  ASSERT_EQ(listed->status, 200);
  EXPECT_TRUE(parse(listed->body).is_array());
}

TEST_F(LocalServiceTest, WithAnAllowListOnlyThoseApplicationsAreServed) {
  ServiceOptions options;
  options.tokens = {"other"};
  startService(options);
  auto refused = get(videos());
  EXPECT_EQ(refused->status, 401);
  EXPECT_NE(parse(refused->body)["message"].get<std::string>().find("not served"),
            std::string::npos);
}

// ----- Videos over REST -----------------------------------------------------------------------

TEST_F(LocalServiceTest, VideosAreCreatedListedUpdatedAndDeleted) {
  std::vector<std::string> tokens;
  for (int i = 0; i < 3; ++i) {
    auto created =
        reply(client_->Post(videos() + "?create_stream=true",
                            sdkForm(withSession({{"title", "clip " + std::to_string(i)}})),
                            "application/x-www-form-urlencoded"));
    ASSERT_EQ(created->status, 200) << created->body;
    Json body = parse(created->body);
    EXPECT_EQ(body["stream"]["video_token"], body["video"]["token"]);
    EXPECT_EQ(body["video"]["state_string"], "created");
    tokens.push_back(body["video"]["token"]);
  }
  auto page = get(videos(), {{"limit", "2"}, {"offset", "1"}});
  ASSERT_EQ(page->status, 200);
  Json list = parse(page->body);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0]["token"], tokens[1]);  // newest first
  EXPECT_EQ(list[1]["token"], tokens[0]);
  EXPECT_EQ(get(videos(), {{"limit", "0"}})->status, 400);
  EXPECT_EQ(get(videos(), {{"offset", "-1"}})->status, 400);

  // An update posts the model back whole, booleans as "1"/"0" and nulls as "<null>".
  const std::string v = tokens[2];
  auto updated = post(videos() + "/" + v, {{"token", "forged"},
                                           {"title", "renamed + moved"},
                                           {"tags", "[\"a\",\"b c\"]"},
                                           {"enforce_duration", "1"},
                                           {"device_info", "{\"os\":\"Linux\"}"},
                                           {"expiration_days", "<null>"},
                                           {"state", "3"}});
  ASSERT_EQ(updated->status, 200) << updated->body;
  Json video = parse(get(videos() + "/" + v)->body);
  EXPECT_EQ(video["token"], v);
  EXPECT_EQ(video["title"], "renamed + moved");  // "+" stays a plus
  EXPECT_EQ(video["tags"], Json({"a", "b c"}));
  EXPECT_EQ(video["enforce_duration"], "true");
  EXPECT_EQ(video["device_info"]["os"], "Linux");
  EXPECT_EQ(video["state"], 0);
  EXPECT_EQ(post(videos() + "/" + v, {{"max_duration", "long"}})->status, 400);

  std::string stream = video["streams"][0]["token"];
  auto second = post(videos() + "/" + v + "/streams?create_stream=true");
  ASSERT_EQ(second->status, 200);
  EXPECT_EQ(parse(get(videos() + "/" + v)->body)["streams"].size(), 2u);
  EXPECT_EQ(del(videos() + "/" + v + "/streams/" + stream)->status, 200);
  EXPECT_EQ(parse(get(videos() + "/" + v)->body)["streams"].size(), 1u);
  EXPECT_EQ(del(videos() + "/" + v)->status, 200);
  EXPECT_EQ(get(videos() + "/" + v)->status, 404);
  EXPECT_EQ(del(videos() + "/" + v)->status, 404);
}

TEST_F(LocalServiceTest, RecorderFlowAttachesCoverAndFileThenSubmits) {
  std::string file = media_.video("rec.mp4", "640x360", 1.5);
  std::string cover =
      media_.make("cover.jpg", {"-f", "lavfi", "-i", "color=red:size=160x90", "-frames:v", "1"});
  ASSERT_FALSE(file.empty());
  ASSERT_FALSE(cover.empty());
  Json created = parse(post(videos() + "?create_stream=true")->body);
  std::string v = created["video"]["token"], s = created["stream"]["token"];
  std::string streamPath = videos() + "/" + v + "/streams/" + s;

  EXPECT_EQ(post(streamPath + "/recordersubmit")->status, 409);  // no file yet

  // The cover goes raw, with the SDK's form content type and its parameters in the query.
  auto coverReply = reply(client_->Post(streamPath + "/imageattach?" + sdkForm(withSession()),
                                        readFile(cover), "application/x-www-form-urlencoded"));
  ASSERT_EQ(coverReply->status, 200) << coverReply->body;
  auto notJpeg = reply(client_->Post(streamPath + "/imageattach?" + sdkForm(withSession()),
                                     "GIF89a....", "application/x-www-form-urlencoded"));
  EXPECT_EQ(notJpeg->status, 415);

  // The file goes as the SDK's multipart body, written by the SDK's own body writer.
  std::ifstream in(file, std::ios::binary);
  std::ostringstream body;
  NembraConnect::createBodyWithBoundaryStreamed(NembraConnect::kMultipartBoundary, in, body,
                                                "video.mp4");
  auto attached = reply(client_->Post(
      streamPath + "/videoattach?" + sdkForm(withSession()), body.str(),
      std::string("multipart/form-data; boundary=") + NembraConnect::kMultipartBoundary));
  ASSERT_EQ(attached->status, 200) << attached->body;
  Json video = parse(attached->body);
  EXPECT_EQ(video["state_string"], "uploaded");
  EXPECT_EQ(video["default_stream"]["video_width"], 640);
  EXPECT_EQ(video["default_stream"]["has_audio"], "true");
  EXPECT_NEAR(video["duration"].get<double>(), 1.5, 0.1);

  auto submitted = post(streamPath + "/recordersubmit");
  ASSERT_EQ(submitted->status, 200);
  EXPECT_EQ(parse(submitted->body)["state_string"], "ready");
  EXPECT_EQ(post(streamPath + "/recordersubmit")->status, 409);

  // The CDN serves the stored file byte for byte and the chosen cover, not a grabbed one.
  httplib::Client cdn("127.0.0.1", service_->port());
  auto mp4 =
      reply(cdn.Get("/cdn/v1/applications/" + std::string(kApp) + "/videos/" + v + "/video.mp4"));
  ASSERT_EQ(mp4->status, 200);
  EXPECT_EQ(mp4->body, readFile(file));
  auto image = get(videos() + "/" + v + "/image");
  ASSERT_EQ(image->status, 200);
  EXPECT_EQ(image->body, readFile(cover));
  // The host-less description the SDK asks for, and the submit path it names uploads with.
  auto described = reply(client_->Get("/videos/" + v + "?" + sdkForm(withSession())));
  ASSERT_EQ(described->status, 200);
  EXPECT_EQ(parse(described->body)["original_stream"]["token"], s);
}

TEST_F(LocalServiceTest, TheSdkConnectionTalksToTheService) {
  MainQueue mainQueue;
  Nembra nembra(kApp, mainQueue);
  nembra.config().useSingleServer(base());
  NembraConnect& connect = nembra.connect();
  auto call = [](auto start) {
    auto done = std::make_shared<std::promise<std::pair<std::optional<Json>, int>>>();
    start([done](const std::optional<Json>& json, const HttpResponse& response,
                 const OptionalError&) {
      done->set_value({json, response.status});
    });
    auto future = done->get_future();
    EXPECT_EQ(future.wait_for(30s), std::future_status::ready);
    return future.get();
  };
  auto [created, status] = call([&](auto callback) {
    connect.postJsonWithPath(base() + videos() + "?create_stream=true",
                             Json{{"title", "from the SDK"}, {"volatile", true}}, callback);
  });
  ASSERT_EQ(status, 200);
  ASSERT_TRUE(created);
  std::string v = (*created)["video"]["token"], s = (*created)["stream"]["token"];
  EXPECT_EQ((*created)["video"]["title"], "from the SDK");
  EXPECT_EQ((*created)["video"]["volatile"], "true");

  // The recorder's background upload, exactly as the SDK sends it.
  std::string file = media_.video("sdk.mp4", "320x240", 1.0);
  auto uploaded = std::make_shared<std::promise<int>>();
  connect.backgroundUploadWithPath(
      base() + videos() + "/" + v + "/streams/" + s + "/videoattach", Json::object(),
      "/videos/" + v + "/streams/" + s + "/recordersubmit", file,
      [uploaded](const NembraConnect::Bytes&, const HttpResponse& response, const OptionalError&) {
        uploaded->set_value(response.status);
      },
      nullptr);
  auto uploadedFuture = uploaded->get_future();
  ASSERT_EQ(uploadedFuture.wait_for(60s), std::future_status::ready);
  EXPECT_EQ(uploadedFuture.get(), 200);

  auto [fetched, fetchStatus] = call([&](auto callback) {
    connect.getJsonWithPath(base() + videos() + "/" + v, Json::object(), callback);
  });
  ASSERT_EQ(fetchStatus, 200);
  EXPECT_EQ((*fetched)["state_string"], "uploaded");
  EXPECT_EQ((*fetched)["default_stream"]["video_height"], 240);

  // The SDK's error report, with a quote that breaks its unescaped JSON, is kept as sent.
  nembra.logError("it said \"no\" & left");
  Json events;
  for (int i = 0; i < 100 && events.empty(); ++i) {
    auto [listed, listStatus] = call([&](auto callback) {
      connect.getJsonArrayWithPath("/debugger", Json::object(), callback);
    });
    if (listed && !listed->empty()) events = *listed;
    std::this_thread::sleep_for(50ms);
  }
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events[0]["valid_json"], "false");
  EXPECT_NE(events[0]["raw"].get<std::string>().find("it said \"no\" & left"), std::string::npos);
}

// ----- Storage uploads ------------------------------------------------------------------------

class StorageUploadTest : public LocalServiceTest {
 protected:
  void SetUp() override {
    LocalServiceTest::SetUp();
    if (IsSkipped()) return;
    curl_ = findProgram("curl");
    if (!curl_) GTEST_SKIP() << "curl is not installed";
  }

  // A browser-style POST of |fields| (in order) and the file, by curl.
  // |curlOptions| go before the form.
  testing::CommandResult curlUpload(const Json& urlData, const std::string& file,
                                    const std::string& mime,
                                    std::function<void(std::vector<std::string>&)> edit = {},
                                    const std::vector<std::string>& curlOptions = {}) {
    std::vector<std::string> argv = {*curl_, "-sS", "-o", "-", "-w", "\n%{http_code}"};
    argv.insert(argv.end(), curlOptions.begin(), curlOptions.end());
    std::vector<std::string> form;
    for (const auto& [name, value] : urlData["fields"].items()) {
      form.push_back(name + "=" + value.get<std::string>());
    }
    if (edit) edit(form);
    for (const auto& field : form) argv.insert(argv.end(), {"--form-string", field});
    argv.insert(argv.end(), {"-F", "file=@" + file + ";type=" + mime});
    argv.push_back(urlData["url"]);
    return runCommand(argv);
  }

  static int httpCode(const testing::CommandResult& result) {
    return std::atoi(result.output.substr(result.output.rfind('\n') + 1).c_str());
  }

  std::optional<std::string> curl_;
};

TEST_F(StorageUploadTest, BrowserStylePolicyUploadThenConfirm) {
  std::string file = media_.video("upload.mp4", "480x270", 1.0);
  auto requested = post(videos() + "/videos-upload-url?create_stream=true");
  ASSERT_EQ(requested->status, 200) << requested->body;
  Json body = parse(requested->body);
  std::string v = body["video"]["token"], s = body["stream"]["token"];
  Json urlData = body["url_data"];
  std::vector<std::string> names;
  for (const auto& [name, value] : urlData["fields"].items()) names.push_back(name);
  EXPECT_EQ(names, (std::vector<std::string>{"key", "Content-Type", "bucket", "X-Amz-Algorithm",
                                             "X-Amz-Credential", "X-Amz-Date",
                                             "X-Amz-Security-Token", "Policy", "X-Amz-Signature"}));
  std::string confirm = videos() + "/" + v + "/streams/" + s + "/confirm-video";
  EXPECT_EQ(post(confirm)->status, 409);  // nothing arrived yet

  auto stored = curlUpload(urlData, file, "video/mp4");
  ASSERT_EQ(httpCode(stored), 204) << stored.output;
  auto confirmed = post(confirm);
  ASSERT_EQ(confirmed->status, 200) << confirmed->body;
  EXPECT_EQ(parse(confirmed->body)["state_string"], "ready");
  EXPECT_EQ(parse(confirmed->body)["default_stream"]["video_width"], 480);
  EXPECT_EQ(post(confirm)->status, 409);  // confirmed once only

  httplib::Client cdn("127.0.0.1", service_->port());
  auto served = reply(cdn.Get("/cdn/v1/applications/app1/videos/" + v + "/video.mp4"));
  EXPECT_EQ(served->body, readFile(file));
  // A grabbed cover exists since the client sent none.
  EXPECT_EQ(reply(cdn.Get("/cdn/v1/applications/app1/videos/" + v + "/image"))->status, 200);
}

TEST_F(StorageUploadTest, TamperedFormsAreRefusedWithS3Errors) {
  std::string file = media_.video("t.mp4", "64x48", 0.4, false);
  Json urlData = parse(post(videos() + "/videos-upload-url?create_stream=true")->body)["url_data"];
  struct Case {
    const char* what;
    std::function<void(std::vector<std::string>&)> edit;
    int status;
    const char* code;
  };
  std::vector<Case> cases = {
      {"another key",
       [](auto& form) { form[0] = "key=applications/app1/videos/../../../etc/passwd"; }, 403,
       "AccessDenied"},
      {"edited policy", [](auto& form) { form[7].insert(form[7].size() - 2, "A"); }, 403,
       "SignatureDoesNotMatch"},
      {"extra field", [](auto& form) { form.push_back("acl=public-read"); }, 403, "AccessDenied"},
      {"no signature", [](auto& form) { form.pop_back(); }, 403, "AccessDenied"},
  };
  for (const auto& c : cases) {
    auto result = curlUpload(urlData, file, "video/mp4", c.edit);
    EXPECT_EQ(httpCode(result), c.status) << c.what << ": " << result.output;
    EXPECT_NE(result.output.find(std::string("<Code>") + c.code + "</Code>"), std::string::npos)
        << c.what << ": " << result.output;
  }
  // Nothing was stored by any of them.
  for (const auto& entry : fs::recursive_directory_iterator(data_.path() + "/media")) {
    EXPECT_FALSE(entry.is_regular_file()) << entry.path();
  }
  EXPECT_TRUE(fs::is_empty(data_.path() + "/tmp"));
}

TEST_F(StorageUploadTest, AudioAndImageUploadsGoToTheDevBaseAndTheFileServer) {
  struct Case {
    std::string kind, file, mime, fileName;
  };
  std::vector<Case> cases = {
      {"audio", media_.make("a.aac", {"-f", "lavfi", "-i", "sine=duration=1", "-c:a", "aac"}),
       "audio/wav", "audio.aac"},
      {"image",
       media_.make("i.jpg", {"-f", "lavfi", "-i", "testsrc2=size=96x64", "-frames:v", "1"}),
       "image/png", "image.jpg"},
  };
  for (const auto& c : cases) {
    std::string collection = "/embed/v1/applications/app1/" + c.kind + "s";
    Json body = parse(post(collection)->body);
    ASSERT_TRUE(body.contains(c.kind + "_stream")) << body.dump();
    std::string token = body[c.kind]["token"];
    auto stored = curlUpload(body["url_data"], c.file, c.mime);
    ASSERT_EQ(httpCode(stored), 204) << stored.output;
    auto confirmed = post(collection + "/" + token + "/confirm");
    ASSERT_EQ(confirmed->status, 200) << confirmed->body;
    EXPECT_EQ(parse(confirmed->body)["state_string"], "ready");
    // A single item comes back under its kind's key.
    Json fetched = parse(get(collection + "/" + token)->body);
    EXPECT_EQ(fetched[c.kind]["token"], token);
    httplib::Client files("127.0.0.1", service_->port());
    auto served =
        reply(files.Get("/files/v1/applications/app1/" + c.kind + "s/" + token + "/" + c.fileName));
    ASSERT_EQ(served->status, 200);
    EXPECT_EQ(served->body, readFile(c.file));
  }
}

TEST_F(StorageUploadTest, SdkUploadWithTheSignedFieldsIsAccepted) {
  MainQueue mainQueue;
  Nembra nembra(kApp, mainQueue);
  nembra.config().useSingleServer(base());
  Json urlData = parse(post(videos() + "/videos-upload-url?create_stream=true")->body)["url_data"];
  std::string file = media_.video("sdk-upload.mp4", "128x96", 0.5);
  auto done = std::make_shared<std::promise<int>>();
  nembra.connect().uploadFileWithPath(
      urlData["url"], urlData["fields"], "/videos/x/streams/y/video_submit", file, "file",
      "video/mp4", "mp4",
      [done](const NembraConnect::Bytes&, const HttpResponse& response, const OptionalError&) {
        done->set_value(response.status);
      },
      nullptr);
  auto future = done->get_future();
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  EXPECT_EQ(future.get(), 204);
}

// A file of |size| random bytes: it compresses to nothing and hides no boundary by chance.
std::string randomFile(const TempDir& dir, const std::string& name, size_t size) {
  std::string bytes(size, '\0');
  std::mt19937_64 random(size);
  for (auto& c : bytes) c = static_cast<char>(random());
  std::string path = dir.file(name);
  writeFile(path, bytes);
  return path;
}

// The media files stored under |dataDir| (the upload spool's directory left aside).
std::vector<fs::path> storedFiles(const std::string& dataDir) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(dataDir + "/media")) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  return files;
}

TEST_F(StorageUploadTest, TheStorageUrlIsTheStorageEndpointsOwnPort) {
  Json urlData = parse(post(videos() + "/videos-upload-url?create_stream=true")->body)["url_data"];
  std::string expected =
      "http://127.0.0.1:" + std::to_string(service_->storagePort()) + "/storage/nembra-media";
  EXPECT_EQ(urlData["url"], expected);
  EXPECT_EQ(service_->urls().storage, expected);
  EXPECT_NE(service_->storagePort(), service_->port());
  // One storage endpoint only: the API's port has none.
  EXPECT_EQ(reply(client_->Post("/storage/nembra-media", "x", "text/plain"))->status, 404);
}

TEST_F(StorageUploadTest, LargeFileWithExpectContinueByCurl) {
  TempDir scratch("nembra-storage-large");
  const size_t size = 48u << 20;
  std::string file = randomFile(scratch, "large.bin", size);
  Json urlData = parse(post(videos() + "/videos-upload-url?create_stream=true")->body)["url_data"];
  // The answers' heads go to the output too, the interim one included.
  auto stored =
      curlUpload(urlData, file, "video/mp4", {}, {"-D", "-", "-H", "Expect: 100-continue"});
  ASSERT_EQ(httpCode(stored), 204) << stored.output;
  EXPECT_EQ(stored.output.find("HTTP/1.1 100 Continue\r\n"), 0u) << stored.output;
  auto files = storedFiles(data_.path());
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(fs::file_size(files[0]), size);
  EXPECT_TRUE(readFile(files[0].string()) == readFile(file)) << "the stored bytes differ";
  EXPECT_TRUE(fs::is_empty(data_.path() + "/tmp"));
}

TEST_F(StorageUploadTest, ChunkedBodiesAreAcceptedByteExact) {
  TempDir scratch("nembra-storage-chunked");
  std::string file = randomFile(scratch, "chunked.bin", 3u << 20);
  Json urlData = parse(post(videos() + "/videos-upload-url?create_stream=true")->body)["url_data"];
  auto stored = curlUpload(urlData, file, "video/mp4", {}, {"-H", "Transfer-Encoding: chunked"});
  ASSERT_EQ(httpCode(stored), 204) << stored.output;
  auto files = storedFiles(data_.path());
  ASSERT_EQ(files.size(), 1u);
  EXPECT_TRUE(readFile(files[0].string()) == readFile(file)) << "the stored bytes differ";
}

TEST_F(StorageUploadTest, UploadsLargerThanTheLimitAreRefusedBeforeTheirBody) {
  ServiceOptions options;
  options.maxUploadBytes = 256 * 1024;
  startService(options);
  session_.clear();
  TempDir scratch("nembra-storage-limit");
  std::string file = randomFile(scratch, "big.bin", 4u << 20);
  Json urlData = parse(post(videos() + "/videos-upload-url?create_stream=true")->body)["url_data"];
  // Declared too large: refused at once; curl, waiting to continue, never sends the file.
  auto declared = curlUpload(urlData, file, "video/mp4");
  EXPECT_EQ(httpCode(declared), 400) << declared.output;
  EXPECT_NE(declared.output.find("<Code>EntityTooLarge</Code>"), std::string::npos)
      << declared.output;
  // Undeclared (chunked): refused as the file passes the limit.
  auto undeclared =
      curlUpload(urlData, file, "video/mp4", {}, {"-H", "Transfer-Encoding: chunked"});
  EXPECT_EQ(httpCode(undeclared), 400) << undeclared.output;
  EXPECT_NE(undeclared.output.find("<Code>EntityTooLarge</Code>"), std::string::npos)
      << undeclared.output;
  EXPECT_TRUE(storedFiles(data_.path()).empty());
  EXPECT_TRUE(fs::is_empty(data_.path() + "/tmp"));
}

TEST_F(StorageUploadTest, ACutUploadLosesItsConnectionAndStoresNothing) {
  ServiceOptions options;
  options.faults.cutUploadAfter = 64 * 1024;
  startService(options);
  session_.clear();
  TempDir scratch("nembra-storage-cut");
  std::string file = randomFile(scratch, "cut.bin", 1u << 20);
  Json body = parse(post(videos() + "/videos-upload-url?create_stream=true")->body);
  auto cut = curlUpload(body["url_data"], file, "video/mp4");
  EXPECT_NE(cut.exitCode, 0) << cut.output;
  EXPECT_NE(httpCode(cut), 204) << cut.output;
  EXPECT_TRUE(storedFiles(data_.path()).empty());
  EXPECT_TRUE(fs::is_empty(data_.path() + "/tmp"));
  std::string confirm = videos() + "/" + body["video"]["token"].get<std::string>() + "/streams/" +
                        body["stream"]["token"].get<std::string>() + "/confirm-video";
  EXPECT_EQ(post(confirm)->status, 409);  // nothing arrived
}

TEST_F(StorageUploadTest, InjectedFailuresAnswerSlowDown) {
  ServiceOptions options;
  options.faults.failRate = 1.0;
  startService(options);
  std::string answer = rawExchange(service_->storagePort(),
                                   "POST /storage/nembra-media HTTP/1.1\r\nHost: h\r\n"
                                   "Content-Type: multipart/form-data; boundary=b\r\n"
                                   "Content-Length: 10\r\n\r\n0123456789");
  EXPECT_EQ(statusCodes(answer), std::vector<int>{503}) << answer;
  EXPECT_NE(answer.find("<Code>SlowDown</Code>"), std::string::npos) << answer;
}

TEST_F(StorageUploadTest, TheEndpointAnswersOtherRequestsWithS3Errors) {
  const int port = service_->storagePort();
  struct Case {
    const char* what;
    std::string request;
    int status;
    const char* code;
  };
  std::vector<Case> cases = {
      {"GET", "GET /storage/nembra-media HTTP/1.1\r\nHost: h\r\n\r\n", 405, "MethodNotAllowed"},
      {"PUT", "PUT /storage/nembra-media/key HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\n\r\nx",
       404, "NoSuchKey"},
      {"other path", "POST /videos HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\n\r\n", 404,
       "NoSuchKey"},
      {"other bucket",
       "POST /storage/other HTTP/1.1\r\nHost: h\r\nContent-Type: multipart/form-data; "
       "boundary=b\r\nContent-Length: 4\r\n\r\n--b-",
       404, "NoSuchBucket"},
      {"not multipart",
       "POST /storage/nembra-media HTTP/1.1\r\nHost: h\r\nContent-Type: text/plain\r\n"
       "Content-Length: 2\r\n\r\nhi",
       400, "MalformedPOSTRequest"},
      {"broken multipart",
       "POST /storage/nembra-media HTTP/1.1\r\nHost: h\r\nContent-Type: multipart/form-data; "
       "boundary=b\r\nContent-Length: 12\r\n\r\nno delimiter",
       400, "MalformedPOSTRequest"},
      {"short body",
       "POST /storage/nembra-media HTTP/1.1\r\nHost: h\r\nContent-Type: multipart/form-data; "
       "boundary=b\r\nContent-Length: 100\r\n\r\n--b\r\n",
       400, "IncompleteBody"},
      {"garbage", "\x16\x03\x01\x02\xff nonsense\r\n\r\n", 400, "BadRequest"},
      {"no Host", "POST /storage/nembra-media HTTP/1.1\r\n\r\n", 400, "BadRequest"},
      {"huge head", "GET / HTTP/1.1\r\nX: " + std::string(20000, 'a') + "\r\n\r\n", 431,
       "RequestHeaderSectionTooLarge"},
      {"broken chunk size",
       "POST /storage/nembra-media HTTP/1.1\r\nHost: h\r\nContent-Type: multipart/form-data; "
       "boundary=b\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
       400, "IncompleteBody"},
  };
  for (const auto& c : cases) {
    std::string answer = rawExchange(port, c.request);
    EXPECT_EQ(statusCodes(answer), std::vector<int>{c.status}) << c.what << ": " << answer;
    EXPECT_NE(answer.find(std::string("<Code>") + c.code + "</Code>"), std::string::npos)
        << c.what << ": " << answer;
    EXPECT_NE(answer.find("Content-Type: application/xml"), std::string::npos) << c.what;
  }
  EXPECT_TRUE(fs::is_empty(data_.path() + "/tmp"));
}

TEST_F(StorageUploadTest, OneConnectionCarriesSeveralUploads) {
  std::string file = media_.video("keepalive.mp4", "64x48", 0.4, false);
  std::string request;
  const std::string boundary = "nembra-test-boundary";
  for (int i = 0; i < 2; ++i) {
    Json urlData =
        parse(post(videos() + "/videos-upload-url?create_stream=true")->body)["url_data"];
    std::string body;
    for (const auto& [name, value] : urlData["fields"].items()) {
      body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name +
              "\"\r\n\r\n" + value.get<std::string>() + "\r\n";
    }
    body += "--" + boundary +
            "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"v.mp4\"\r\n"
            "Content-Type: video/mp4\r\n\r\n" +
            readFile(file) + "\r\n--" + boundary + "--\r\n";
    request +=
        "POST /storage/nembra-media HTTP/1.1\r\nHost: h\r\nContent-Type: "
        "multipart/form-data; boundary=" +
        boundary + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }
  // Both requests in one go: the second is read from what followed the first body.
  std::string answer = rawExchange(service_->storagePort(), request);
  EXPECT_EQ(statusCodes(answer), (std::vector<int>{204, 204})) << answer;
  auto stored = storedFiles(data_.path());
  EXPECT_EQ(std::count_if(stored.begin(), stored.end(),
                          [&](const fs::path& path) { return readFile(path) == readFile(file); }),
            2);
}

TEST_F(LocalServiceTest, ListenersTakeABurstOfConnections) {
  auto ss = findProgram("ss");
  if (!ss) GTEST_SKIP() << "ss is not installed";
  // A listening socket's Send-Q is its backlog.
  for (int port : {service_->port(), service_->storagePort()}) {
    auto listed = runCommand({*ss, "-ltnH", "sport = :" + std::to_string(port)});
    ASSERT_EQ(listed.exitCode, 0) << listed.output;
    std::istringstream fields(listed.output);
    std::string state, receiveQueue;
    int backlog = 0;
    fields >> state >> receiveQueue >> backlog;
    EXPECT_GE(backlog, 128) << port << ": " << listed.output;
  }
}

// ----- CDN ------------------------------------------------------------------------------------

TEST_F(LocalServiceTest, CdnAnswersRangesByteExactWithValidators) {
  std::string file = media_.video("cdn.mp4", "320x240", 1.0);
  Json created = parse(post(videos() + "?create_stream=true")->body);
  std::string v = created["video"]["token"], s = created["stream"]["token"];
  std::ifstream in(file, std::ios::binary);
  std::ostringstream body;
  NembraConnect::createBodyWithBoundaryStreamed(NembraConnect::kMultipartBoundary, in, body,
                                                "video.mp4");
  ASSERT_EQ(
      client_
          ->Post(videos() + "/" + v + "/streams/" + s + "/videoattach?" + sdkForm(withSession()),
                 body.str(),
                 std::string("multipart/form-data; boundary=") + NembraConnect::kMultipartBoundary)
          ->status,
      200);
  const std::string content = readFile(file);
  const size_t size = content.size();
  const std::string url = "/cdn/v1/applications/app1/videos/" + v + "/video.mp4";
  httplib::Client cdn("127.0.0.1", service_->port());

  struct RangeCase {
    std::string header;
    int status;
    size_t first, length;
  };
  std::vector<RangeCase> cases = {
      {"bytes=0-99", 206, 0, 100},
      {"bytes=100-", 206, 100, size - 100},
      {"bytes=-50", 206, size - 50, 50},
      {"bytes=10-" + std::to_string(size * 2), 206, 10, size - 10},
      {"bytes=" + std::to_string(size) + "-", 416, 0, 0},
      {"bytes=50-10", 416, 0, 0},
      {"bytes=0-1,4-5", 200, 0, size},
  };
  for (const auto& c : cases) {
    auto answer = reply(cdn.Get(url, {{"Range", c.header}}));
    ASSERT_TRUE(answer) << c.header;
    EXPECT_EQ(answer->status, c.status) << c.header;
    if (c.status == 416) {
      // A backwards range is refused by the HTTP layer before the file is looked up.
      if (c.header != "bytes=50-10") {
        EXPECT_EQ(answer->get_header_value("Content-Range"), "bytes */" + std::to_string(size));
      }
      continue;
    }
    EXPECT_EQ(answer->body, content.substr(c.first, c.length)) << c.header;
    if (c.status == 206) {
      EXPECT_EQ(answer->get_header_value("Content-Range"),
                "bytes " + std::to_string(c.first) + "-" + std::to_string(c.first + c.length - 1) +
                    "/" + std::to_string(size));
    }
  }

  auto head = reply(cdn.Head(url));
  ASSERT_EQ(head->status, 200);
  EXPECT_EQ(head->get_header_value("Content-Length"), std::to_string(size));
  EXPECT_TRUE(head->body.empty());
  EXPECT_EQ(head->get_header_value("Cache-Control"), "public, max-age=3600");
  std::string etag = head->get_header_value("ETag");
  ASSERT_FALSE(etag.empty());
  EXPECT_EQ(reply(cdn.Get(url, {{"If-None-Match", "\"other\", " + etag}}))->status, 304);
  EXPECT_EQ(reply(cdn.Get(url, {{"If-None-Match", "W/" + etag}}))->status, 304);
  EXPECT_EQ(
      reply(cdn.Get(url, {{"If-Modified-Since", head->get_header_value("Last-Modified")}}))->status,
      304);
  // A stale validator in If-Range gets the whole, current file.
  auto stale = reply(cdn.Get(url, {{"Range", "bytes=0-9"}, {"If-Range", "\"stale\""}}));
  EXPECT_EQ(stale->status, 200);
  EXPECT_EQ(stale->body.size(), size);

  EXPECT_EQ(reply(cdn.Get("/cdn/v1/applications/app1/videos/nosuch/video.mp4"))->status, 404);
  EXPECT_EQ(reply(cdn.Get("/cdn/v1/applications/other/videos/" + v + "/video.mp4"))->status, 404);
}

// ----- Bad input ------------------------------------------------------------------------------

TEST_F(LocalServiceTest, BadRequestsGetTheirOwn4xxAndChangeNothing) {
  Json created = parse(post(videos() + "?create_stream=true")->body);
  std::string v = created["video"]["token"];
  auto send = [&](const std::string& body, const std::string& type) {
    return reply(client_->Post(videos() + "/" + v + "?" + sdkForm(withSession()), body, type));
  };
  EXPECT_EQ(send("{\"title\": ", "application/json")->status, 400);
  EXPECT_EQ(send("[1,2]", "application/json")->status, 400);
  EXPECT_EQ(send("<title>x</title>", "text/xml")->status, 415);
  EXPECT_EQ(send("title=" + std::string(2 << 20, 'x'), "application/x-www-form-urlencoded")->status,
            413);
  EXPECT_EQ(send("title=%zz", "application/x-www-form-urlencoded")->status, 400);
  auto json = send("{\"title\": \"json works\", \"tags\": [\"t\"]}", "application/json");
  ASSERT_EQ(json->status, 200);
  EXPECT_EQ(parse(json->body)["title"], "json works");
  EXPECT_EQ(parse(get(videos() + "/" + v)->body)["title"], "json works");

  auto noBoundary =
      reply(client_->Post(videos() + "/" + v + "/streams/x/videoattach?" + sdkForm(withSession()),
                          "data", "multipart/form-data"));
  EXPECT_EQ(noBoundary->status, 415);
  auto brokenMultipart = reply(client_->Post(
      videos() + "/" + v + "/streams/" + created["stream"]["token"].get<std::string>() +
          "/videoattach?" + sdkForm(withSession()),
      "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"v.mp4\"\r\n\r\nabc",
      "multipart/form-data; boundary=b"));
  EXPECT_EQ(brokenMultipart->status, 400);
  EXPECT_EQ(reply(client_->Put(videos(), "", "text/plain"))->status, 405);
  EXPECT_EQ(reply(client_->Get("/nothing/here"))->status, 404);
  EXPECT_TRUE(fs::is_empty(data_.path() + "/tmp"));
}

TEST_F(LocalServiceTest, PathTraversalIsRefusedAndNothingLeavesTheDataDirectory) {
  // A data directory inside a scratch directory of its own: other tests' temporary files come
  // and go beside the shared one.
  TempDir box{"nembra-traversal"};
  ServiceOptions options;
  options.dataDir = box.path() + "/data";
  startService(options);
  const fs::path outside = box.path();
  auto before = std::distance(fs::directory_iterator(outside), fs::directory_iterator());
  for (std::string path :
       {"/v1/applications/%2e%2e/videos", "/v1/applications/..%2F..%2Ftmp/videos",
        "/v1/applications/app1/videos/%2e%2e%2f%2e%2e", "/v1/applications/app%00x/videos",
        "/embed/v1/applications/app1/audios/..", "/cdn/v1/applications/../videos/x/video.mp4",
        "/files/v1/applications/app1/images/%2E%2E/image.jpg"}) {
    auto answer = reply(client_->Get(path + "?" + sdkForm(withSession())));
    ASSERT_TRUE(answer) << path;
    EXPECT_TRUE(answer->status == 400 || answer->status == 404) << path << " " << answer->status;
    EXPECT_NE(answer->status, 200) << path;
  }
  auto hostless =
      reply(client_->Get("/debugger?k3v9qd72mx0wzr5hub81tnea..%2F..=" + openSession() + "&"));
  EXPECT_EQ(hostless->status, 401);
  auto after = std::distance(fs::directory_iterator(outside), fs::directory_iterator());
  EXPECT_EQ(before, after);
}

// ----- Persistence ----------------------------------------------------------------------------

TEST_F(LocalServiceTest, RestartKeepsSessionsMediaFilesAndSignedForms) {
  std::string file = media_.video("keep.mp4", "160x120", 0.5);
  Json upload = parse(post(videos() + "/videos-upload-url?create_stream=true")->body);
  Json created = parse(post(videos() + "?create_stream=true", {{"title", "kept"}})->body);
  std::string v = created["video"]["token"], s = created["stream"]["token"];
  std::ifstream in(file, std::ios::binary);
  std::ostringstream body;
  NembraConnect::createBodyWithBoundaryStreamed(NembraConnect::kMultipartBoundary, in, body,
                                                "video.mp4");
  ASSERT_EQ(
      client_
          ->Post(videos() + "/" + v + "/streams/" + s + "/videoattach?" + sdkForm(withSession()),
                 body.str(),
                 std::string("multipart/form-data; boundary=") + NembraConnect::kMultipartBoundary)
          ->status,
      200);

  startService();                          // same data directory, new process state and port
  auto fetched = get(videos() + "/" + v);  // the old session still works
  ASSERT_EQ(fetched->status, 200) << fetched->body;
  EXPECT_EQ(parse(fetched->body)["title"], "kept");
  EXPECT_EQ(parse(fetched->body)["state_string"], "uploaded");
  httplib::Client cdn("127.0.0.1", service_->port());
  EXPECT_EQ(reply(cdn.Get("/cdn/v1/applications/app1/videos/" + v + "/video.mp4"))->body,
            readFile(file));
  // A form signed before the restart still verifies (the secret is kept), though its URL
  // named the old storage port.
  auto curl = findProgram("curl");
  if (!curl) return;
  std::vector<std::string> argv = {*curl, "-sS", "-o", "/dev/null", "-w", "%{http_code}"};
  for (const auto& [name, value] : upload["url_data"]["fields"].items()) {
    argv.insert(argv.end(), {"--form-string", name + "=" + value.get<std::string>()});
  }
  argv.insert(argv.end(), {"-F", "file=@" + file, service_->urls().storage});
  EXPECT_EQ(runCommand(argv).output, "204");
}

// ----- Fault injection ------------------------------------------------------------------------

TEST_F(LocalServiceTest, InjectedFaultsFailCutAndSlowDown) {
  ServiceOptions failing;
  failing.faults.failRate = 1.0;
  startService(failing);
  auto failed = reply(client_->Post("/session"));
  EXPECT_EQ(failed->status, 503);
  EXPECT_EQ(parse(failed->body)["status"], 503);

  ServiceOptions cutting;
  cutting.faults.cutUploadAfter = 64 * 1024;
  cutting.faults.latencyMs = 100;
  startService(cutting);
  session_.clear();
  auto started = std::chrono::steady_clock::now();
  Json created = parse(post(videos() + "?create_stream=true")->body);
  EXPECT_GE(std::chrono::steady_clock::now() - started, 200ms);  // session + create
  std::string v = created["video"]["token"], s = created["stream"]["token"];
  std::string body =
      "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"v.mp4\"\r\n"
      "\r\n" +
      std::string(1 << 20, 'x') + "\r\n--b--\r\n";
  auto cut = reply(
      client_->Post(videos() + "/" + v + "/streams/" + s + "/videoattach?" + sdkForm(withSession()),
                    body, "multipart/form-data; boundary=b"));
  // The client sees the transfer break, not an answer it could read as the service's verdict.
  EXPECT_FALSE(cut) << (cut ? cut->body : "");
  EXPECT_EQ(parse(get(videos() + "/" + v)->body)["state_string"], "created");

  ServiceOptions throttled;
  throttled.faults.throttleBps = 400 * 1024;
  startService(throttled);
  session_.clear();
  std::string file = media_.video("slow.mp4", "320x240", 2.0);
  created = parse(post(videos() + "?create_stream=true")->body);
  v = created["video"]["token"];
  s = created["stream"]["token"];
  std::ifstream in(file, std::ios::binary);
  std::ostringstream multipart;
  NembraConnect::createBodyWithBoundaryStreamed(NembraConnect::kMultipartBoundary, in, multipart,
                                                "video.mp4");
  ASSERT_EQ(
      client_
          ->Post(videos() + "/" + v + "/streams/" + s + "/videoattach?" + sdkForm(withSession()),
                 multipart.str(),
                 std::string("multipart/form-data; boundary=") + NembraConnect::kMultipartBoundary)
          ->status,
      200);
  size_t size = fs::file_size(file);
  started = std::chrono::steady_clock::now();
  auto slow = reply(client_->Get("/cdn/v1/applications/app1/videos/" + v + "/video.mp4"));
  auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  ASSERT_EQ(slow->body.size(), size);
  EXPECT_GE(took, 0.8 * size / (400.0 * 1024)) << size << " bytes in " << took << " s";
}

// ----- RTMP ingest ----------------------------------------------------------------------------

TEST_F(LocalServiceTest, LivePublishIsRecordedAndBecomesTheVideosFile) {
  auto nginx = findProgram("nginx");
  if (!nginx || !fs::exists("/usr/lib/nginx/modules/ngx_rtmp_module.so")) {
    GTEST_SKIP() << "nginx with its RTMP module is not installed";
  }
  ServiceOptions options;
  options.rtmpPort = testing::freeTcpPort();
  // nginx gets its paths from a configuration file: they must survive a space.
  options.dataDir = data_.path() + "/with space";
  startService(options);
  ASSERT_EQ(service_->rtmpPort(), options.rtmpPort) << logText();

  Json created = parse(post(videos() + "?flash_recording=true")->body);
  std::string v = created["video"]["token"], s = created["stream"]["token"];
  // What the recorder builds from the reply: the configured address with "ß", and this name.
  std::string target = service_->urls().rtmp + "\xC3\x9F";
  std::string streamName =
      std::string("applications/") + kApp + "/videos/" + v + "/streams/" + s + "/video.mp4";
  EXPECT_EQ(created["rtmp"]["stream_name"], streamName);
  // The SDK names the application by every path segment but the last: "record".
  const std::string rtmpBase = "rtmp://127.0.0.1:" + std::to_string(options.rtmpPort);
  auto publish = [&](const std::string& name) {
    return runCommand({"ffmpeg",
                       "-hide_banner",
                       "-loglevel",
                       "error",
                       "-re",
                       "-f",
                       "lavfi",
                       "-i",
                       "testsrc2=size=320x240:rate=30",
                       "-f",
                       "lavfi",
                       "-i",
                       "sine",
                       "-t",
                       "3",
                       "-c:v",
                       "libx264",
                       "-preset",
                       "ultrafast",
                       "-g",
                       "30",
                       "-c:a",
                       "aac",
                       "-f",
                       "flv",
                       "-rtmp_app",
                       "record",
                       "-rtmp_playpath",
                       name,
                       "-rtmp_tcurl",
                       rtmpBase + "/record",
                       rtmpBase});
  };
  ASSERT_EQ(target.substr(0, rtmpBase.size()), rtmpBase);

  auto refused = publish("applications/app1/videos/nosuch/streams/x/video.mp4");
  EXPECT_NE(refused.exitCode, 0) << refused.output;

  auto published = publish(streamName);
  ASSERT_EQ(published.exitCode, 0) << published.output << logText();
  // The recorder submits as it stops, whether or not the recording is stored yet.
  ASSERT_EQ(post(videos() + "/" + v + "/streams/" + s + "/recordersubmit")->status, 200);
  Json video;
  for (int i = 0; i < 200; ++i) {
    video = parse(get(videos() + "/" + v)->body);
    if (video["state_string"] == "ready") break;
    std::this_thread::sleep_for(50ms);
  }
  ASSERT_EQ(video["state_string"], "ready") << video.dump() << logText();
  EXPECT_EQ(video["default_stream"]["video_width"], 320);
  EXPECT_NEAR(video["duration"].get<double>(), 3.0, 0.5);

  httplib::Client cdn("127.0.0.1", service_->port());
  auto mp4 = reply(cdn.Get("/cdn/v1/applications/app1/videos/" + v + "/video.mp4"));
  ASSERT_EQ(mp4->status, 200);
  std::string path = data_.file("downloaded.mp4");
  writeFile(path, mp4->body);
  MediaProbeResult probed;
  ASSERT_FALSE(makeMediaProbe()->probe(path, probed));
  EXPECT_EQ(probed.videoCodec, "h264");
  EXPECT_EQ(probed.audioCodec, "aac");
  // A second publish to a stream that holds its recording is refused.
  EXPECT_NE(publish(streamName).exitCode, 0);
}

// ----- The `nembra serve` process -------------------------------------------------------------

TEST(ServeProcessTest, PrintsItsUrlsServesUntilSignalledAndKeepsDataAcrossRestarts) {
  TempDir data("nembra-serve-data");
  std::string error;
  testing::ServeProcess::Options options;
  options.dataDir = data.path();
  auto serve = testing::ServeProcess::start(options, error);
  ASSERT_TRUE(serve) << error;
  std::string output = serve->output();
  EXPECT_NE(output.find("--server    " + serve->baseUrl()), std::string::npos) << output;
  EXPECT_NE(output.find("dev api     " + serve->baseUrl() + "/embed"), std::string::npos);
  EXPECT_NE(output.find("nembra serve: ready on " + serve->baseUrl()), std::string::npos);

  httplib::Client client("127.0.0.1", serve->port());
  std::string session = parse(reply(client.Post("/session"))->body)["token"];
  std::string query = "?" + kSessionKey + "=" + session + "&";
  auto created = reply(client.Post("/v1/applications/app1/videos" + query, "title=persisted&",
                                   "application/x-www-form-urlencoded"));
  ASSERT_EQ(created->status, 200);
  std::string v = parse(created->body)["video"]["token"];
  EXPECT_EQ(serve->stop(SIGTERM), 0);
  EXPECT_NE(serve->output().find("nembra serve: stopped"), std::string::npos);

  auto again = testing::ServeProcess::start(options, error);
  ASSERT_TRUE(again) << error;
  httplib::Client second("127.0.0.1", again->port());
  auto fetched = reply(second.Get("/v1/applications/app1/videos/" + v + query));
  ASSERT_EQ(fetched->status, 200);
  EXPECT_EQ(parse(fetched->body)["title"], "persisted");
  EXPECT_EQ(again->stop(SIGINT), 0);
}

TEST(ServeProcessTest, RefusesToStartOnAPortInUse) {
  TempDir data("nembra-serve-busy");
  std::string error;
  testing::ServeProcess::Options options;
  options.dataDir = data.path();
  auto first = testing::ServeProcess::start(options, error);
  ASSERT_TRUE(first) << error;
  auto busy = runCommand({NEMBRA_CLI_PATH, "serve", "--port", std::to_string(first->port()),
                          "--data", data.file("other"), "--rtmp-port", "0"},
                         20s);
  EXPECT_EQ(busy.exitCode, 1);
  EXPECT_NE(busy.output.find("cannot listen"), std::string::npos) << busy.output;
}

}  // namespace
}  // namespace nembra
