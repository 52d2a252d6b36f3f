#include "nembra/nembra_videos.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "nembra/application.h"
#include "nembra/media_type.h"
#include "nembra/nembra_audios.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "nembra/nembra_images.h"
#include "platform/files/file_system.h"
#include "platform/http/testing/http_test_support.h"
#include "platform/media/image_codec.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using nembra::testing::HttpTestServer;
using nembra::testing::ScratchDirectory;

const std::string kBase = "/v1/applications/app1/videos";

class VideosTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FileSystem::shared().setRoot(scratch_.path() + "/root");
    server_.on("POST", kBase, [this](const httplib::Request&, httplib::Response& reply) {
      std::lock_guard lock(mutex_);
      reply.set_content(createReply_, "application/json");
    });
    server_.on("POST", kBase + "/v1/streams",
               [](const httplib::Request&, httplib::Response& reply) {
                 reply.set_content(R"({"token":"s2"})", "application/json");
               });
    server_.on("POST", kBase + "/v1/streams/(s1|s2)/videoattach",
               [this](const httplib::Request&, httplib::Response& reply) {
                 reply.status = attachStatus_;
                 reply.set_content(R"({"token":"v1","title":"done"})", "application/json");
               });
    server_.on("POST", kBase + "/v1/streams/(s1|s2)/(imageattach|recordersubmit)",
               [](const httplib::Request&, httplib::Response& reply) {
                 reply.set_content(R"({"token":"v1","title":"done"})", "application/json");
               });
    server_.on("GET", kBase, [this](const httplib::Request&, httplib::Response& reply) {
      std::lock_guard lock(mutex_);
      reply.status = indexStatus_;
      reply.set_content(indexBody_, "application/json");
    });
    // An audios index that is not a list. Routes are all set before the server starts: adding
    // one while it serves would race with its threads.
    server_.on("GET", "/embed/v1/applications/app1/audios", [](const auto&, auto& reply) {
      reply.set_content(R"({"not":"a list"})", "application/json");
    });
    for (const char* method : {"GET", "POST", "DELETE"}) {
      server_.on(method, "/.*", [](const httplib::Request&, httplib::Response& reply) {
        reply.set_content(R"({"token":"v1","default_stream":{"token":"d1"},)"
                          R"("original_stream":{"token":"o1"}})",
                          "application/json");
      });
    }
    server_.start();
    nembra_.config().useSingleServer(server_.url());
    nembra_.connect().setSessionKey("k3v9qd72mx0wzr5hub81tneaapp1");
    nembra_.connect().setSessionValue("S1");
    nembra_.enableDebugLogs = true;
    nembra_.setLogSink([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      logs_.push_back(line);
    });
    nembra_.setUploadingDelegate(delegate_);
    delegate_->uploadFinishedWithPath = [this](const std::string&, const std::string& token,
                                               const std::string&) { finished_.push_back(token); };
  }

  // Its handlers read the members below, which go before it does.
  void TearDown() override { server_.stop(); }

  std::vector<std::string> targets() {
    std::vector<std::string> all;
    for (const auto& r : server_.requests()) {
      all.push_back(r.method + " " + r.target.substr(0, r.target.find('?')));
    }
    return all;
  }
  bool logged(const std::string& line) {
    std::lock_guard lock(mutex_);
    return std::find(logs_.begin(), logs_.end(), line) != logs_.end();
  }
  std::string makeFile(const std::string& name, const std::string& content) {
    std::string path = scratch_.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  // Runs the create flow and waits for its callback.
  OptionalError create(const std::string& file, StillImagePtr cover) {
    std::atomic<bool> done = false;
    OptionalError result;
    nembra_.videos().createVideoWithData(
        Json{{"title", "t"}}, file, cover,
        [&](const std::optional<Json>&, const HttpResponse&, const OptionalError& error) {
          result = error;
          done = true;
        },
        nullptr);
    EXPECT_TRUE(main_.runUntil([&] { return done.load(); }, std::chrono::seconds(15)));
    main_.runUntilIdle();
    return result;
  }

  ScratchDirectory scratch_;
  MainQueue main_;
  HttpTestServer server_;
  Nembra nembra_{"app1", main_};
  std::shared_ptr<NembraUploadingDelegate> delegate_ = std::make_shared<NembraUploadingDelegate>();
  std::vector<std::string> finished_;
  std::mutex mutex_;
  std::vector<std::string> logs_;
  std::string createReply_ = R"({"video":{"token":"v1"},"stream":{"token":"s1"}})";  // mutex_
  std::atomic<int> attachStatus_ = 200;
  int indexStatus_ = 200;         // guarded by mutex_
  std::string indexBody_ = "[]";  // guarded by mutex_
};

