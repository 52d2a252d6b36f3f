// A media service on 127.0.0.1 for the upload handler's tests: upload URLs, storage, confirms,
// covers, media files and the per-media requests, each answering as the test sets it, with the
// uploading delegate's calls recorded in order.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>

#include "api/reachability.h"
#include "api/upload_journal.h"
#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "nembra/nembra_uploading_handler.h"
#include "platform/files/file_system.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/media_log.h"
#include "platform/net/testing/fake_network_interfaces.h"

namespace nembra::testing {

inline std::string base64(const std::string& text) {
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
inline Json formFields(const std::string& expiration = "2999-01-01T00:00:00Z") {
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
inline const std::string kPng(
    "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52\x00\x00\x00\x01"
    "\x00\x00\x00\x01\x08\x06\x00\x00\x00\x1f\x15\xc4\x89\x00\x00\x00\x0d\x49\x44\x41"
    "\x54\x78\x9c\x63\xf8\xcf\xc0\xf0\x1f\x00\x05\x00\x01\xff\x89\x99\x3d\x1d\x00\x00"
    "\x00\x00\x49\x45\x4e\x44\xae\x42\x60\x82",
    70);

// The network as the tests set it: wired and cellular links up or down.
inline NetworkSnapshot links(bool wired, bool cellular) {
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
    changed_.wait_for(lock, std::chrono::seconds(20), [this] { return open_; });
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

class UploadServiceTest : public ::testing::Test {
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
      reply.set_content(confirmBody_, "application/json");
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
                     const HttpResponse& response, const OptionalError& error,
                     const std::optional<Json>&) {
          bool refused = response.status < 200 || response.status >= 300;
          note("verified " + token + (error ? " with error" : "") +
               (refused ? " (HTTP " + std::to_string(response.status) + ")" : ""));
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
    int urlStatus = 0;
    int confirms = 0;
    OptionalError confirmError;
    int confirmStatus = 0;
  };
  // Starts an upload whose callbacks fill |outcome|.
  NembraUploadingHandler::TaskHandle upload(int type, const std::string& path,
                                            std::shared_ptr<Outcome> outcome) {
    return handler().uploadWithType(
        type, path, Json{{"title", "t"}},
        [outcome](const std::optional<Json>& json, const HttpResponse& response,
                  const OptionalError& e) {
          ++outcome->callbacks;
          outcome->urlJson = json;
          outcome->urlError = e;
          outcome->urlStatus = response.status;
        },
        nullptr,
        [outcome](const std::optional<Json>&, const HttpResponse& response,
                  const OptionalError& e) {
          ++outcome->confirms;
          outcome->confirmError = e;
          outcome->confirmStatus = response.status;
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
  bool pumpUntil(const std::function<bool()>& done,
                 std::chrono::milliseconds timeout = std::chrono::milliseconds(15000)) {
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
  std::string confirmBody_ = R"({"token":"confirmed","state_string":"ready"})";
  std::function<void()> duringStorage_;
  int cdnStatus_ = 200;
  std::string cdnBody_ = "cdn bytes";
};

}  // namespace nembra::testing
