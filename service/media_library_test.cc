#include "service/media_library.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/http/http_time.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;

// Reads the file's first line: "video W H SECONDS", "audio SECONDS", "picture W H"; anything
// else is not media.
class FakeProbe : public MediaProbe {
 public:
  OptionalError probe(const std::string& path, MediaProbeResult& result) override {
    std::ifstream in(path);
    std::string kind;
    in >> kind;
    if (kind == "video") {
      result.hasVideo = result.hasAudio = true;
      in >> result.width >> result.height >> result.duration;
    } else if (kind == "audio") {
      result.hasAudio = true;
      in >> result.duration;
    } else if (kind == "picture") {
      result.hasVideo = true;
      in >> result.width >> result.height;
    } else {
      return Error::media("not media");
    }
    return std::nullopt;
  }
};

class FakeGrabber : public FrameGrabber {
 public:
  OptionalError grab(const std::string& path, const FrameGrabOptions&,
                     GrabbedFrame& frame) override {
    std::string jpeg = "\xFF\xD8\xFF grabbed from " + fs::path(path).filename().string();
    frame.jpeg.assign(jpeg.begin(), jpeg.end());
    return std::nullopt;
  }
};

class MediaLibraryTest : public ::testing::Test {
 protected:
  MediaLibraryTest()
      : root_(fs::temp_directory_path() /
              ("nembra-library-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name())),
        directory_(root_.string()),
        analyzer_(std::make_unique<FakeProbe>(), std::make_unique<FakeGrabber>()),
        signer_(StorageCredentials{"KEY", "secret"}, "bucket", "http://storage") {
    fs::remove_all(root_);
    EXPECT_FALSE(directory_.prepare());
    openStore();
    auth_.application = "app";
    auth_.sessionDigest = "digest";
  }
  ~MediaLibraryTest() override {
    library_.reset();
    store_.reset();
    fs::remove_all(root_);
  }

  void openStore() {
    library_.reset();
    store_.reset();
    auto store = MediaStore::open(directory_.databasePath());
    ASSERT_TRUE(store.ok()) << store.error().message;
    store_ = std::move(*store);
    library_ = std::make_unique<MediaLibrary>(*store_, directory_, analyzer_, signer_, options_);
  }

  // A new upload file in the temporary directory, as a receiver leaves it.
  std::string upload(const std::string& content) {
    std::string path = directory_.newTemporaryPath(".part");
    std::ofstream(path) << content;
    return path;
  }

  MediaView createVideo(StreamOrigin origin = StreamOrigin::Recorder) {
    auto view = library_->create(auth_, MediaKind::Video, FormParams(), origin);
    EXPECT_TRUE(view.ok());
    return *view;
  }

  StreamState stateOf(const std::string& media, const std::string& stream) {
    auto view = library_->get("app", MediaKind::Video, media);
    return view->stream(stream)->state;
  }

  static int status(const Error& error) { return error.kind == ErrorKind::Http ? error.code : 0; }

  fs::path root_;
  DataDirectory directory_;
  MediaAnalyzer analyzer_;
  StoragePolicySigner signer_;
  ServiceOptions options_;
  std::unique_ptr<MediaStore> store_;
  std::unique_ptr<MediaLibrary> library_;
  RequestAuth auth_;
};

TEST_F(MediaLibraryTest, RecordedStreamGoesCreatedUploadedReadyAndRefusesEarlyOrRepeatedSteps) {
  MediaView video = createVideo();
  const std::string v = video.media.token, s = video.streams[0].token;

  auto early = library_->submit("app", MediaKind::Video, v, s);
  ASSERT_FALSE(early.ok());
  EXPECT_EQ(status(early.error()), 409);
  auto earlyConfirm = library_->confirm("app", MediaKind::Video, v, s);
  EXPECT_EQ(status(earlyConfirm.error()), 409);

  auto attached = library_->attachFile("app", MediaKind::Video, v, s, upload("video 640 360 4.5"),
                                       MediaLibrary::Unplayable::Refuse);
  ASSERT_TRUE(attached.ok()) << attached.error().message;
  const StreamRecord* stream = attached->stream(s);
  EXPECT_EQ(stream->state, StreamState::Uploaded);
  EXPECT_EQ(stream->width, 640);
  EXPECT_EQ(stream->duration, 4.5);
  EXPECT_GT(stream->coverSize, 0);
  EXPECT_TRUE(fs::exists(directory_.streamFile("app", MediaKind::Video, v, s)));

  ASSERT_TRUE(library_->submit("app", MediaKind::Video, v, s).ok());
  EXPECT_EQ(stateOf(v, s), StreamState::Ready);
  EXPECT_EQ(status(library_->submit("app", MediaKind::Video, v, s).error()), 409);
  EXPECT_EQ(status(library_->confirm("app", MediaKind::Video, v, s).error()), 409);
  // A ready stream keeps its file.
  auto replaced = library_->attachFile("app", MediaKind::Video, v, s, upload("video 1 1 1"),
                                       MediaLibrary::Unplayable::Refuse);
  EXPECT_EQ(status(replaced.error()), 409);
  EXPECT_EQ(stateOf(v, s), StreamState::Ready);
  EXPECT_TRUE(fs::is_empty(directory_.temporaryDirectory()));
}

TEST_F(MediaLibraryTest, LiveStreamSubmittedDuringThePublishIsReadyWhenTheRecordingArrives) {
  MediaView video = createVideo(StreamOrigin::Live);
  const std::string v = video.media.token, s = video.streams[0].token;
  ASSERT_TRUE(library_->startLive("app", v, s).ok());
  EXPECT_EQ(status(library_->startLive("app", v, s).error()), 409);  // one publish at a time
  // The recorder submits as the publish stops, before the ingest has stored anything.
  ASSERT_TRUE(library_->submit("app", MediaKind::Video, v, s).ok());
  EXPECT_EQ(stateOf(v, s), StreamState::Live);
  // A client may not attach into a stream being published; the ingest may.
  EXPECT_EQ(status(library_
                       ->attachFile("app", MediaKind::Video, v, s, upload("video 2 2 2"),
                                    MediaLibrary::Unplayable::Refuse)
                       .error()),
            409);
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Video, v, s, upload("video 320 240 3"),
                               MediaLibrary::Unplayable::Refuse, true)
                  .ok());
  EXPECT_EQ(stateOf(v, s), StreamState::Ready);
  EXPECT_EQ(status(library_->startLive("app", v, s).error()), 409);
}