TEST_F(VideosTest, CreateFromAFileCreatesAttachesSubmitsAndCaches) {
  std::string file = makeFile("take.mp4", "recorded bytes");
  EXPECT_FALSE(create(file, nullptr));
  EXPECT_EQ(targets(), (std::vector<std::string>{
                           "POST " + kBase, "POST " + kBase + "/v1/streams/s1/videoattach",
                           "POST " + kBase + "/v1/streams/s1/recordersubmit"}));
  auto requests = server_.requests();
  EXPECT_NE(requests[0].target.find("?create_stream=true"), std::string::npos);
  EXPECT_NE(requests[1].body.find("filename=\"video.mp4\";\r\nContent-Type: video/mp4\r\n\r\n"
                                  "recorded bytes\r\n"),
            std::string::npos);
  EXPECT_TRUE(logged("video created with token: v1, default stream: s1"));
  EXPECT_TRUE(
      logged("recorder submitted with error: (null), response: "
             R"({"token":"v1","title":"done"})"));
  std::string cached = nembra_.cacheManager().getCacheFilePathWithType(VIDEO, "v1");
  std::ifstream in(cached, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "recorded bytes");
  EXPECT_TRUE(fs::exists(file)) << "the caller's file is not touched";
  EXPECT_EQ(finished_, std::vector<std::string>{"v1"});
}

TEST_F(VideosTest, ACoverGoesAsAJpegBodyBetweenCreateAndAttach) {
  // A 1×1 PNG: the cover is sent re-encoded as JPEG.
  const std::string png(
      "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52\x00\x00\x00\x01"
      "\x00\x00\x00\x01\x08\x06\x00\x00\x00\x1f\x15\xc4\x89\x00\x00\x00\x0d\x49\x44\x41"
      "\x54\x78\x9c\x63\xf8\xcf\xc0\xf0\x1f\x00\x05\x00\x01\xff\x89\x99\x3d\x1d\x00\x00"
      "\x00\x00\x49\x45\x4e\x44\xae\x42\x60\x82",
      70);
  auto cover = std::make_shared<StillImage>(
      StillImage{std::vector<uint8_t>(png.begin(), png.end()), "png", 1, 1});
  EXPECT_FALSE(create(makeFile("take.mp4", "bytes"), cover));
  auto all = targets();
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[1], "POST " + kBase + "/v1/streams/s1/imageattach");
  std::string body = server_.requests()[1].body;
  EXPECT_EQ(body.substr(0, 3), "\xFF\xD8\xFF");
  ImageInfo info;
  EXPECT_FALSE(makeImageCodec()->inspect(
      std::span(reinterpret_cast<const uint8_t*>(body.data()), body.size()), info));
  EXPECT_TRUE(
      logged("cover for video v1, stream s1 set with error: (null), response: 200 "
             R"({"token":"v1","title":"done"})"));
}

TEST_F(VideosTest, ACreateAnswerWithoutAStreamStopsBeforeAnyUpload) {
  {
    std::lock_guard lock(mutex_);
    createReply_ = R"({"video":{"token":"v1"}})";
  }
  std::string file = makeFile("take.mp4", "bytes");
  EXPECT_FALSE(create(file, nullptr)) << "the answer's own error, which is none";
  EXPECT_EQ(targets(), std::vector<std::string>{"POST " + kBase});
  EXPECT_TRUE(logged("ERROR: no video or stream object created"));
  EXPECT_EQ(finished_, std::vector<std::string>{"v1"});
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(VideosTest, TheStreamIsSubmittedWhateverTheAttachAnswered) {
  attachStatus_ = 500;
  std::string file = makeFile("take.mp4", "recorded bytes");
  EXPECT_FALSE(create(file, nullptr)) << "the submit answered";
  EXPECT_EQ(targets(), (std::vector<std::string>{
                           "POST " + kBase, "POST " + kBase + "/v1/streams/s1/videoattach",
                           "POST " + kBase + "/v1/streams/s1/recordersubmit"}));
  EXPECT_TRUE(logged("video attached with error: (null), response: 500 (null)"));
}

TEST_F(VideosTest, RerecordAttachesToANewStreamOfTheVideo) {
  std::string file = makeFile("again.mp4", "second take");
  std::atomic<bool> done = false;
  nembra_.videos().rerecordVideoWithToken(
      "v1", file, Json::object(),
      [&](const std::optional<Json>&, const HttpResponse&, const OptionalError& error) {
        EXPECT_FALSE(error);
        done = true;
      },
      nullptr);
  ASSERT_TRUE(main_.runUntil([&] { return done.load(); }));
  EXPECT_EQ(targets(),
            (std::vector<std::string>{"POST " + kBase + "/v1/streams",
                                      "POST " + kBase + "/v1/streams/s2/videoattach",
                                      "POST " + kBase + "/v1/streams/s2/recordersubmit"}));
  EXPECT_TRUE(logged("creating stream for video v1"));
  EXPECT_TRUE(logged(R"(video token: v1, stream: s2, streamCreatedResponse: {"token":"s2"})"));
}

TEST_F(VideosTest, PathsOfTheSmallRequests) {
  std::atomic<int> answers = 0;
  auto count = [&](const auto&, const HttpResponse&, const OptionalError&) { ++answers; };
  std::optional<std::string> defaultStream;
  std::vector<std::string> deleted;
  delegate_->deleteWithToken = [&](const std::string& token, const std::string& stream,
                                   const HttpResponse&, const OptionalError&,
                                   const std::optional<Json>&) {
    EXPECT_TRUE(main_.isCurrent());
    deleted.push_back(token + "/" + stream);
  };
  NembraVideos& videos = nembra_.videos();
  videos.destroy("v1", "", count);
  videos.destroy("v1", "s1", count);
  nembra_.audios().destroy("a1", count);
  nembra_.images().destroy("i1", count);
  videos.getDefaultStreamForVideoByToken("v1", [&](const std::optional<std::string>& token,
                                                   const HttpResponse&, const OptionalError&) {
    defaultStream = token;
    ++answers;
  });
  videos.getOriginalStreamDescriptionForVideoByToken("v1", count);
  ASSERT_TRUE(main_.runUntil([&] { return answers == 6 && deleted.size() == 4; }));
  auto all = targets();
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all,
            (std::vector<std::string>{
                "DELETE /embed/v1/applications/app1/audios/a1",
                "DELETE /embed/v1/applications/app1/images/i1", "DELETE " + kBase + "/v1",
                "DELETE " + kBase + "/v1/streams/s1", "GET " + kBase + "/v1", "GET /videos/v1"}));
  std::sort(deleted.begin(), deleted.end());
  EXPECT_EQ(deleted, (std::vector<std::string>{"a1/", "i1/", "v1/", "v1/s1"}))
      << "every destroy goes through the handler's delete";
  EXPECT_EQ(defaultStream, "d1");
  EXPECT_EQ(videos.getImageUrl("v1"), server_.url("/cdn/v1/applications/app1/videos/v1/image"));
}

