#include "nembra/nembra_connect.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <regex>
#include <sstream>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/http/http_curl_client.h"
#include "platform/http/testing/http_test_support.h"

namespace nembra {
namespace {

using nembra::testing::HttpTestServer;
using nembra::testing::ScratchDirectory;
using nembra::testing::Sha256;
using nembra::testing::writePatternFile;
using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kKey = "k3v9qd72mx0wzr5hub81tneaT";  // the prefix and the token "T"
const std::string kBoundary = "----WebKitFormBoundaryLEjTQVMVbVg9HRYu";

struct Reply {
  int calls = 0;
  std::string data;
  std::optional<Json> json;
  std::optional<std::string> text;
  HttpResponse response;
  OptionalError error;
  std::vector<std::pair<int64_t, int64_t>> progress;

  void store(const std::vector<uint8_t>& bytes) { data.assign(bytes.begin(), bytes.end()); }
  void store(const std::optional<Json>& value) { json = value; }
  void store(const std::optional<std::string>& value) { text = value; }
};

class NembraConnectTest : public ::testing::Test {
 protected:
  NembraConnectTest() {
    nembra_.enableDebugLogs = true;
    nembra_.setLogSink([this](const std::string& line) {
      std::lock_guard lock(logMutex_);
      logs_.push_back(line);
    });
  }

  // The session answers |sessionReply|; every "/v1/..." and "/debugger" request gets |body|.
  void serve(std::string body = "ok", int status = 200,
             std::string sessionReply = R"({"token":"S1"})") {
    server_.on("POST", "/session", [sessionReply](const auto&, auto& reply) {
      reply.set_content(sessionReply, "application/json");
    });
    for (const char* method : {"GET", "POST", "DELETE"}) {
      server_.on(method, "/v1/.*|/debugger", [body, status](const auto&, auto& reply) {
        reply.status = status;
        reply.set_content(body, "application/json");
      });
    }
    start();
  }
  void start() {
    server_.start();
    nembra_.config().server_api_url = server_.url();
  }
  void knowSession() {
    connect().setSessionKey(kKey);
    connect().setSessionValue("S1");
  }

  NembraConnect& connect() {
    if (!connect_) {
      connect_ = std::make_unique<NembraConnect>(
          nembra_, std::make_unique<CurlHttpClient>(CurlHttpClient::Options{}));
    }
    return *connect_;
  }

  // Callbacks hop to the main queue, which the test pumps. Fits every callback shape.
  auto into(std::shared_ptr<Reply> reply) {
    return [this, reply](const auto& result, const HttpResponse& response,
                         const OptionalError& error) {
      main_.async([reply, result, response, error] {
        ++reply->calls;
        reply->store(result);
        reply->response = response;
        reply->error = error;
      });
    };
  }
  NembraConnect::ProgressCallback progressInto(std::shared_ptr<Reply> reply) {
    return [this, reply](int64_t sent, int64_t expected) {
      main_.async([reply, sent, expected] { reply->progress.emplace_back(sent, expected); });
    };
  }

  bool wait(const Reply& reply, seconds timeout = seconds(30)) {
    return main_.runUntil([&] { return reply.calls > 0; }, timeout);
  }
  std::vector<std::string> logs() {
    std::lock_guard lock(logMutex_);
    return logs_;
  }
  bool logged(const std::string& line) {
    auto all = logs();
    return std::find(all.begin(), all.end(), line) != all.end();
  }

