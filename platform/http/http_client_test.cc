#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>

#include "nembra/main_queue.h"
#include "platform/http/http_body_file.h"
#include "platform/http/http_curl_client.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/net/tcp_listener.h"

namespace nembra {
namespace {

using nembra::testing::HttpTestServer;
using nembra::testing::ScratchDirectory;
using nembra::testing::Sha256;
using nembra::testing::writePatternFile;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct Outcome {
  int completions = 0;
  std::string body;
  HttpResponse response;
  OptionalError error;
  std::thread::id completionThread;
  uint64_t completedTask = 0;
  struct Progress {
    uint64_t task;
    int64_t step, total, expected;
  };
  std::vector<Progress> progress;
};

class HttpClientTest : public ::testing::Test {
 protected:
  // Events hop to the main queue, which the test pumps.
  HttpTaskEvents eventsInto(std::shared_ptr<Outcome> outcome) {
    HttpTaskEvents events;
    events.progress = [this, outcome](HttpTask& task, int64_t step, int64_t total,
                                      int64_t expected) {
      Outcome::Progress event{task.taskIdentifier(), step, total, expected};
      main_.async([outcome, event] { outcome->progress.push_back(event); });
    };
    events.completion = [this, outcome](HttpTask& task, std::vector<uint8_t> body,
                                        const HttpResponse& response, const OptionalError& error) {
      main_.async([outcome, id = task.taskIdentifier(), thread = std::this_thread::get_id(),
                   body = std::string(body.begin(), body.end()), response, error] {
        ++outcome->completions;
        outcome->body = body;
        outcome->response = response;
        outcome->error = error;
        outcome->completionThread = thread;
        outcome->completedTask = id;
      });
    };
    return events;
  }

  bool waitForCompletion(const Outcome& outcome, seconds timeout = seconds(20)) {
    return main_.runUntil([&] { return outcome.completions > 0; }, timeout);
  }

  bool waitForSent(const Outcome& outcome, int64_t bytes) {
    return main_.runUntil(
        [&] { return !outcome.progress.empty() && outcome.progress.back().total >= bytes; },
        seconds(20));
  }

  // An upload route that reads slowly enough for a test to act mid-transfer, and answers with
  // the SHA-256 and length of what it received.
  void serveSlowUploads() {
    server_.server().Post("/upload", [](const httplib::Request&, httplib::Response& reply,
                                        const httplib::ContentReader& reader) {
      Sha256 hash;
      size_t total = 0;
      reader([&](const char* data, size_t length) {
        hash.update(data, length);
        total += length;
        std::this_thread::sleep_for(milliseconds(1));
        return true;
      });
      reply.set_content(hash.hex() + " " + std::to_string(total), "text/plain");
    });
  }

  HttpRequest uploadRequest() { return {"POST", server_.url("/upload"), {}, std::nullopt}; }
  static std::unique_ptr<HttpBodyFile> bodyOf(const std::string& path) {
    OptionalError error;
    auto body = HttpBodyFile::open(path, error);
    EXPECT_TRUE(body) << error->message;
    return body;
  }

  MainQueue main_;
  ScratchDirectory scratch_;
  HttpTestServer server_;
  std::unique_ptr<CurlHttpClient> client_ =
      std::make_unique<CurlHttpClient>(CurlHttpClient::Options{});
};

struct RequestCase {
  const char* name;
  const char* method;
  const char* target;
  HttpHeaders headers;
  std::optional<std::string> body;
  int replyStatus;
};

class HttpRequestTest : public HttpClientTest, public ::testing::WithParamInterface<RequestCase> {};

TEST_P(HttpRequestTest, ReachesTheServerExactlyAndAnyStatusIsAResponse) {
  const RequestCase& c = GetParam();
  server_.on(c.method, ".*", [&](const httplib::Request&, httplib::Response& reply) {
    reply.status = c.replyStatus;
    reply.set_header("X-Reply", "done");
    reply.set_content(std::string("reply to ") + c.method, "text/plain");
  });
  server_.start();

  HttpRequest request{c.method, server_.url(c.target), c.headers, std::nullopt};
  if (c.body) request.body = std::vector<uint8_t>(c.body->begin(), c.body->end());
  auto outcome = std::make_shared<Outcome>();
  auto task = client_->dataTask(request, eventsInto(outcome));
  task->resume();
  ASSERT_TRUE(waitForCompletion(*outcome));
  main_.runUntilIdle();

  auto received = server_.requests();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].method, c.method);
  EXPECT_EQ(received[0].target, c.target);
  EXPECT_EQ(received[0].body, c.body.value_or(""));
  for (const auto& [name, value] : c.headers) EXPECT_EQ(received[0].header(name), value) << name;
  EXPECT_EQ(received[0].header("Expect"), "");