TEST_F(MediaLibraryTest, OnlyLiveStreamsTakePublishesAndAnAbandonedOneCanBeRetried) {
  MediaView recorded = createVideo();
  auto refused = library_->startLive("app", recorded.media.token, recorded.streams[0].token);
  EXPECT_EQ(status(refused.error()), 403);

  MediaView live = createVideo(StreamOrigin::Live);
  const std::string v = live.media.token, s = live.streams[0].token;
  ASSERT_TRUE(library_->startLive("app", v, s).ok());
  EXPECT_FALSE(library_->abandonLive("app", v, s));
  EXPECT_EQ(stateOf(v, s), StreamState::Created);
  EXPECT_TRUE(library_->startLive("app", v, s).ok());
}

TEST_F(MediaLibraryTest, UnplayableFilesAreRefusedOrKeptWithTheirError) {
  MediaView video = createVideo();
  const std::string v = video.media.token, s = video.streams[0].token;
  std::string junk = upload("not media at all");
  auto refused =
      library_->attachFile("app", MediaKind::Video, v, s, junk, MediaLibrary::Unplayable::Refuse);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().kind, ErrorKind::Media);
  EXPECT_FALSE(fs::exists(junk));
  EXPECT_EQ(stateOf(v, s), StreamState::Created);

  auto kept = library_->attachFile("app", MediaKind::Video, v, s, upload("still junk"),
                                   MediaLibrary::Unplayable::Keep);
  ASSERT_TRUE(kept.ok());
  EXPECT_EQ(kept->stream(s)->state, StreamState::Uploaded);
  EXPECT_FALSE(kept->stream(s)->probeError.empty());
  EXPECT_EQ(status(library_->confirm("app", MediaKind::Video, v, s).error()), 422);
}

