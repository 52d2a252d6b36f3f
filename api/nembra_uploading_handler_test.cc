#include "nembra/nembra_uploading_handler.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <regex>

#include "api/reachability.h"
#include "api/upload_journal.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "platform/files/file_system.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/media_log.h"
#include "platform/media/media_sample_writer.h"
#include "platform/net/testing/fake_network_interfaces.h"
#include "platform/system/local_notifications.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::HttpTestServer;
using nembra::testing::ScratchDirectory;
using std::chrono::milliseconds;
using std::chrono::seconds;

std::string base64(const std::string& text) {
  static const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  uint32_t buffer = 0;
  int bits = 0;
  for (unsigned char c : text) {
    buffer = (buffer << 8) | c;
    bits += 8;
    while (bits >= 6) out += kAlphabet[(buffer >> (bits -= 6)) & 63];
  }
  if (bits > 0) out += kAlphabet[(buffer << (6 - bits)) & 63];
  while (out.size() % 4) out += '=';
  return out;
}

// The signed form a storage service hands out, with a policy expiring at |expiration|.
Json formFields(const std::string& expiration = "2999-01-01T00:00:00Z") {
  return Json{{"key", "uploads/k1"},
              {"Content-Type", "video/mp4"},
              {"bucket", "b1"},
              {"X-Amz-Algorithm", "AWS4-HMAC-SHA256"},
              {"X-Amz-Credential", "cred"},
              {"X-Amz-Date", "20240101T000000Z"},
              {"X-Amz-Security-Token", ""},
              {"Policy", base64(Json{{"expiration", expiration}}.dump())},
              {"X-Amz-Signature", "sig"}};
}

// A 1×1 PNG.
const std::string kPng(
    "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52\x00\x00\x00\x01"
    "\x00\x00\x00\x01\x08\x06\x00\x00\x00\x1f\x15\xc4\x89\x00\x00\x00\x0d\x49\x44\x41"
    "\x54\x78\x9c\x63\xf8\xcf\xc0\xf0\x1f\x00\x05\x00\x01\xff\x89\x99\x3d\x1d\x00\x00"
    "\x00\x00\x49\x45\x4e\x44\xae\x42\x60\x82",
    70);

// The network as the tests set it: wired and cellular links up or down.
NetworkSnapshot links(bool wired, bool cellular) {
  NetworkSnapshot links;
  if (wired) links.push_back(FakeNetworkInterfaces::wired());
  if (cellular) links.push_back(FakeNetworkInterfaces::cellular());
  return links;
}