  EXPECT_EQ(outcome->completions, 1);
  EXPECT_FALSE(outcome->error) << outcome->error->message;
  EXPECT_EQ(outcome->response.status, c.replyStatus);
  EXPECT_EQ(outcome->response.header("x-reply"), "done");
  EXPECT_EQ(outcome->body, std::string("reply to ") + c.method);
  EXPECT_EQ(outcome->completedTask, task->taskIdentifier());
  EXPECT_NE(outcome->completionThread, std::this_thread::get_id());
  EXPECT_EQ(task->state(), HttpTaskState::Completed);
  EXPECT_EQ(task->response().status, c.replyStatus);
}

INSTANTIATE_TEST_SUITE_P(
    Methods, HttpRequestTest,
    ::testing::Values(
        RequestCase{"GetWithQuery", "GET", "/a/b?x=1&y=%20z&", {}, std::nullopt, 200},
        RequestCase{
            "DeleteNotFound", "DELETE", "/items/7?", {{"X-Token", "abc"}}, std::nullopt, 404},
        RequestCase{
            "PostForm",
            "POST",
            "/session",
            {{"Content-Type", "application/x-www-form-urlencoded"}, {"Content-Length", "8"}},
            "a=1&b=2&",
            201},
        RequestCase{"PostEmptyBody", "POST", "/e", {{"Content-Length", "0"}}, "", 500}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(HttpClientTest, NothingIsSentBeforeResumeAndCancellingAnUnstartedTaskSendsNothing) {
  server_.on("GET", ".*", [](const httplib::Request&, httplib::Response& reply) {
    reply.set_content("pong", "text/plain");
  });
  server_.start();
  auto idle = std::make_shared<Outcome>();
  auto idleTask = client_->dataTask({"GET", server_.url("/idle"), {}, {}}, eventsInto(idle));
  auto ping = std::make_shared<Outcome>();
  auto pingTask = client_->dataTask({"GET", server_.url("/ping"), {}, {}}, eventsInto(ping));
  EXPECT_LT(idleTask->taskIdentifier(), pingTask->taskIdentifier());
  pingTask->resume();
  ASSERT_TRUE(waitForCompletion(*ping));
  EXPECT_EQ(idleTask->state(), HttpTaskState::Suspended);

  idleTask->cancel();
  ASSERT_TRUE(waitForCompletion(*idle));
  ASSERT_TRUE(idle->error);
  EXPECT_EQ(idle->error->kind, ErrorKind::Cancelled);
  idleTask->resume();  // too late: a completed task stays completed
  main_.runUntil([] { return false; }, milliseconds(100));
  EXPECT_EQ(idle->completions, 1);
  auto received = server_.requests();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].target, "/ping");
}

TEST_F(HttpClientTest, SuspendedUploadSendsNothingUntilResumedAndProgressAddsUp) {
  serveSlowUploads();
  server_.start();
  const size_t size = 8 * 1024 * 1024;
  std::string path = scratch_.path() + "/body.bin";
  std::string expectedHash = writePatternFile(path, size);
  auto outcome = std::make_shared<Outcome>();
  auto task = client_->uploadTask(uploadRequest(), bodyOf(path), eventsInto(outcome));
  task->resume();
  ASSERT_TRUE(waitForSent(*outcome, 256 * 1024));

  task->suspend();
  EXPECT_EQ(task->state(), HttpTaskState::Suspended);
  main_.runUntil([] { return false; }, milliseconds(300));  // let the pause take hold
  int64_t sentAtPause = outcome->progress.back().total;
  main_.runUntil([] { return false; }, milliseconds(700));
  EXPECT_EQ(outcome->progress.back().total, sentAtPause);
  EXPECT_EQ(outcome->completions, 0);

  task->resume();
  ASSERT_TRUE(waitForCompletion(*outcome, seconds(60)));
  main_.runUntilIdle();
  ASSERT_FALSE(outcome->error) << outcome->error->message;
  EXPECT_EQ(outcome->body, expectedHash + " " + std::to_string(size));
  int64_t previous = 0;
  for (const auto& event : outcome->progress) {
    EXPECT_EQ(event.task, task->taskIdentifier());
    EXPECT_EQ(event.expected, static_cast<int64_t>(size));
    EXPECT_EQ(event.step, event.total - previous);
    EXPECT_GT(event.total, previous);
    previous = event.total;
  }
  EXPECT_EQ(previous, static_cast<int64_t>(size));
}

