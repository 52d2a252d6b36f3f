#include "service/audio_transcriber.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "service/media_json.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Any file is a two-second video with sound.
class FakeProbe : public MediaProbe {
 public:
  OptionalError probe(const std::string&, MediaProbeResult& result) override {
    result.hasVideo = result.hasAudio = true;
    result.width = 320;
    result.height = 240;
    result.duration = 2.0;
    return std::nullopt;
  }
};

class FakeGrabber : public FrameGrabber {
 public:
  OptionalError grab(const std::string&, const FrameGrabOptions&, GrabbedFrame& frame) override {
    frame.jpeg = {0xFF, 0xD8, 0xFF};
    return std::nullopt;
  }
};

// The file's text says how its sound decodes: "broken" fails, "endless" never ends until told
// to stop, anything else gives one second of samples.
class FakeDecoder : public AudioPcmDecoder {
 public:
  explicit FakeDecoder(std::atomic<bool>& decoding) : decoding_(decoding) {}
  OptionalError decode(const std::string& path, int sampleRate, const Sink& sink) override {
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (text == "broken") return Error::media("the sound does not decode");
    std::vector<int16_t> block(static_cast<size_t>(sampleRate) / 10);
    decoding_ = true;
    for (int i = 0; text == "endless" || i < 10; ++i) {
      if (!sink(block.data(), block.size())) return Error::cancelled();
    }
    return std::nullopt;
  }

 private:
  std::atomic<bool>& decoding_;
};

// Hears "hello" and "world" in whatever it is fed.
class FakeRecognizer : public SpeechRecognizer {
 public:
  OptionalError begin() override {
    fed_ = 0;
    return std::nullopt;
  }
  OptionalError feed(const int16_t*, size_t count) override {
    fed_ += count;
    return std::nullopt;
  }
  OptionalError finish(std::vector<RecognizedWord>& words) override {
    if (fed_ == 0) return Error::media("nothing was fed");
    words = {{"hello", 120, 480}, {"world", 530, 990}};
    return std::nullopt;
  }

 private:
  size_t fed_ = 0;
};