TEST_F(VideosTest, ModelsArriveOnTheMainQueue) {
  std::vector<Audio> audios{Audio()};
  OptionalError indexError;
  Image updated;
  int answers = 0;
  nembra_.audios().index(Json::object(), [&](const std::vector<Audio>& models, const HttpResponse&,
                                             const OptionalError& error) {
    EXPECT_TRUE(main_.isCurrent());
    audios = models;
    indexError = error;
    ++answers;
  });
  Image model;
  model.title = "renamed";
  nembra_.images().update(model,
                          [&](const Image& image, const HttpResponse&, const OptionalError&) {
                            EXPECT_TRUE(main_.isCurrent());
                            updated = image;
                            ++answers;
                          });
  ASSERT_TRUE(main_.runUntil([&] { return answers == 2; }));
  EXPECT_TRUE(audios.empty());
  EXPECT_FALSE(indexError) << "the answer's own error, which is none";
  EXPECT_EQ(updated.token, "v1");
  bool loneSlash = false;
  for (const auto& r : server_.requests()) {
    if (r.method == "POST" && r.target == "/embed/v1/applications/app1/images/") {
      loneSlash = r.body.find("title=renamed&") != std::string::npos;
    }
  }
  EXPECT_TRUE(loneSlash) << "an empty token posts to the base followed by a lone slash";
}

struct IndexCase {
  const char* name;
  int status;
  const char* body;
  size_t models;
};

class VideosIndexTest : public VideosTest, public ::testing::WithParamInterface<IndexCase> {};

// The answer is handed on as it came: its status in the response, never turned into an error.
TEST_P(VideosIndexTest, GivesTheModelsWithTheAnswersOwnError) {
  const IndexCase& c = GetParam();
  {
    std::lock_guard lock(mutex_);
    indexStatus_ = c.status;
    indexBody_ = c.body;
  }
  std::optional<size_t> models;
  HttpResponse response;
  OptionalError error;
  nembra_.videos().index(Json::object(), [&](const std::vector<Video>& videos,
                                             const HttpResponse& r, const OptionalError& e) {
    models = videos.size();
    response = r;
    error = e;
  });
  ASSERT_TRUE(main_.runUntil([&] { return models.has_value(); }));
  EXPECT_EQ(*models, c.models);
  EXPECT_EQ(response.status, c.status);
  EXPECT_FALSE(error) << error->message;
}

INSTANTIATE_TEST_SUITE_P(
    Answers, VideosIndexTest,
    ::testing::Values(IndexCase{"TwoVideos", 200, R"([{"token":"a"},{"token":"b"}])", 2},
                      IndexCase{"EmptyList", 200, "[]", 0},
                      IndexCase{"Refused", 401, R"({"message":"bad token"})", 0}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace nembra