TEST_F(HttpClientTest, CancelledUploadCompletesOnceWithCancelled) {
  serveSlowUploads();
  server_.start();
  std::string path = scratch_.path() + "/body.bin";
  writePatternFile(path, 8 * 1024 * 1024);
  auto outcome = std::make_shared<Outcome>();
  auto task = client_->uploadTask(uploadRequest(), bodyOf(path), eventsInto(outcome));
  task->resume();
  ASSERT_TRUE(waitForSent(*outcome, 1));
  task->cancel();
  task->cancel();
  ASSERT_TRUE(waitForCompletion(*outcome));
  main_.runUntil([] { return false; }, milliseconds(100));
  EXPECT_EQ(outcome->completions, 1);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->kind, ErrorKind::Cancelled);
  EXPECT_EQ(task->state(), HttpTaskState::Completed);
}

TEST_F(HttpClientTest, FileTruncatedWhileSendingFailsWithFileError) {
  serveSlowUploads();
  server_.start();
  std::string path = scratch_.path() + "/body.bin";
  writePatternFile(path, 16 * 1024 * 1024);
  auto outcome = std::make_shared<Outcome>();
  client_->uploadTask(uploadRequest(), bodyOf(path), eventsInto(outcome))->resume();
  ASSERT_TRUE(waitForSent(*outcome, 1));
  std::filesystem::resize_file(path, 1024);
  ASSERT_TRUE(waitForCompletion(*outcome, seconds(60)));
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->kind, ErrorKind::File);
  EXPECT_NE(outcome->error->message.find("changed while being sent"), std::string::npos)
      << outcome->error->message;
}

TEST_F(HttpClientTest, DestroyingTheClientDropsRunningTasksWithoutCallingBack) {
  serveSlowUploads();
  server_.start();
  std::string path = scratch_.path() + "/body.bin";
  writePatternFile(path, 8 * 1024 * 1024);
  auto outcome = std::make_shared<Outcome>();
  auto task = client_->uploadTask(uploadRequest(), bodyOf(path), eventsInto(outcome));
  task->resume();
  ASSERT_TRUE(waitForSent(*outcome, 1));
  client_.reset();
  task->suspend();  // the handle outlives its client harmlessly
  task->cancel();
  main_.runUntil([] { return false; }, milliseconds(200));
  EXPECT_EQ(outcome->completions, 0);
}

// A self-signed certificate for 127.0.0.1 and its key, for a loopback TLS server.
struct SelfSignedIdentity {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();

  SelfSignedIdentity() {
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -60);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("nembra test"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    for (auto [nid, value] : {std::pair{NID_subject_alt_name, "IP:127.0.0.1"},
                              std::pair{NID_basic_constraints, "critical,CA:TRUE"}}) {
      X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
      X509_add_ext(certificate, extension, -1);
      X509_EXTENSION_free(extension);
    }
    X509_sign(certificate, key, EVP_sha256());
  }
  ~SelfSignedIdentity() {
    X509_free(certificate);
    EVP_PKEY_free(key);
  }
  void writeCertificate(const std::string& path) const {
    BIO* out = BIO_new_file(path.c_str(), "w");
    PEM_write_bio_X509(out, certificate);
    BIO_free(out);
  }
};

enum class ExtraRoots { None, TheServerCertificate, Unreadable };

struct TlsCase {
  const char* name;
  ExtraRoots roots;
  std::optional<ErrorKind> errorKind;
  int code;
};

// A peer that takes the connection (the kernel completes it from the listen backlog) and never
// says a word.
TEST(HttpSilentPeerTest, SmallRequestsGiveUpSoonWhileFileUploadsKeepWaiting) {
  OptionalError listenError;
  auto silent = TcpListener::open("127.0.0.1", 0, listenError);
  ASSERT_TRUE(silent) << listenError->message;
  const std::string base = "http://127.0.0.1:" + std::to_string(silent->port());
  ScratchDirectory scratch;
  const std::string file = scratch.path() + "/body.bin";
  writePatternFile(file, 64 * 1024);

  CurlHttpClient::Options options;
  options.firstByteTimeout = milliseconds(400);
  CurlHttpClient client(options);
  MainQueue main;
  std::optional<OptionalError> small;
  std::optional<OptionalError> upload;
  auto into = [&main](std::optional<OptionalError>& slot) {
    return HttpTaskEvents{nullptr, [&main, &slot](HttpTask&, std::vector<uint8_t>,
                                                  const HttpResponse&, const OptionalError& error) {
                            main.async([&slot, error] { slot = error; });
                          }};
  };
  const auto started = std::chrono::steady_clock::now();
  client
      .dataTask({"POST", base + "/session?k=secret-session", {}, std::vector<uint8_t>{'a'}},
                into(small))
      ->resume();
  OptionalError bodyError;
  auto uploadTask = client.uploadTask({"POST", base + "/upload", {}, std::nullopt},
                                      HttpBodyFile::open(file, bodyError), into(upload));
  uploadTask->resume();

  ASSERT_TRUE(main.runUntil([&] { return small.has_value(); }, seconds(10)));
  ASSERT_TRUE(*small);
  EXPECT_EQ((*small)->kind, ErrorKind::Timeout) << (*small)->message;
  EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(4));
  EXPECT_NE((*small)->message.find("/session"), std::string::npos) << (*small)->message;
  EXPECT_EQ((*small)->message.find("secret-session"), std::string::npos) << (*small)->message;

  // Well past the small request's deadline, the upload is still waiting on the stall limit.
  main.runUntil([] { return false; }, milliseconds(1200));
  EXPECT_FALSE(upload.has_value()) << (upload && *upload ? (*upload)->message : "");
  uploadTask->cancel();
  ASSERT_TRUE(main.runUntil([&] { return upload.has_value(); }, seconds(10)));
  silent->shutdown();
}