class AudioTranscriberTest : public ::testing::Test {
 protected:
  AudioTranscriberTest()
      : root_(fs::temp_directory_path() /
              ("nembra-transcriber-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name())),
        directory_(root_.string()),
        analyzer_(std::make_unique<FakeProbe>(), std::make_unique<FakeGrabber>()),
        signer_(StorageCredentials{"KEY", "secret"}, "bucket", "http://storage"),
        json_(PublicUrls::fromBase("http://127.0.0.1:1", "http://127.0.0.1:2", "")) {
    fs::remove_all(root_);
    EXPECT_FALSE(directory_.prepare());
    auto store = MediaStore::open(directory_.databasePath());
    EXPECT_TRUE(store.ok());
    store_ = std::move(*store);
    library_ = std::make_unique<MediaLibrary>(*store_, directory_, analyzer_, signer_, options_);
    transcriber_ = std::make_unique<AudioTranscriber>(
        *library_,
        [this](const std::string& line) {
          std::lock_guard lock(logMutex_);
          log_ += line + "\n";
        },
        [](OptionalError&) { return std::make_unique<FakeRecognizer>(); },
        [this] { return std::make_unique<FakeDecoder>(decoding_); });
    library_->setReadyListener(
        [this](const std::string& application, MediaKind kind, const StreamRecord& stream) {
          transcriber_->enqueue(application, kind, stream);
        });
    transcriber_->start();
    auth_.application = "app";
    auth_.sessionDigest = "digest";
  }
  ~AudioTranscriberTest() override {
    transcriber_.reset();
    library_.reset();
    store_.reset();
    fs::remove_all(root_);
  }

  // A submitted video whose file holds |content|: its token.
  std::string readyVideo(const std::string& content) {
    auto created = library_->create(auth_, MediaKind::Video, FormParams(), StreamOrigin::Recorder);
    EXPECT_TRUE(created.ok());
    std::string v = created->media.token, s = created->streams[0].token;
    std::string upload = directory_.newTemporaryPath(".part");
    std::ofstream(upload) << content;
    EXPECT_TRUE(
        library_
            ->attachFile("app", MediaKind::Video, v, s, upload, MediaLibrary::Unplayable::Refuse)
            .ok());
    EXPECT_TRUE(library_->submit("app", MediaKind::Video, v, s).ok());
    return v;
  }

  // The original stream as clients read it.
  nlohmann::ordered_json originalStream(const std::string& video) {
    auto view = library_->get("app", MediaKind::Video, video);
    return view.ok() ? json_.video(*view)["original_stream"] : nlohmann::ordered_json();
  }

  bool waitForLog(const std::string& text) {
    for (int i = 0; i < 500; ++i) {
      {
        std::lock_guard lock(logMutex_);
        if (log_.find(text) != std::string::npos) return true;
      }
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }

  std::string log() {
    std::lock_guard lock(logMutex_);
    return log_;
  }

  fs::path root_;
  DataDirectory directory_;
  MediaAnalyzer analyzer_;
  StoragePolicySigner signer_;
  ServiceOptions options_;
  MediaJson json_;
  RequestAuth auth_;
  std::atomic<bool> decoding_{false};
  std::mutex logMutex_;
  std::string log_;
  std::unique_ptr<MediaStore> store_;
  std::unique_ptr<MediaLibrary> library_;
  std::unique_ptr<AudioTranscriber> transcriber_;
};

TEST_F(AudioTranscriberTest, AReadyVideoGetsItsWordsAndMillisecondTimesInTheOriginalStream) {
  std::string v = readyVideo("speech");
  ASSERT_TRUE(waitForLog("transcribed video " + v)) << log();
  auto original = originalStream(v);
  EXPECT_EQ(original["audio_transcription"].dump(),
            R"({"words":["hello","world"],"times":[{"end":480,"start":120},)"
            R"({"end":990,"start":530}]})");
  // The stream's own description carries it as well.
  auto view = library_->get("app", MediaKind::Video, v);
  EXPECT_EQ(json_.stream(*view, view->streams[0])["audio_transcription"]["words"][1], "world");
}

TEST_F(AudioTranscriberTest, AnUploadedButUnsubmittedVideoIsNotTranscribed) {
  auto created = library_->create(auth_, MediaKind::Video, FormParams(), StreamOrigin::Recorder);
  std::string v = created->media.token, s = created->streams[0].token;
  std::string upload = directory_.newTemporaryPath(".part");
  std::ofstream(upload) << "speech";
  ASSERT_TRUE(
      library_->attachFile("app", MediaKind::Video, v, s, upload, MediaLibrary::Unplayable::Refuse)
          .ok());
  // A later ready video is transcribed; the unsubmitted one was never queued before it.
  std::string later = readyVideo("speech");
  ASSERT_TRUE(waitForLog("transcribed video " + later));
  EXPECT_EQ(log().find(v), std::string::npos);
  EXPECT_FALSE(originalStream(v)["audio_transcription"].contains("words"));
}

TEST_F(AudioTranscriberTest, ABadFileIsLoggedWithoutTranscriptionAndTheNextOneStillWorks) {
  std::string bad = readyVideo("broken");
  std::string good = readyVideo("speech");
  ASSERT_TRUE(waitForLog("transcribed video " + good)) << log();
  EXPECT_NE(log().find("no transcription of video " + bad), std::string::npos) << log();
  EXPECT_NE(log().find("the sound does not decode"), std::string::npos);
  EXPECT_FALSE(originalStream(bad)["audio_transcription"].contains("words"));
  EXPECT_TRUE(originalStream(good)["audio_transcription"].contains("words"));
}

TEST_F(AudioTranscriberTest, StopCutsTheStreamInProgressShortAndDropsTheQueue) {
  std::string endless = readyVideo("endless");
  std::string queued = readyVideo("speech");
  for (int i = 0; i < 500 && !decoding_; ++i) std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(decoding_);
  transcriber_->stop();  // returns only once the worker has ended
  EXPECT_FALSE(originalStream(endless)["audio_transcription"].contains("words"));
  EXPECT_FALSE(originalStream(queued)["audio_transcription"].contains("words"));
  EXPECT_EQ(log().find("transcribed"), std::string::npos) << log();
  EXPECT_EQ(log().find("no transcription"), std::string::npos) << log();
}

}  // namespace
}  // namespace nembra