TEST_F(MediaLibraryTest, ChosenCoverSurvivesANewFileAndAGrabbedOneIsReplaced) {
  MediaView video = createVideo();
  const std::string v = video.media.token, s = video.streams[0].token;
  std::string cover = directory_.coverFile("app", MediaKind::Video, v, s);
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Video, v, s, upload("video 10 10 1"),
                               MediaLibrary::Unplayable::Refuse)
                  .ok());
  auto read = [&] {
    std::ifstream in(cover);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  std::string grabbed = read();
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Video, v, s, upload("video 20 20 1"),
                               MediaLibrary::Unplayable::Refuse)
                  .ok());
  EXPECT_NE(read(), grabbed);  // grabbed again from the new file

  ASSERT_TRUE(library_->attachCover("app", MediaKind::Video, v, s, upload("picture 4 3")).ok());
  EXPECT_EQ(read(), "picture 4 3");
  auto again = library_->attachFile("app", MediaKind::Video, v, s, upload("video 30 30 1"),
                                    MediaLibrary::Unplayable::Refuse);
  ASSERT_TRUE(again.ok());
  EXPECT_TRUE(again->stream(s)->coverChosen);
  EXPECT_EQ(read(), "picture 4 3");
  // Not a picture: refused, nothing changes.
  auto wrong = library_->attachCover("app", MediaKind::Video, v, s, upload("audio 3"));
  EXPECT_EQ(status(wrong.error()), 415);
  EXPECT_EQ(read(), "picture 4 3");
}

TEST_F(MediaLibraryTest, DefaultStreamIsTheNewestWithAFileAndDeletesRemoveFiles) {
  MediaView video = createVideo();
  const std::string v = video.media.token, first = video.streams[0].token;
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Video, v, first, upload("video 1 1 1"),
                               MediaLibrary::Unplayable::Refuse)
                  .ok());
  auto second = library_->createStream("app", MediaKind::Video, v, StreamOrigin::Recorder);
  ASSERT_TRUE(second.ok());
  auto view = library_->get("app", MediaKind::Video, v);
  EXPECT_EQ(view->defaultStream()->token, first);  // the new one has no file yet
  EXPECT_EQ(view->originalStream()->token, first);
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Video, v, second->token, upload("video 2 2 2"),
                               MediaLibrary::Unplayable::Refuse)
                  .ok());
  view = library_->get("app", MediaKind::Video, v);
  EXPECT_EQ(view->defaultStream()->token, second->token);

  auto afterStreamDelete = library_->removeStream("app", MediaKind::Video, v, second->token);
  ASSERT_TRUE(afterStreamDelete.ok());
  EXPECT_EQ(afterStreamDelete->defaultStream()->token, first);
  EXPECT_FALSE(fs::exists(directory_.streamDirectory("app", MediaKind::Video, v, second->token)));

  ASSERT_TRUE(library_->remove("app", MediaKind::Video, v).ok());
  EXPECT_FALSE(fs::exists(directory_.mediaDirectory("app", MediaKind::Video, v)));
  EXPECT_EQ(status(library_->get("app", MediaKind::Video, v).error()), 404);
}

TEST_F(MediaLibraryTest, MediaOfAnotherApplicationOrKindIsNotFound) {
  MediaView video = createVideo();
  EXPECT_EQ(status(library_->get("other", MediaKind::Video, video.media.token).error()), 404);
  EXPECT_EQ(status(library_->get("app", MediaKind::Audio, video.media.token).error()), 404);
  EXPECT_EQ(status(library_->remove("other", MediaKind::Video, video.media.token).error()), 404);
  EXPECT_TRUE(library_->get("app", MediaKind::Video, video.media.token).ok());
}

TEST_F(MediaLibraryTest, EverythingSurvivesReopeningTheStore) {
  FormParams params;
  params.add("title", "kept");
  auto audio = library_->create(auth_, MediaKind::Audio, params, StreamOrigin::Upload);
  ASSERT_TRUE(audio.ok());
  auto form =
      library_->uploadForm("app", MediaKind::Audio, audio->media.token, audio->streams[0].token);
  ASSERT_TRUE(form.ok());
  std::string key = (*form)["fields"]["key"];

  openStore();
  auto again = library_->get("app", MediaKind::Audio, audio->media.token);
  ASSERT_TRUE(again.ok());
  EXPECT_EQ(again->media.attributes["title"], "kept");
  EXPECT_EQ(again->streams.size(), 1u);
  auto ticket = library_->ticket(key);
  ASSERT_TRUE(ticket.ok());
  EXPECT_EQ(ticket->stream, audio->streams[0].token);
  EXPECT_EQ(ticket->kind, MediaKind::Audio);
  EXPECT_EQ(status(library_->ticket(key + "x").error()), 403);
}