class HttpTlsTest : public ::testing::TestWithParam<TlsCase> {};

TEST_P(HttpTlsTest, VerifiesPeersAgainstSystemAndExtraRoots) {
  const TlsCase& c = GetParam();
  SelfSignedIdentity identity;
  ScratchDirectory scratch;
  HttpTestServer server(std::make_unique<httplib::SSLServer>(identity.certificate, identity.key));
  server.on("GET", ".*", [](const httplib::Request&, httplib::Response& reply) {
    reply.set_content("secure", "text/plain");
  });
  server.start();

  CurlHttpClient::Options options;
  if (c.roots == ExtraRoots::TheServerCertificate) {
    options.extraRootsPath = scratch.path() + "/roots.pem";
    identity.writeCertificate(*options.extraRootsPath);
  } else if (c.roots == ExtraRoots::Unreadable) {
    options.extraRootsPath = scratch.path() + "/missing.pem";
  }
  MainQueue main;
  std::optional<OptionalError> result;
  std::string body;
  CurlHttpClient client(options);
  HttpRequest request{"GET", "https://127.0.0.1:" + std::to_string(server.port()) + "/", {}, {}};
  HttpTaskEvents events;
  events.completion = [&](HttpTask&, std::vector<uint8_t> received, const HttpResponse&,
                          const OptionalError& error) {
    main.async([&, received, error] {
      body.assign(received.begin(), received.end());
      result = error;
    });
  };
  client.dataTask(request, events)->resume();
  ASSERT_TRUE(main.runUntil([&] { return result.has_value(); }));
  const OptionalError& error = *result;
  if (!c.errorKind) {
    EXPECT_FALSE(error) << error->message;
    EXPECT_EQ(body, "secure");
  } else {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, *c.errorKind) << error->message;
    if (c.code) {
      EXPECT_EQ(error->code, c.code);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Roots, HttpTlsTest,
    ::testing::Values(TlsCase{"SelfSignedIsRejected", ExtraRoots::None, ErrorKind::Transport,
                              CURLE_PEER_FAILED_VERIFICATION},
                      TlsCase{"ExtraRootIsTrusted", ExtraRoots::TheServerCertificate, std::nullopt,
                              0},
                      TlsCase{"UnreadableExtraRootsFailEveryRequest", ExtraRoots::Unreadable,
                              ErrorKind::File, 0}),
    [](const auto& info) { return std::string(info.param.name); });

// Streamed responses: a 24 MiB body served in 64 KiB pieces, more than the stream window.
class HttpStreamTest : public HttpClientTest {
 protected:
  static constexpr size_t kBodySize = 24 << 20;

  // The server's workers send from body_, which goes before the base class stops them.
  ~HttpStreamTest() override { server_.stop(); }

  static std::string pattern() {
    std::string body(kBodySize, '\0');
    for (size_t i = 0; i < body.size(); ++i)
      body[i] = static_cast<char>((i * 31 + i / 4096) & 0xff);
    return body;
  }

  void serveBody(std::shared_ptr<std::atomic<size_t>> sent) {
    server_.on("GET", "/big", [this, sent](const httplib::Request&, httplib::Response& reply) {
      reply.status = 206;
      reply.set_header("Content-Range", "bytes 0-" + std::to_string(kBodySize - 1) + "/" +
                                            std::to_string(kBodySize));
      reply.set_content_provider(
          kBodySize, "video/mp4",
          [this, sent](size_t offset, size_t length, httplib::DataSink& sink) {
            size_t piece = std::min<size_t>(length, 64 << 10);
            sink.write(body_.data() + offset, piece);
            sent->store(offset + piece);
            return true;
          });
    });
    server_.start();
  }

  struct Stream {
    std::vector<std::string> order;
    std::string body;
    HttpResponse head;
    OptionalError error;
    bool done = false;
    std::string completionBody;
  };

  HttpTaskEvents streamInto(std::shared_ptr<Stream> stream, std::function<void()> onChunk = {}) {
    HttpTaskEvents events;
    events.head = [this, stream](HttpTask&, const HttpResponse& head) {
      main_.async([stream, head] {
        stream->order.push_back("head");
        stream->head = head;
      });
    };
    events.data = [this, stream, onChunk](HttpTask&, std::vector<uint8_t> chunk) {
      if (onChunk) onChunk();
      main_.async([stream, chunk = std::move(chunk)] {
        if (stream->order.empty() || stream->order.back() != "data")
          stream->order.push_back("data");
        stream->body.append(chunk.begin(), chunk.end());
      });
    };
    events.completion = [this, stream](HttpTask&, std::vector<uint8_t> body, const HttpResponse&,
                                       const OptionalError& error) {
      main_.async([stream, body = std::string(body.begin(), body.end()), error] {
        stream->order.push_back("completion");
        stream->completionBody = body;
        stream->error = error;
        stream->done = true;
      });
    };
    return events;
  }

  std::string body_ = pattern();
};

TEST_F(HttpStreamTest, HeadThenEveryByteInOrderThenAnEmptyCompletion) {
  serveBody(std::make_shared<std::atomic<size_t>>(0));
  auto stream = std::make_shared<Stream>();
  auto task = client_->dataTask({"GET", server_.url("/big"), {{"Range", "bytes=0-"}}, std::nullopt},
                                streamInto(stream));
  task->resume();
  ASSERT_TRUE(main_.runUntil([&] { return stream->done; }, seconds(20)));
  EXPECT_FALSE(stream->error);
  EXPECT_EQ(stream->order, (std::vector<std::string>{"head", "data", "completion"}));
  EXPECT_EQ(stream->head.status, 206);
  EXPECT_EQ(stream->head.header("content-range"),
            "bytes 0-" + std::to_string(kBodySize - 1) + "/" + std::to_string(kBodySize));
  EXPECT_TRUE(stream->body == body_);
  EXPECT_TRUE(stream->completionBody.empty());
}

TEST_F(HttpStreamTest, AStalledConsumerStopsTheTransferAndCancelEndsIt) {
  auto sent = std::make_shared<std::atomic<size_t>>(0);
  serveBody(sent);
  // The consumer blocks on its first chunk until the test lets it go.
  std::mutex gate;
  std::unique_lock hold(gate);
  auto stream = std::make_shared<Stream>();
  auto task = client_->dataTask({"GET", server_.url("/big"), {}, std::nullopt},
                                streamInto(stream, [&] { std::lock_guard wait(gate); }));
  task->resume();
  main_.runUntil([] { return false; }, milliseconds(800));
  // The window plus what the sockets buffer: far short of the whole body.
  EXPECT_LT(sent->load(), kBodySize / 2);
  task->cancel();
  hold.unlock();
  ASSERT_TRUE(main_.runUntil([&] { return stream->done; }, seconds(20)));
  ASSERT_TRUE(stream->error);
  EXPECT_EQ(stream->error->kind, ErrorKind::Cancelled);
  EXPECT_LT(stream->body.size(), kBodySize);
  EXPECT_TRUE(body_.compare(0, stream->body.size(), stream->body) == 0);
}

TEST_F(HttpStreamTest, AConnectionClosedMidBodyFailsAfterTheBytesThatCame) {
  server_.on("GET", "/short", [](const httplib::Request&, httplib::Response& reply) {
    reply.set_content_provider(1000, "video/mp4",
                               [](size_t offset, size_t, httplib::DataSink& sink) {
                                 if (offset >= 400) return false;  // drops the connection
                                 sink.write(std::string(400, 'x').data(), 400);
                                 return true;
                               });
  });
  server_.start();
  auto stream = std::make_shared<Stream>();
  client_->dataTask({"GET", server_.url("/short"), {}, std::nullopt}, streamInto(stream))->resume();
  ASSERT_TRUE(main_.runUntil([&] { return stream->done; }, seconds(20)));
  ASSERT_TRUE(stream->error);
  EXPECT_EQ(stream->error->kind, ErrorKind::Transport);
  EXPECT_EQ(stream->body, std::string(400, 'x'));
}
}  // namespace
}  // namespace nembra