// Holds storage answers until released, so a transfer stays in flight for as long as a test
// needs it.
class Gate {
 public:
  void close() {
    std::lock_guard lock(mutex_);
    open_ = false;
  }
  void open() {
    {
      std::lock_guard lock(mutex_);
      open_ = true;
    }
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    changed_.wait_for(lock, seconds(20), [this] { return open_; });
    --waiting_;
  }
  int waiting() {
    std::lock_guard lock(mutex_);
    return waiting_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = true;
  int waiting_ = 0;
};

class UploadingHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setMediaLogLevel(MediaLogLevel::Errors);
    FileSystem::shared().setRoot(scratch_.path() + "/root");
    serve();
    server_.start();
    nembra_ = std::make_unique<Nembra>("app1", main_);
    nembra_->config().useSingleServer(server_.url());
    nembra_->connect().setSessionKey("k3v9qd72mx0wzr5hub81tneaapp1");
    nembra_->connect().setSessionValue("S1");
    nembra_->setUploadingDelegate(delegate_);
    reachability_ = Reachability::reachabilityForInternetConnection();
    reachability_->setInterfaceSource(network_);
    reachability_->setNotificationCenter(center_);
    handler().setReachability(reachability_, center_);
    recordDelegateCalls();
  }
  void TearDown() override {
    gate_.open();
    nembra_.reset();
  }

  NembraUploadingHandler& handler() { return nembra_->uploadingHandler(); }

  // The answers of a media service, from what the test sets below.
  void serve() {
    auto urlReply = [this](int type) {
      return [this, type](const httplib::Request&, httplib::Response& reply) {
        std::lock_guard lock(mutex_);
        reply.status = urlStatus_;
        reply.set_content(urlBody_ ? *urlBody_ : defaultUrlReply(type).dump(), "application/json");
      };
    };
    server_.on("POST", "/v1/applications/app1/videos/videos-upload-url", urlReply(VIDEO));
    server_.on("POST", "/embed/v1/applications/app1/audios", urlReply(AUDIO));
    server_.on("POST", "/embed/v1/applications/app1/images", urlReply(IMAGE));
    server_.on("POST", "/storage", [this](const httplib::Request&, httplib::Response& reply) {
      gate_.wait();
      std::function<void()> during;
      {
        std::lock_guard lock(mutex_);
        during = duringStorage_;
        reply.status = storageStatus_;
      }
      if (during) during();
    });
    auto confirm = [this](const httplib::Request&, httplib::Response& reply) {
      std::lock_guard lock(mutex_);
      reply.status = confirmStatus_;
      reply.set_content(R"({"token":"confirmed","state_string":"ready"})", "application/json");
    };
    server_.on("POST", "/v1/applications/app1/videos/[^/]+/streams/[^/]+/confirm-video", confirm);
    server_.on("POST", "/embed/v1/applications/app1/(audios|images)/[^/]+/confirm", confirm);
    server_.on("GET", "/v1/applications/app1/videos/[^/]+/image",
               [](const httplib::Request& request, httplib::Response& reply) {
                 bool bad = request.path.find("/bad/") != std::string::npos;
                 reply.set_content(bad ? "not a picture" : kPng, "image/png");
               });
    for (const char* method : {"GET", "POST", "DELETE"}) {
      server_.on(method, "/(embed/)?v1/.*", [](const httplib::Request&, httplib::Response& reply) {
        reply.set_content(R"({"token":"v1","audio":{"token":"a1","title":"t"},)"
                          R"("original_stream":{"token":"o1"}})",
                          "application/json");
      });
    }
    server_.on("GET", "/(cdn|files)/.*", [this](const httplib::Request&, httplib::Response& reply) {
      std::lock_guard lock(mutex_);
      reply.status = cdnStatus_;
      reply.set_content(cdnBody_, "application/octet-stream");
    });
  }

  Json defaultUrlReply(int type) const {
    const char* media = type == VIDEO ? "video" : type == AUDIO ? "audio" : "image";
    std::string stream = type == VIDEO ? "stream" : std::string(media) + "_stream";
    return Json{{media, {{"token", "m1"}}},
                {stream, {{"token", "s1"}}},
                {"url_data", {{"url", server_.url("/storage")}, {"fields", formFields()}}}};
  }

  void recordDelegateCalls() {
    auto note = [this](std::string event) {
      EXPECT_TRUE(main_.isCurrent()) << event << " arrived off the main queue";
      if (events_.empty() || events_.back() != event) events_.push_back(std::move(event));
    };
    delegate_->preparingToUploadWithPath = [note](const std::string&) { note("preparing"); };
    delegate_->errorWithError = [note](const Error& e) { note("errorWithError " + e.message); };
    delegate_->uploadStartedWithPath = [note](const std::string&, const std::string& token,
                                              const std::string& stream,
                                              std::shared_ptr<HttpTask> task) {
      note("started " + token + " " + stream + (task ? "" : " without task"));
    };
    delegate_->uploadProgressWithPath = [note](const std::string&, const std::string&,
                                               const std::string&, int64_t,
                                               int64_t) { note("progress"); };
    delegate_->uploadFinishedWithPath = [note](const std::string&, const std::string& token,
                                               const std::string&) { note("finished " + token); };
    delegate_->uploadVerifiedWithPath =
        [this, note](const std::string&, const std::string& token, const std::string&,
                     const HttpResponse&, const OptionalError& error, const std::optional<Json>&) {
          note("verified " + token + (error ? " with error" : ""));
          ++verified_;
        };
    delegate_->errorWithInfo = [this, note](const std::optional<Json>& info, const Error& error,
                                            int32_t action) {
      EXPECT_FALSE(info);
      note("errorWithInfo " + std::to_string(action) + " " + errorKindName(error.kind));
      ++transferErrors_;
    };
  }

  std::string makeFile(const std::string& name, const std::string& content = "media bytes") {
    std::string path = scratch_.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  struct Outcome {
    int callbacks = 0;
    OptionalError urlError;
    std::optional<Json> urlJson;
    int confirms = 0;
    OptionalError confirmError;
  };
  // Starts an upload whose callbacks fill |outcome|.
  NembraUploadingHandler::TaskHandle upload(int type, const std::string& path,
                                            std::shared_ptr<Outcome> outcome) {
    return handler().uploadWithType(
        type, path, Json{{"title", "t"}},
        [outcome](const std::optional<Json>& json, const HttpResponse&, const OptionalError& e) {
          ++outcome->callbacks;
          outcome->urlJson = json;
          outcome->urlError = e;
        },
        nullptr,
        [outcome](const std::optional<Json>&, const HttpResponse&, const OptionalError& e) {
          ++outcome->confirms;
          outcome->confirmError = e;
        });
  }

  std::vector<std::string> targets() {
    std::vector<std::string> paths;
    for (const auto& request : server_.requests()) {
      paths.push_back(request.method + " " + request.target.substr(0, request.target.find('?')));
    }
    return paths;
  }
  size_t count(const std::string& target) {
    auto all = targets();
    return static_cast<size_t>(std::count(all.begin(), all.end(), target));
  }
  bool pumpUntil(const std::function<bool()>& done, milliseconds timeout = milliseconds(15000)) {
    return main_.runUntil(done, timeout);
  }
  size_t journalSize() { return handler().journal().load().size(); }

  ScratchDirectory scratch_;
  MainQueue main_;
  NotificationCenter center_{main_};
  HttpTestServer server_;
  Gate gate_;
  std::shared_ptr<FakeNetworkInterfaces> network_ =
      std::make_shared<FakeNetworkInterfaces>(links(true, false));
  std::shared_ptr<Reachability> reachability_;
  std::shared_ptr<NembraUploadingDelegate> delegate_ = std::make_shared<NembraUploadingDelegate>();
  std::unique_ptr<Nembra> nembra_;
  std::vector<std::string> events_;
  int verified_ = 0;
  int transferErrors_ = 0;

  std::mutex mutex_;
  int urlStatus_ = 200;
  std::optional<std::string> urlBody_;
  int storageStatus_ = 204;
  int confirmStatus_ = 200;
  std::function<void()> duringStorage_;
  int cdnStatus_ = 200;
  std::string cdnBody_ = "cdn bytes";
};