TEST_F(MediaLibraryTest, AVideoUploadedAsAnImageIsRefusedAsNotAPicture) {
  auto image = library_->create(auth_, MediaKind::Image, FormParams(), StreamOrigin::Upload);
  ASSERT_TRUE(image.ok());
  const std::string m = image->media.token, s = image->streams[0].token;
  auto refused = library_->attachFile("app", MediaKind::Image, m, s, upload("video 640 360 3"),
                                      MediaLibrary::Unplayable::Refuse);
  ASSERT_FALSE(refused.ok());
  EXPECT_NE(refused.error().message.find("not a picture"), std::string::npos);

  // Stored first and judged at the confirm, as the storage endpoint does.
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Image, m, s, upload("video 640 360 3"),
                               MediaLibrary::Unplayable::Keep)
                  .ok());
  auto confirmed = library_->confirm("app", MediaKind::Image, m, s);
  EXPECT_EQ(status(confirmed.error()), 422);
  EXPECT_NE(confirmed.error().message.find("a video"), std::string::npos);
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Image, m, s, upload("picture 64 48"),
                               MediaLibrary::Unplayable::Refuse)
                  .ok());
}

TEST_F(MediaLibraryTest, UploadsWhoseFileNeverCameAreRemovedAfterTheirLifetime) {
  options_.unconfirmedVideoLifetimeSeconds = 3600;
  MediaView abandoned = createVideo(StreamOrigin::Upload);
  MediaView recorded = createVideo(StreamOrigin::Recorder);
  MediaView uploaded = createVideo(StreamOrigin::Upload);
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Video, uploaded.media.token,
                               uploaded.streams[0].token, upload("video 2 2 2"),
                               MediaLibrary::Unplayable::Keep)
                  .ok());
  int64_t now = unixNow();
  EXPECT_EQ(*library_->removeAbandonedUploads(now), 0);  // still within its lifetime
  EXPECT_EQ(*library_->removeAbandonedUploads(now + 3601), 1);
  EXPECT_EQ(status(library_->get("app", MediaKind::Video, abandoned.media.token).error()), 404);
  EXPECT_TRUE(library_->get("app", MediaKind::Video, recorded.media.token).ok());
  EXPECT_TRUE(library_->get("app", MediaKind::Video, uploaded.media.token).ok());
}

TEST_F(MediaLibraryTest, ExpiredUploadTicketsAreRefused) {
  options_.uploadUrlLifetimeSeconds = -10;
  MediaView video = createVideo(StreamOrigin::Upload);
  auto form =
      library_->uploadForm("app", MediaKind::Video, video.media.token, video.streams[0].token);
  ASSERT_TRUE(form.ok());
  auto ticket = library_->ticket((*form)["fields"]["key"]);
  EXPECT_EQ(status(ticket.error()), 403);
}

TEST_F(MediaLibraryTest, ConcurrentConfirmsOfOneStreamSucceedOnce) {
  MediaView video = createVideo(StreamOrigin::Upload);
  const std::string v = video.media.token, s = video.streams[0].token;
  ASSERT_TRUE(library_
                  ->attachFile("app", MediaKind::Video, v, s, upload("video 1 1 1"),
                               MediaLibrary::Unplayable::Keep)
                  .ok());
  std::atomic<int> succeeded{0}, conflicts{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      auto result = library_->confirm("app", MediaKind::Video, v, s);
      if (result.ok()) {
        ++succeeded;
      } else if (status(result.error()) == 409) {
        ++conflicts;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(succeeded.load(), 1);
  EXPECT_EQ(conflicts.load(), 7);
}

}  // namespace
}  // namespace nembra