  MainQueue main_;
  ScratchDirectory scratch_;
  HttpTestServer server_;
  std::mutex logMutex_;
  std::vector<std::string> logs_;
  Nembra nembra_{"T", main_};
  std::unique_ptr<NembraConnect> connect_;
};

struct QueryCase {
  const char* name;
  const char* method;
  Json data;
  bool tokens;
  std::string target;
  std::string body;
};

class NembraConnectQueryTest : public NembraConnectTest,
                               public ::testing::WithParamInterface<QueryCase> {};

TEST_P(NembraConnectQueryTest, SendsTheCompletedParametersExactly) {
  const QueryCase& c = GetParam();
  serve();
  if (c.tokens) {
    connect().setClientAuthToken("C");
    connect().setServerAuthToken("S");
  }
  auto reply = std::make_shared<Reply>();
  connect().requestWithMethod(c.method, server_.url("/v1/x"), c.data, into(reply));
  ASSERT_TRUE(wait(*reply));

  auto received = server_.requests();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].target, "/session");
  EXPECT_EQ(received[0].body, "");
  EXPECT_EQ(received[0].header("Content-Length"), "0");
  EXPECT_EQ(received[1].method, c.method);
  EXPECT_EQ(received[1].target, c.target);
  EXPECT_EQ(received[1].body, c.body);
  if (std::string(c.method) == "POST") {
    EXPECT_EQ(received[1].header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(received[1].header("Content-Length"), std::to_string(c.body.size()));
  }
  EXPECT_FALSE(reply->error);
  EXPECT_EQ(reply->data, "ok");
}

INSTANTIATE_TEST_SUITE_P(
    Parameters, NembraConnectQueryTest,
    ::testing::Values(
        QueryCase{"NoDataStillCarriesTheSession", "GET", nullptr, false, "/v1/x?" + kKey + "=S1&",
                  ""},
        QueryCase{
            "ValuesEncodedNamesNot",
            "GET",
            {{"a&b=c", "x y/\xC3\xBC&="},
             {"n", 1.5},
             {"t", true},
             {"f", false},
             {"i", -7},
             {"z", nullptr},
             {"arr", {1, "a"}}},
            false,
            "/v1/x?a&b=c=x%20y/%C3%BC&=&n=1.5&t=1&f=0&i=-7&z=%3Cnull%3E&arr=%5B1,%22a%22%5D&" +
                kKey + "=S1&",
            ""},
        QueryCase{"DeleteCarriesTheTokensAfterTheSession",
                  "DELETE",
                  {{"a", "1"}},
                  true,
                  "/v1/x?a=1&" + kKey + "=S1&client_auth=C&server_auth=S&",
                  ""},
        QueryCase{"PostKeepsParametersInTheBodyOnly",
                  "POST",
                  {{"a", "1"}},
                  true,
                  "/v1/x",
                  "a=1&" + kKey + "=S1&client_auth=C&server_auth=S&"},
        QueryCase{"SessionEntryKeepsItsPlace",
                  "GET",
                  {{kKey, "old"}, {"z", "1"}},
                  false,
                  "/v1/x?" + kKey + "=S1&z=1&",
                  ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(NembraConnectTest, SessionIsFetchedOnceAndItsTaskIsReturnedUntilKnown) {
  serve();
  auto first = std::make_shared<Reply>();
  auto firstTask = connect().getWithPath(server_.url("/v1/a"), nullptr, into(first));
  EXPECT_EQ(firstTask->originalRequest().url, server_.url("/session"));
  ASSERT_TRUE(wait(*first));
  auto second = std::make_shared<Reply>();
  auto secondTask = connect().getWithPath(server_.url("/v1/b"), nullptr, into(second));
  EXPECT_EQ(secondTask->originalRequest().url, server_.url("/v1/b?" + kKey + "=S1&"));
  ASSERT_TRUE(wait(*second));

  auto received = server_.requests();
  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(received[0].target, "/session");
  EXPECT_EQ(received[1].target, "/v1/a?" + kKey + "=S1&");
  EXPECT_EQ(received[2].target, "/v1/b?" + kKey + "=S1&");
  EXPECT_EQ(connect().getSessionKey(), kKey);
  EXPECT_EQ(connect().getSessionValue(), "S1");
}

TEST_F(NembraConnectTest, WithoutASessionTheUrlEndsInABareQuestionMarkAndTheNextAsksAgain) {
  serve("ok", 200, "{}");
  for (const char* path : {"/v1/a", "/v1/b"}) {
    auto reply = std::make_shared<Reply>();
    connect().getWithPath(server_.url(path), nullptr, into(reply));
    ASSERT_TRUE(wait(*reply));
  }
  auto received = server_.requests();
  ASSERT_EQ(received.size(), 4u);
  EXPECT_EQ(received[0].target, "/session");
  EXPECT_EQ(received[1].target, "/v1/a?");
  EXPECT_EQ(received[2].target, "/session");
  EXPECT_EQ(received[3].target, "/v1/b?");
  EXPECT_EQ(connect().getSessionKey(), kKey);
  EXPECT_FALSE(connect().getSessionValue());
}

enum class Shape { Json, JsonArray, Text };

struct ShapeCase {
  const char* name;
  Shape shape;
  std::string body;
  int status;
  std::optional<std::string> json;  // as dumped
  std::optional<std::string> text;
  std::optional<ErrorKind> error;
  std::optional<std::string> responeLog;
};

class NembraConnectShapeTest : public NembraConnectTest,
                               public ::testing::WithParamInterface<ShapeCase> {};

TEST_P(NembraConnectShapeTest, ShapesTheReply) {
  const ShapeCase& c = GetParam();
  serve(c.body, c.status);
  knowSession();
  auto reply = std::make_shared<Reply>();
  std::string url = server_.url("/v1/x");
  if (c.shape == Shape::Json) connect().getJsonWithPath(url, nullptr, into(reply));
  if (c.shape == Shape::JsonArray) connect().getJsonArrayWithPath(url, nullptr, into(reply));
  if (c.shape == Shape::Text) connect().getStringWithPath(url, nullptr, into(reply));
  ASSERT_TRUE(wait(*reply));

  EXPECT_EQ(reply->response.status, c.status);
  EXPECT_EQ(reply->json ? std::optional(reply->json->dump()) : std::nullopt, c.json);
  EXPECT_EQ(reply->text, c.text);
  EXPECT_EQ(reply->error ? std::optional(reply->error->kind) : std::nullopt, c.error);
  auto all = logs();
  bool anyRespone = std::any_of(all.begin(), all.end(),
                                [](const auto& line) { return line.rfind("respone: ", 0) == 0; });
  EXPECT_EQ(anyRespone, c.responeLog.has_value());
  if (c.responeLog) {
    EXPECT_TRUE(logged(*c.responeLog));
  }
  EXPECT_EQ(logged("requestJSONWithMethod: " + url), c.shape == Shape::Json);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, NembraConnectShapeTest,
    ::testing::Values(
        ShapeCase{"EmptyObjectIsNoJsonAndNoError", Shape::Json, "{}", 200, {}, {}, {}, {}},
        ShapeCase{"EmptyArrayIsNoJsonAndNoError", Shape::JsonArray, "[]", 200, {}, {}, {}, {}},
        ShapeCase{
            "ErrorStatusIsAnAnswer", Shape::Json, R"({"a":1})", 404, R"({"a":1})", {}, {}, {}},
        ShapeCase{"MalformedJson",
                  Shape::Json,
                  "{nope",
                  200,
                  {},
                  {},
                  ErrorKind::Parse,
                  "respone: {nope\n"},
        ShapeCase{"NonUtf8Json",
                  Shape::Json,
                  "{\"a\":\"\xFF\"}",
                  200,
                  {},
                  {},
                  ErrorKind::Parse,
                  "respone: (null)\n"},
        ShapeCase{"BareNumberIsNotAnObject",
                  Shape::Json,
                  "123",
                  200,
                  {},
                  {},
                  ErrorKind::Parse,
                  "respone: 123\n"},
        ShapeCase{"MalformedArrayIsNotLogged",
                  Shape::JsonArray,
                  "[1,",
                  200,
                  {},
                  {},
                  ErrorKind::Parse,
                  {}},
        ShapeCase{"Utf8Text", Shape::Text, "h\xC3\xA9llo", 200, {}, "h\xC3\xA9llo", {}, {}},
        ShapeCase{
            "NonUtf8TextIsAbsentWithNoError", Shape::Text, "\xFF\xFE\xFD", 200, {}, {}, {}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(NembraConnectTest, LogsTheRequestDumpExactly) {
  serve();
  auto reply = std::make_shared<Reply>();
  std::string url = server_.url("/v1/x");
  connect().postJsonWithPath(url, {{"a", "1"}}, into(reply));
  ASSERT_TRUE(wait(*reply));
  std::string body = "a=1&" + kKey + "=S1&";
  std::vector<std::string> expected = {
      "requestJSONWithMethod: " + url,
      "requestJSONWithMethod: /session",
      "foreground request",
      "request dump: ---REQUEST------------------\nURL: " + server_.url("/session") +
          "\nMETHOD: POST\nContent-Type: application/x-www-form-urlencoded\nContent-Length: "
          "0\nBODY: \n----------------------------\n",
      "foreground request",
      "request dump: ---REQUEST------------------\nURL: " + url +
          "\nMETHOD: POST\nContent-Type: application/x-www-form-urlencoded\nContent-Length: " +
          std::to_string(body.size()) + "\nBODY: " + body + "\n----------------------------\n"};
  EXPECT_EQ(logs(), expected);

  EXPECT_EQ(NembraConnect::formatURLRequest({"GET", "u", {}, std::nullopt}),
            "---REQUEST------------------\nURL: u\nMETHOD: GET\nBODY: (null)\n"
            "----------------------------\n");
  EXPECT_EQ(NembraConnect::formatURLRequest({"POST", "u", {}, std::vector<uint8_t>{'a', 0xE9}}),
            "---REQUEST------------------\nURL: u\nMETHOD: POST\nBODY: (null)\n"
            "----------------------------\n");
}

TEST_F(NembraConnectTest, PostsRawDataWithTheParametersInTheQuery) {
  serve();
  auto reply = std::make_shared<Reply>();
  const std::vector<uint8_t> raw = {'e', 'v', '=', 0, 0xFF, '&'};
  connect().postRawDataWithPath("/debugger", raw, nullptr, into(reply));
  ASSERT_TRUE(wait(*reply));
  auto received = server_.requests();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[1].target, "/debugger?" + kKey + "=S1&");
  EXPECT_EQ(received[1].body, std::string(raw.begin(), raw.end()));
  EXPECT_EQ(received[1].header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(received[1].header("Content-Length"), "6");
}

TEST_F(NembraConnectTest, UploadsAFileAsTheExactMultipartForm) {
  server_.on("POST", "/storage",
             [&](const auto&, auto& reply) { reply.set_content("stored", "text/plain"); });
  start();
  knowSession();
  std::string file = scratch_.path() + "/picture";
  const std::string content("pic\0\xFFture", 9);
  std::ofstream(file, std::ios::binary) << content;

  auto reply = std::make_shared<Reply>();
  auto task = connect().uploadFileWithPath(
      server_.url("/storage"), {{"key", "a/b"}, {"policy", "p"}, {"n", 5}}, "/images/i/submit",
      file, "file", "image/png", "jpg", into(reply), progressInto(reply));
  EXPECT_EQ(task->taskDescription(), "/images/i/submit");
  ASSERT_TRUE(wait(*reply));
  main_.runUntilIdle();

  std::string expected =
      "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"key\"\r\n\r\na/b\r\n--" +
      kBoundary + "\r\nContent-Disposition: form-data; name=\"policy\"\r\n\r\np\r\n--" + kBoundary +
      "\r\nContent-Disposition: form-data; name=\"n\"\r\n\r\n5\r\n--" + kBoundary +
      "\r\nContent-Disposition: form-data; name=\"file\"; "
      "filename=\"file.jpg\";\r\nContent-Type: image/png\r\n\r\n" +
      content + "\r\n--" + kBoundary + "--\r\n";
  auto received = server_.requests();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].target, "/storage?key=a/b&policy=p&n=5&" + kKey + "=S1&");
  EXPECT_EQ(received[0].body, expected);
  EXPECT_EQ(received[0].header("Content-Type"), "multipart/form-data; boundary=" + kBoundary);
  EXPECT_EQ(received[0].header("Content-Length"), std::to_string(expected.size()));

  EXPECT_FALSE(reply->error);
  EXPECT_EQ(reply->response.status, 200);
  EXPECT_EQ(reply->data, "");  // an upload's answer is not read
  ASSERT_FALSE(reply->progress.empty());
  int64_t size = static_cast<int64_t>(expected.size());
  EXPECT_EQ(reply->progress.back(), std::make_pair(size, size));
  std::string id = std::to_string(task->taskIdentifier());
  EXPECT_TRUE(logged("task " + id + " created"));
  EXPECT_TRUE(
      logged("uploading task progress: " + std::to_string(size) + "/" + std::to_string(size)));
  EXPECT_TRUE(logged("task " + id + " complete, error = (null)"));
  EXPECT_EQ(std::filesystem::file_size(file), content.size());
}

TEST_F(NembraConnectTest, BackgroundUploadSendsAHundredMebibytesByteForByte) {
  const std::string path = "/v1/applications/T/videos/abc/videoattach";
  std::mutex mutex;
  std::string receivedHash;
  size_t receivedLength = 0;
  std::string target;
  server_.server().Post(path, [&](const httplib::Request& request, httplib::Response&,
                                  const httplib::ContentReader& reader) {
    Sha256 hash;
    size_t length = 0;
    reader([&](const char* data, size_t n) {
      hash.update(data, n);
      length += n;
      return true;
    });
    std::lock_guard lock(mutex);
    receivedHash = hash.hex();
    receivedLength = length;
    target = request.target;
  });
  start();
  knowSession();
  std::string file = scratch_.path() + "/recording.mp4";
  writePatternFile(file, 100u << 20);

  Sha256 expected;
  std::string head = "--" + kBoundary +
                     "\r\nContent-Disposition: form-data; name=\"file\"; "
                     "filename=\"video.mp4\";\r\nContent-Type: video/mp4\r\n\r\n";
  std::string tail = "\r\n--" + kBoundary + "--\r\n";
  expected.update(head.data(), head.size());
  std::ifstream in(file, std::ios::binary);
  std::vector<char> block(1 << 20);
  while (in.read(block.data(), block.size()) || in.gcount() > 0) {
    expected.update(block.data(), static_cast<size_t>(in.gcount()));
  }
  expected.update(tail.data(), tail.size());

  auto reply = std::make_shared<Reply>();
  connect().backgroundUploadWithPath("/abc/videoattach", nullptr, "id", file, into(reply),
                                     progressInto(reply));
  ASSERT_TRUE(wait(*reply, seconds(240)));
  main_.runUntilIdle();
  ASSERT_FALSE(reply->error) << reply->error->message;
  std::lock_guard lock(mutex);
  EXPECT_EQ(target, path + "?" + kKey + "=S1&");
  EXPECT_EQ(receivedLength, head.size() + (100u << 20) + tail.size());
  EXPECT_EQ(receivedHash, expected.hex());
  EXPECT_EQ(reply->progress.back().first, static_cast<int64_t>(receivedLength));
}

TEST_F(NembraConnectTest, TwoUploadsStartTogetherEachWithItsOwnBody) {
  std::mutex mutex;
  std::condition_variable arrived;
  int inFlight = 0;
  int sawBoth = 0;
  server_.on("POST", "/both", [&](const auto&, auto& reply) {
    std::unique_lock lock(mutex);
    ++inFlight;
    arrived.notify_all();
    if (arrived.wait_for(lock, seconds(10), [&] { return inFlight == 2; })) ++sawBoth;
    reply.set_content("", "text/plain");
  });
  start();
  knowSession();
  std::vector<std::string> contents = {"first file", "the second one"};
  std::vector<std::shared_ptr<Reply>> replies;
  for (size_t i = 0; i < contents.size(); ++i) {
    std::string file = scratch_.path() + "/clip" + std::to_string(i);
    std::ofstream(file) << contents[i];
    replies.push_back(std::make_shared<Reply>());
    connect().backgroundUploadWithPath(server_.url("/both"), nullptr, "id", file,
                                       into(replies.back()), nullptr);
  }
  for (auto& reply : replies) {
    ASSERT_TRUE(wait(*reply));
    EXPECT_FALSE(reply->error);
  }
  EXPECT_EQ(sawBoth, 2);
  std::multiset<std::string> bodies;
  for (const auto& request : server_.requests()) bodies.insert(request.body);
  std::multiset<std::string> expected;
  for (const auto& content : contents) {
    expected.insert("--" + kBoundary +
                    "\r\nContent-Disposition: form-data; name=\"file\"; "
                    "filename=\"video.mp4\";\r\nContent-Type: video/mp4\r\n\r\n" +
                    content + "\r\n--" + kBoundary + "--\r\n");
  }
  EXPECT_EQ(bodies, expected);
}

TEST_F(NembraConnectTest, WakeUpSignalCompletesTheOldestUploadOnce) {
  std::mutex mutex;
  std::condition_variable changed;
  bool entered = false;
  bool release = false;
  server_.on("POST", "/slow", [&](const auto&, auto& reply) {
    std::unique_lock lock(mutex);
    entered = true;
    changed.notify_all();
    changed.wait_for(lock, seconds(20), [&] { return release; });
    reply.set_content("", "text/plain");
  });
  start();
  knowSession();
  std::string file = scratch_.path() + "/clip";
  std::ofstream(file) << "clip";
  auto reply = std::make_shared<Reply>();
  auto task = connect().backgroundUploadWithPath(server_.url("/slow"), nullptr, "id", file,
                                                 into(reply), nullptr);
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, seconds(20), [&] { return entered; }));
  }
  connect().appWakeupSignalTaskComplete("otherSession");
  main_.runUntil([] { return false; }, milliseconds(50));
  EXPECT_EQ(reply->calls, 0);
  connect().appWakeupSignalTaskComplete("uploadingSession");
  ASSERT_TRUE(wait(*reply));
  EXPECT_FALSE(reply->error);
  EXPECT_EQ(reply->data, "");
  {
    std::lock_guard lock(mutex);
    release = true;
    changed.notify_all();
  }
  std::string done = "task " + std::to_string(task->taskIdentifier()) + " complete, error = (null)";
  ASSERT_TRUE(main_.runUntil([&] { return logged(done); }, seconds(20)));
  ASSERT_TRUE(main_.runUntil([&] { return logged("context was not found"); }, seconds(5)));
  main_.runUntilIdle();
  EXPECT_EQ(reply->calls, 1);
}

enum class BadUpload { MissingFile, Directory, NonObjectParameters };

struct BadUploadCase {
  const char* name;
  BadUpload input;
  ErrorKind kind;
  const char* message;
};

class NembraConnectBadUploadTest : public NembraConnectTest,
                                   public ::testing::WithParamInterface<BadUploadCase> {};

TEST_P(NembraConnectBadUploadTest, ReachesTheCallbackAndKeepsTheCallersFile) {
  const BadUploadCase& c = GetParam();
  serve();
  std::string file = scratch_.path() + "/clip.mp4";
  std::ofstream(file) << "clip";
  Json data = nullptr;
  if (c.input == BadUpload::MissingFile) file = scratch_.path() + "/none.mp4";
  if (c.input == BadUpload::Directory) file = scratch_.path();
  if (c.input == BadUpload::NonObjectParameters) data = Json::array({1});
  knowSession();

  auto reply = std::make_shared<Reply>();
  auto task = connect().backgroundUploadWithPath(server_.url("/v1/up"), data, "id", file,
                                                 into(reply), nullptr);
  ASSERT_TRUE(task);
  ASSERT_TRUE(wait(*reply));
  ASSERT_TRUE(reply->error);
  EXPECT_EQ(reply->error->kind, c.kind);
  EXPECT_NE(reply->error->message.find(c.message), std::string::npos) << reply->error->message;
  EXPECT_TRUE(server_.requests().empty());
  if (c.input == BadUpload::NonObjectParameters) {
    EXPECT_EQ(std::filesystem::file_size(file), 4u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, NembraConnectBadUploadTest,
    ::testing::Values(
        BadUploadCase{"MissingFile", BadUpload::MissingFile, ErrorKind::File, "does not exist"},
        BadUploadCase{"Directory", BadUpload::Directory, ErrorKind::File, "is not a regular file"},
        BadUploadCase{"NonObjectParameters", BadUpload::NonObjectParameters,
                      ErrorKind::InvalidArgument, "must be a JSON object"}),
    [](const auto& info) { return std::string(info.param.name); });

struct UnreachableCase {
  const char* name;
  bool refused;  // else an unknown host
  int code;
};

class NembraConnectUnreachableTest : public NembraConnectTest,
                                     public ::testing::WithParamInterface<UnreachableCase> {};

TEST_P(NembraConnectUnreachableTest, TransportErrorReachesTheJsonCallback) {
  const UnreachableCase& c = GetParam();
  std::string base = c.refused ? "http://127.0.0.1:" + std::to_string(HttpTestServer::closedPort())
                               : std::string("http://no-such-host.invalid");
  nembra_.config().server_api_url = base;
  auto reply = std::make_shared<Reply>();
  connect().getJsonWithPath(base + "/v1/x", nullptr, into(reply));
  ASSERT_TRUE(wait(*reply));
  ASSERT_TRUE(reply->error);
  EXPECT_EQ(reply->error->kind, ErrorKind::Transport);
  EXPECT_EQ(reply->error->code, c.code);
  // Named by host and path; whatever the query held stays out of the message.
  EXPECT_NE(reply->error->message.find(base + "/v1/x failed"), std::string::npos)
      << reply->error->message;
  EXPECT_EQ(reply->error->message.find('?'), std::string::npos) << reply->error->message;
  EXPECT_FALSE(reply->json);
  EXPECT_EQ(reply->response.status, 0);
}

INSTANTIATE_TEST_SUITE_P(Failures, NembraConnectUnreachableTest,
                         ::testing::Values(UnreachableCase{"Refused", true, 7},
                                           UnreachableCase{"UnknownHost", false, 6}),
                         [](const auto& info) { return std::string(info.param.name); });

// Records the size of every write it is given.
class WriteSizes : public std::streambuf {
 public:
  std::vector<std::streamsize> sizes;

 protected:
  std::streamsize xsputn(const char*, std::streamsize count) override {
    sizes.push_back(count);
    return count;
  }
};

TEST(NembraConnectMultipartTest, CopiesInBlocksOf64KiBAndBoundariesAreFreshUuids) {
  std::istringstream in(std::string(3 * 65536 + 10, 'x'));
  WriteSizes sizes;
  std::ostream out(&sizes);
  EXPECT_EQ(NembraConnect::blockCopyFrom(in, out), 3 * 65536 + 10);
  EXPECT_EQ(sizes.sizes, (std::vector<std::streamsize>{65536, 65536, 65536, 10}));

  std::string boundary = NembraConnect::generateBoundaryString();
  EXPECT_TRUE(std::regex_match(
      boundary, std::regex("Boundary-[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                           "[0-9A-F]{12}")))
      << boundary;
  EXPECT_NE(boundary, NembraConnect::generateBoundaryString());
}

}  // namespace
}  // namespace nembra