// ---- One upload of each type ------------------------------------------------------------

struct TypeCase {
  const char* name;
  int type;
  const char* urlTarget;
  const char* fileHeaders;
  const char* confirmTarget;
};

class UploadTypeTest : public UploadingHandlerTest,
                       public ::testing::WithParamInterface<TypeCase> {};

TEST_P(UploadTypeTest, AsksStoresAndConfirmsThenDeletesTheFile) {
  const TypeCase& c = GetParam();
  std::string path = makeFile("clip.bin", "0123456789");
  auto outcome = std::make_shared<Outcome>();
  ASSERT_TRUE(upload(c.type, path, outcome));
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));

  EXPECT_EQ(targets(), (std::vector<std::string>{c.urlTarget, "POST /storage", c.confirmTarget}));
  auto requests = server_.requests();
  EXPECT_NE(requests[0].body.find("title=t&"), std::string::npos) << requests[0].body;
  const std::string& form = requests[1].body;
  EXPECT_NE(form.find(c.fileHeaders), std::string::npos) << form;
  EXPECT_NE(form.find("\r\n\r\n0123456789\r\n"), std::string::npos);
  EXPECT_LT(form.find("name=\"key\""), form.find("name=\"Policy\""));
  EXPECT_LT(form.find("name=\"Policy\""), form.find("name=\"X-Amz-Signature\""));

  EXPECT_FALSE(outcome->urlError);
  EXPECT_FALSE(outcome->confirmError);
  EXPECT_EQ(events_, (std::vector<std::string>{"preparing", "started m1 s1", "progress",
                                               "finished m1", "verified m1"}));
  EXPECT_FALSE(fs::exists(path)) << "a confirmed upload's file is deleted";
  EXPECT_EQ(journalSize(), 0u);
  EXPECT_EQ(handler().activeUploadCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Types, UploadTypeTest,
    ::testing::Values(
        TypeCase{"Video", VIDEO, "POST /v1/applications/app1/videos/videos-upload-url",
                 "name=\"file\"; filename=\"file.mp4\";\r\nContent-Type: video/mp4\r\n",
                 "POST /v1/applications/app1/videos/m1/streams/s1/confirm-video"},
        TypeCase{"Audio", AUDIO, "POST /embed/v1/applications/app1/audios",
                 "name=\"file\"; filename=\"file.aac\";\r\nContent-Type: audio/wav\r\n",
                 "POST /embed/v1/applications/app1/audios/m1/confirm"},
        TypeCase{"Image", IMAGE, "POST /embed/v1/applications/app1/images",
                 "name=\"file\"; filename=\"file.jpg\";\r\nContent-Type: image/png\r\n",
                 "POST /embed/v1/applications/app1/images/m1/confirm"}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadingHandlerTest, FileUrlsAreUploadedFromTheirPath) {
  std::string path = makeFile("a b.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, "file://" + path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  EXPECT_FALSE(outcome->confirmError);
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(UploadingHandlerTest, TurnedOffUploaderDoesNothingAtAll) {
  nembra_->uploadingConfig().setShouldTurnOffUploader(true);
  std::string path = makeFile("a.mp4");
  auto outcome = std::make_shared<Outcome>();
  EXPECT_FALSE(upload(VIDEO, path, outcome));
  main_.runUntil([] { return false; }, milliseconds(200));
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(outcome->callbacks, 0);
}

// ---- Refused before any request ---------------------------------------------------------

struct RefusedCase {
  const char* name;
  int type;
  const char* file;  // made with |content| unless null
  const char* content;
  ErrorKind kind;
};

class RefusedUploadTest : public UploadingHandlerTest,
                          public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(RefusedUploadTest, AnswersWithAClearErrorAndSendsNothing) {
  const RefusedCase& c = GetParam();
  std::string path = scratch_.path() + "/" + c.file;
  if (c.content) makeFile(c.file, c.content);
  if (std::string(c.file) == "dir") fs::create_directory(path);
  auto outcome = std::make_shared<Outcome>();
  EXPECT_FALSE(upload(c.type, path, outcome));
  ASSERT_TRUE(pumpUntil([&] { return outcome->callbacks == 1; }));
  ASSERT_TRUE(outcome->urlError);
  EXPECT_EQ(outcome->urlError->kind, c.kind) << outcome->urlError->message;
  EXPECT_NE(outcome->urlError->message.find(path), std::string::npos) << outcome->urlError->message;
  EXPECT_EQ(events_.size(), 2u);
  EXPECT_EQ(events_.back().rfind("errorWithError", 0), 0u);
  EXPECT_TRUE(server_.requests().empty());
  if (c.content) {
    EXPECT_TRUE(fs::exists(path));
  }
  EXPECT_EQ(journalSize(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    BadInput, RefusedUploadTest,
    ::testing::Values(RefusedCase{"Missing", VIDEO, "none.mp4", nullptr, ErrorKind::File},
                      RefusedCase{"Empty", AUDIO, "empty.aac", "", ErrorKind::File},
                      RefusedCase{"Directory", IMAGE, "dir", nullptr, ErrorKind::File},
                      RefusedCase{"UnknownType", 3, "x.txt", "text", ErrorKind::InvalidArgument}),
    [](const auto& info) { return info.param.name; });

// ---- Upload-URL answers that cannot be used ---------------------------------------------

struct BadReplyCase {
  const char* name;
  int status;
  std::string body;
  ErrorKind kind;
  const char* mentions;
};

class BadUrlReplyTest : public UploadingHandlerTest,
                        public ::testing::WithParamInterface<BadReplyCase> {};

TEST_P(BadUrlReplyTest, EndsBeforeStorageWithTheFileKept) {
  const BadReplyCase& c = GetParam();
  {
    std::lock_guard lock(mutex_);
    urlStatus_ = c.status;
    urlBody_ = c.body;
  }
  std::string path = makeFile("kept.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil(
      [&] { return !events_.empty() && events_.back().rfind("errorWithError", 0) == 0; }));
  ASSERT_TRUE(outcome->urlError);
  EXPECT_EQ(outcome->urlError->kind, c.kind) << outcome->urlError->message;
  EXPECT_NE(outcome->urlError->message.find(c.mentions), std::string::npos)
      << outcome->urlError->message;
  EXPECT_EQ(count("POST /storage"), 0u);
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(journalSize(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    BadInput, BadUrlReplyTest,
    ::testing::Values(
        BadReplyCase{"NoUrlData", 200, R"({"video":{"token":"m1"},"stream":{"token":"s1"}})",
                     ErrorKind::Parse, "url_data"},
        BadReplyCase{"NoToken", 200, R"({"video":{},"stream":{"token":"s1"},"url_data":{}})",
                     ErrorKind::Parse, "token"},
        BadReplyCase{"FieldsNotAnObject", 200,
                     R"({"video":{"token":"m1"},"stream":{"token":"s1"},)"
                     R"("url_data":{"url":"http://x/","fields":[1]}})",
                     ErrorKind::Parse, "fields"},
        BadReplyCase{"NotHttp", 200,
                     R"({"video":{"token":"m1"},"stream":{"token":"s1"},)"
                     R"("url_data":{"url":"file:///etc/passwd","fields":{}}})",
                     ErrorKind::Parse, "not an http"},
        BadReplyCase{"TokenLeavingTheDirectory", 200,
                     R"({"video":{"token":"../m1"},"stream":{"token":"s1"},"url_data":{}})",
                     ErrorKind::InvalidArgument, "../m1"},
        BadReplyCase{"Refused", 403, R"({"status":403,"message":"quota exceeded"})",
                     ErrorKind::Http, "quota exceeded"},
        BadReplyCase{"NotJson", 200, "<html>oops</html>", ErrorKind::Parse, "JSON"}),
    [](const auto& info) { return info.param.name; });

// ---- Lost connection --------------------------------------------------------------------

struct ActionCase {
  const char* name;
  int32_t action;
  bool fileKept;
  bool recordKept;
  size_t urlRequests;
};

class LostConnectionTest : public UploadingHandlerTest,
                           public ::testing::WithParamInterface<ActionCase> {};

TEST_P(LostConnectionTest, CarriesOutTheConfiguredAction) {
  const ActionCase& c = GetParam();
  {
    std::lock_guard lock(mutex_);
    storageStatus_ = 503;
  }
  nembra_->uploadingConfig().setLostConnectionAction(c.action);
  handler().setReloadLimit(1);
  std::vector<std::string> notifications;
  LocalNotifications::shared().setSink(
      [&](const LocalNotification& n) { notifications.push_back(n.title + ": " + n.body); });

  std::string path = makeFile("holiday clip.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return transferErrors_ == static_cast<int>(c.urlRequests); }));
  main_.runUntil([] { return false; }, milliseconds(100));

  EXPECT_EQ(events_.back(), "errorWithInfo " + std::to_string(c.action) + " http");
  EXPECT_EQ(count("POST /v1/applications/app1/videos/videos-upload-url"), c.urlRequests);
  EXPECT_EQ(outcome->callbacks, static_cast<int>(c.urlRequests)) << "each attempt answers";
  EXPECT_EQ(outcome->confirms, 0);
  EXPECT_EQ(fs::exists(path), c.fileKept);
  EXPECT_EQ(journalSize(), c.recordKept ? 1u : 0u);
  if (c.action == UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION) {
    ASSERT_TRUE(MainQueue::shared().runUntil([&] { return !notifications.empty(); }, seconds(5)));
    EXPECT_EQ(notifications[0], "Nembra: Failed to upload holiday clip.mp4.");
  } else {
    MainQueue::shared().runUntil([] { return false; }, milliseconds(1200));
    EXPECT_TRUE(notifications.empty());
  }
  LocalNotifications::shared().setSink(nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Actions, LostConnectionTest,
    ::testing::Values(
        ActionCase{"Continue", UPLOADING_ERROR_ACTION_CONTINUE_UPLOADING_MEDIA, true, true, 1},
        ActionCase{"Reload", UPLOADING_ERROR_ACTION_RELOAD_MEDIA, true, false, 2},
        ActionCase{"Notify", UPLOADING_ERROR_ACTION_ERROR_NOTIFICATION, true, false, 1},
        ActionCase{"Delete", UPLOADING_ERROR_ACTION_DELETE_MEDIA, false, false, 1},
        ActionCase{"UnknownActsAsContinue", 777, true, true, 1}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadingHandlerTest, CancelEndsTheTransferWithoutItsAction) {
  nembra_->uploadingConfig().setLostConnectionAction(UPLOADING_ERROR_ACTION_RELOAD_MEDIA);
  gate_.close();
  std::string path = makeFile("a.mp4");
  upload(VIDEO, path, std::make_shared<Outcome>());
  ASSERT_TRUE(pumpUntil([&] { return gate_.waiting() == 1; }));
  handler().cancelUpload(path, false);
  ASSERT_TRUE(pumpUntil([&] { return transferErrors_ == 1; }));
  gate_.open();
  main_.runUntil([] { return false; }, milliseconds(300));
  EXPECT_EQ(events_.back(), "errorWithInfo 552 cancelled");
  EXPECT_EQ(count("POST /v1/applications/app1/videos/videos-upload-url"), 1u) << "no reload";
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(journalSize(), 0u);
}

TEST_F(UploadingHandlerTest, AFileChangedDuringItsTransferIsKeptAndNotConfirmed) {
  nembra_->uploadingConfig().setLostConnectionAction(UPLOADING_ERROR_ACTION_DELETE_MEDIA);
  std::string path = makeFile("growing.mp4", "first part");
  {
    std::lock_guard lock(mutex_);
    duringStorage_ = [path] { std::ofstream(path, std::ios::app) << " and more"; };
  }
  upload(VIDEO, path, std::make_shared<Outcome>());
  ASSERT_TRUE(pumpUntil([&] { return transferErrors_ == 1; }));
  EXPECT_EQ(events_.back(), "errorWithInfo 554 file");
  EXPECT_EQ(verified_, 0);
  EXPECT_TRUE(fs::exists(path)) << "the delete action never touches a changed file";
}

// ---- Confirm and restart ----------------------------------------------------------------

TEST_F(UploadingHandlerTest, AnUnansweredConfirmIsSentAgainByALaterResume) {
  {
    std::lock_guard lock(mutex_);
    confirmStatus_ = 502;
  }
  std::string path = makeFile("a.aac");
  auto outcome = std::make_shared<Outcome>();
  upload(AUDIO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  ASSERT_TRUE(outcome->confirmError);
  EXPECT_EQ(outcome->confirmError->code, 502);
  EXPECT_EQ(events_.back(), "verified m1 with error");
  EXPECT_FALSE(fs::exists(path)) << "storage holds the file";
  ASSERT_EQ(journalSize(), 1u);

  {
    std::lock_guard lock(mutex_);
    confirmStatus_ = 200;
  }
  const size_t before = server_.requests().size();
  EXPECT_EQ(handler().resumeUnfinishedUploads(), 1u);
  ASSERT_TRUE(pumpUntil([&] { return verified_ == 2; }));
  EXPECT_EQ(events_.back(), "verified m1");
  EXPECT_EQ(server_.requests().size(), before + 1) << "only the confirm is sent again";
  EXPECT_EQ(journalSize(), 0u);
}

TEST_F(UploadingHandlerTest, ResumeReusesAValidFormAndAsksAnewForAnExpiredOne) {
  UploadJournal& journal = handler().journal();
  auto record = [&](const std::string& file, const std::string& expiration) {
    UploadJournalEntry entry;
    entry.id = journal.newId();
    entry.type = VIDEO;
    entry.path = makeFile(file);
    entry.stage = UploadJournalEntry::Stage::Transferring;
    entry.mediaToken = "old" + file.substr(0, 1);
    entry.streamToken = "s0";
    entry.uploadUrl = server_.url("/storage");
    entry.fields = formFields(expiration);
    EXPECT_FALSE(journal.write(entry));
    return entry;
  };
  auto valid = record("valid.mp4", "2999-01-01T00:00:00Z");
  auto expired = record("expired.mp4", "2001-01-01T00:00:00Z");
  auto busy = record("busy.mp4", "2999-01-01T00:00:00Z");
  auto held = journal.claim(busy.id);  // as another process working on it would
  ASSERT_TRUE(held);

  EXPECT_EQ(handler().resumeUnfinishedUploads(), 2u);
  ASSERT_TRUE(pumpUntil([&] { return verified_ == 2; }));
  EXPECT_EQ(count("POST /v1/applications/app1/videos/videos-upload-url"), 1u);
  EXPECT_EQ(count("POST /storage"), 2u);
  EXPECT_EQ(count("POST /v1/applications/app1/videos/oldv/streams/s0/confirm-video"), 1u);
  EXPECT_EQ(count("POST /v1/applications/app1/videos/m1/streams/s1/confirm-video"), 1u);
  EXPECT_FALSE(fs::exists(valid.path));
  EXPECT_FALSE(fs::exists(expired.path));
  EXPECT_TRUE(fs::exists(busy.path));
  auto left = journal.load();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].id, busy.id);
}

// ---- Reachability -----------------------------------------------------------------------

TEST_F(UploadingHandlerTest, LosingTheNetworkSuspendsAndItsReturnResumes) {
  gate_.close();
  std::string path = makeFile("a.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return gate_.waiting() == 1; }));
  auto task = handler().uploadTask();
  ASSERT_TRUE(task);

  network_->change(links(false, false));
  ASSERT_TRUE(pumpUntil([&] { return task->state() == HttpTaskState::Suspended; }));
  gate_.open();
  main_.runUntil([] { return false; }, milliseconds(500));
  EXPECT_EQ(outcome->confirms, 0) << "a suspended transfer takes no answer";

  network_->change(links(true, false));
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  EXPECT_FALSE(outcome->confirmError);
}

TEST_F(UploadingHandlerTest, WifiOnlyHoldsATransferWhileOnlyCellularIsUp) {
  nembra_->uploadingConfig().setShouldUseWifiOnly(true);
  network_->change(links(false, true));
  std::string path = makeFile("a.mp4");
  auto outcome = std::make_shared<Outcome>();
  upload(VIDEO, path, outcome);
  ASSERT_TRUE(pumpUntil([&] { return outcome->callbacks == 1; }));
  main_.runUntil([] { return false; }, milliseconds(300));
  EXPECT_EQ(count("POST /storage"), 0u);
  EXPECT_EQ(events_.back(), "preparing");

  network_->change(links(true, true));
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }));
  EXPECT_EQ(count("POST /storage"), 1u);
}

// ---- Per-media requests -----------------------------------------------------------------

struct ItemCase {
  const char* name;
  bool remove;
  std::optional<std::string> stream;
  const char* target;
};

class ItemPathTest : public UploadingHandlerTest, public ::testing::WithParamInterface<ItemCase> {};

TEST_P(ItemPathTest, FollowsTheStreamTokenRule) {
  const ItemCase& c = GetParam();
  int answers = 0;
  auto callback = [&](const std::optional<Json>&, const HttpResponse&, const OptionalError&) {
    main_.async([&] { ++answers; });
  };
  if (c.remove) {
    handler().deleteWithType(VIDEO, "v1", c.stream, callback);
  } else {
    handler().updateWithType(AUDIO, "a1", c.stream, Json::object(), callback);
  }
  ASSERT_TRUE(pumpUntil([&] { return answers == 1; }));
  EXPECT_EQ(targets(), std::vector<std::string>{c.target});
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ItemPathTest,
    ::testing::Values(
        ItemCase{"UpdateMedia", false, "", "POST /embed/v1/applications/app1/audios/a1"},
        ItemCase{"UpdateStream", false, "s1",
                 "POST /embed/v1/applications/app1/audios/a1/streams/s1"},
        ItemCase{"UpdateAbsentStream", false, std::nullopt,
                 "POST /embed/v1/applications/app1/audios/a1/streams/(null)"},
        ItemCase{"DeleteMedia", true, "", "DELETE /v1/applications/app1/videos/v1"},
        ItemCase{"DeleteStream", true, "s1", "DELETE /v1/applications/app1/videos/v1/streams/s1"}),
    [](const auto& info) { return info.param.name; });

TEST_F(UploadingHandlerTest, GetReadsTheTypesMemberAndDeleteTellsTheDelegate) {
  std::optional<Json> audio;
  std::optional<Json> stream;
  int answers = 0;
  std::string deleted;
  delegate_->deleteWithToken = [&](const std::string& token, const std::string&,
                                   const HttpResponse&, const OptionalError&,
                                   const std::optional<Json>&) { deleted = token; };
  handler().getWithType(
      AUDIO, "a1", nullptr,
      [&](const std::optional<Json>& json, const HttpResponse&, const OptionalError&) {
        main_.async([&, json] {
          audio = json;
          ++answers;
        });
      });
  handler().getOriginalStreamDescriptionForVideoByToken(
      "v1", [&](const std::optional<Json>& json, const HttpResponse&, const OptionalError&) {
        main_.async([&, json] {
          stream = json;
          ++answers;
        });
      });
  handler().deleteWithType(IMAGE, "i1", "", nullptr);
  ASSERT_TRUE(pumpUntil([&] { return answers == 2 && !deleted.empty(); }));
  EXPECT_EQ(audio, (Json{{"token", "a1"}, {"title", "t"}}));
  EXPECT_EQ(stream, (Json{{"token", "o1"}}));
  EXPECT_EQ(deleted, "i1");
}

TEST_F(UploadingHandlerTest, UnsafeTokensAreRefusedWithoutARequest) {
  int refused = 0;
  auto count = [&](const std::optional<Json>&, const HttpResponse&, const OptionalError& e) {
    EXPECT_TRUE(e && e->kind == ErrorKind::InvalidArgument);
    ++refused;
  };
  handler().getWithType(VIDEO, "../../etc", nullptr, count);
  handler().deleteWithType(VIDEO, "v1", "s%2f1", count);
  handler().updateWithType(IMAGE, std::string("i\0x", 3), "", Json::object(), count);
  handler().downloadWithType(AUDIO, "a/b", [&](const auto& path, const OptionalError& e) {
    EXPECT_FALSE(path);
    EXPECT_TRUE(e && e->kind == ErrorKind::InvalidArgument);
    ++refused;
  });
  ASSERT_TRUE(pumpUntil([&] { return refused == 4; }));
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(UploadingHandlerTest, DownloadFetchesAfreshAndLeavesNothingOnFailure) {
  std::optional<std::string> path;
  int answers = 0;
  auto done = [&](const std::optional<std::string>& p, const OptionalError&) {
    path = p;
    ++answers;
  };
  handler().downloadWithType(IMAGE, "i1", done);
  ASSERT_TRUE(pumpUntil([&] { return answers == 1; }));
  ASSERT_TRUE(path);
  EXPECT_EQ(*path, nembra_->cacheManager().getCacheFilePathWithType(IMAGE, "i1"));
  std::ifstream in(*path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "cdn bytes");
  EXPECT_EQ(targets(),
            std::vector<std::string>{"GET /files/v1/applications/app1/images/i1/image.jpg"});

  {
    std::lock_guard lock(mutex_);
    cdnStatus_ = 404;
  }
  OptionalError error;
  handler().downloadWithType(IMAGE, "i1",
                             [&](const std::optional<std::string>& p, const OptionalError& e) {
                               path = p;
                               error = e;
                               ++answers;
                             });
  ASSERT_TRUE(pumpUntil([&] { return answers == 2; }));
  EXPECT_FALSE(path);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, 404);
  EXPECT_FALSE(fs::exists(nembra_->cacheManager().getCacheFilePathWithType(IMAGE, "i1")))
      << "the earlier copy is gone and nothing partial is left";
}

TEST_F(UploadingHandlerTest, CoversAreFetchedOnceAndMustBePictures) {
  int answers = 0;
  StillImagePtr first, second;
  OptionalError badError;
  handler().getImageForVideoByToken(
      "v1", nullptr, [&](StillImagePtr image, const HttpResponse&, const OptionalError&) {
        first = image;
        ++answers;
      });
  ASSERT_TRUE(pumpUntil([&] { return answers == 1; }));
  handler().getImageForVideoByToken(
      "v1", nullptr, [&](StillImagePtr image, const HttpResponse&, const OptionalError&) {
        second = image;
        ++answers;
      });
  handler().getImageForVideoByToken(
      "bad", nullptr, [&](StillImagePtr image, const HttpResponse&, const OptionalError& e) {
        EXPECT_FALSE(image);
        badError = e;
        ++answers;
      });
  ASSERT_TRUE(pumpUntil([&] { return answers == 3; }));
  ASSERT_TRUE(first);
  EXPECT_EQ(first->format, "png");
  EXPECT_EQ(first->width, 1);
  EXPECT_EQ(second, first);
  ASSERT_TRUE(badError);
  EXPECT_EQ(badError->kind, ErrorKind::Media);
  EXPECT_EQ(count("GET /v1/applications/app1/videos/v1/image"), 1u);
  EXPECT_FALSE(handler().thumbCache().objectForKey("bad"));
}

TEST_F(UploadingHandlerTest, ADownloadThatCannotBeWrittenLeavesNothing) {
  // A cache root under a plain file: nothing can be created there.
  std::string blocker = makeFile("blocker");
  nembra_->cacheConfig().setCacheRoot(blocker + "/cache/");
  OptionalError error;
  bool answered = false;
  handler().downloadWithType(VIDEO, "v1",
                             [&](const std::optional<std::string>& path, const OptionalError& e) {
                               EXPECT_FALSE(path);
                               error = e;
                               answered = true;
                             });
  ASSERT_TRUE(pumpUntil([&] { return answered; }));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::File) << error->message;
  EXPECT_TRUE(fs::is_regular_file(blocker));
}

TEST_F(UploadingHandlerTest, ALocalCoverIsGrabbedOnceAtMost1920By1080) {
  std::string video = scratch_.path() + "/wide.mp4";
  ASSERT_FALSE(MediaSampleWriter::writeVideo(video, 0.5, 2560, 1440));
  StillImagePtr first, second;
  handler().getImageForVideoByPath(video, [&](StillImagePtr image, const OptionalError& error) {
    EXPECT_FALSE(error);
    first = image;
  });
  ASSERT_TRUE(pumpUntil([&] { return first != nullptr; }));
  EXPECT_EQ(first->width, 1920);
  EXPECT_EQ(first->height, 1080);
  EXPECT_EQ(first->format, "jpeg");
  // Found in the cache: answered at once, the same picture.
  handler().getImageForVideoByPath(
      video, [&](StillImagePtr image, const OptionalError&) { second = image; });
  EXPECT_EQ(second, first);
}

TEST_F(UploadingHandlerTest, ConversionUploadsTheSmallMp4AndKeepsTheSource) {
  std::string source = scratch_.path() + "/big.mov";
  ASSERT_FALSE(MediaSampleWriter::writeVideo(source, 1.0, 1280, 720));
  const auto sourceSize = fs::file_size(source);
  auto outcome = std::make_shared<Outcome>();
  handler().convertToMp4WithPath(
      source, Json::object(), nullptr, nullptr,
      [outcome](const std::optional<Json>&, const HttpResponse&, const OptionalError& e) {
        ++outcome->confirms;
        outcome->confirmError = e;
      });
  ASSERT_TRUE(pumpUntil([&] { return outcome->confirms == 1; }, milliseconds(60000)));
  EXPECT_FALSE(outcome->confirmError);
  std::string form;
  for (const auto& request : server_.requests()) {
    if (request.target.rfind("/storage", 0) == 0) form = request.body;
  }
  EXPECT_LT(form.size(), sourceSize);
  EXPECT_LT(form.find("moov"), form.find("mdat")) << "the upload starts with its index";
  EXPECT_TRUE(fs::exists(source));
  EXPECT_FALSE(fs::exists(FileSystem::shared().documentsDirectory() + "/video.mp4"))
      << "the converted file goes once confirmed";
}

}  // namespace
}  // namespace nembra
