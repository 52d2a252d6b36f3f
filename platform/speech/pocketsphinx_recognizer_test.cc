#include "platform/speech/pocketsphinx_recognizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "platform/media/audio_pcm_decoder.h"
#include "platform/speech/testing/spoken_media.h"

namespace nembra {
namespace {

using testing::MediaTestFiles;

// Words the recognizer hears well in espeak-ng's voice.
constexpr const char* kCounting = "one two three four five six";

std::string describe(const std::vector<RecognizedWord>& words) {
  std::string text;
  for (const auto& word : words) text += word.text + "@" + std::to_string(word.startMs) + " ";
  return text;
}

// Words of a sentence the recognizer heard, whatever their order.
std::set<std::string> heard(const std::vector<RecognizedWord>& words) {
  std::set<std::string> texts;
  for (const auto& word : words) texts.insert(word.text);
  return texts;
}

class PocketSphinxRecognizerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!MediaTestFiles::haveFfmpeg() || !testing::haveEspeak()) {
      GTEST_SKIP() << "needs ffmpeg and espeak-ng";
    }
  }

  // Decodes |path| through the media plug-in into the recognizer, as the service does.
  std::vector<RecognizedWord> transcribe(SpeechRecognizer& recognizer, const std::string& path) {
    EXPECT_FALSE(recognizer.begin());
    auto decoder = makeAudioPcmDecoder();
    auto error = decoder->decode(
        path, SpeechRecognizer::kSampleRate,
        [&](const int16_t* samples, size_t count) { return !recognizer.feed(samples, count); });
    EXPECT_FALSE(error) << error->message;
    std::vector<RecognizedWord> words;
    EXPECT_FALSE(recognizer.finish(words));
    return words;
  }

  MediaTestFiles files_;
};

TEST_F(PocketSphinxRecognizerTest, HearsMostWordsOfASpokenSentenceInOrderOfTime) {
  std::string video = testing::spokenVideo(files_, "speech.mp4", kCounting);
  ASSERT_FALSE(video.empty());
  OptionalError error;
  auto recognizer = makeSpeechRecognizer(error);
  ASSERT_TRUE(recognizer) << error->message;

  auto words = transcribe(*recognizer, video);
  auto texts = heard(words);
  int matched = 0;
  for (const char* spoken : {"one", "two", "three", "four", "five", "six"}) {
    matched += static_cast<int>(texts.count(spoken));
  }
  EXPECT_GE(matched, 4) << "heard " << describe(words);
  for (size_t i = 0; i < words.size(); ++i) {
    EXPECT_LT(words[i].startMs, words[i].endMs);
    EXPECT_LT(words[i].endMs, 4000);
    if (i > 0) EXPECT_GE(words[i].startMs, words[i - 1].endMs - 10);
    EXPECT_EQ(words[i].text.find('('), std::string::npos) << words[i].text;
    EXPECT_NE(words[i].text.front(), '<') << words[i].text;
  }
}

TEST_F(PocketSphinxRecognizerTest, WordsAfterAnUtteranceCutKeepTheirTimeInTheWholeSound) {
  // Two sentences four seconds apart; with two-second utterances the second is decoded alone
  // and its times must still count from the start of the file (the first lasts about 2 s).
  std::string first = testing::spokenWav(files_, "first.wav", kCounting);
  std::string second = testing::spokenWav(files_, "second.wav", kCounting);
  ASSERT_FALSE(first.empty());
  ASSERT_FALSE(second.empty());
  std::string joined = files_.make(
      "joined.wav", {"-i", first, "-f", "lavfi", "-i", "anullsrc=r=22050:cl=mono:d=4", "-i", second,
                     "-filter_complex", "[0:a][1:a][2:a]concat=n=3:v=0:a=1"});
  ASSERT_FALSE(joined.empty());
  OptionalError error;
  auto recognizer = PocketSphinxRecognizer::open(NEMBRA_TEST_SPEECH_MODEL_DIR, error, 2);
  ASSERT_TRUE(recognizer) << error->message;

  auto words = transcribe(*recognizer, joined);
  std::set<std::string> counting = {"one", "two", "three", "four", "five", "six"};
  int early = 0;
  int late = 0;
  for (const auto& word : words) {
    if (!counting.count(word.text)) continue;
    if (word.endMs < 2500) ++early;
    if (word.startMs > 6000) ++late;
  }
  EXPECT_GE(early, 3) << describe(words);
  EXPECT_GE(late, 3) << describe(words);
}

TEST_F(PocketSphinxRecognizerTest, SilenceAndAFileWithoutSoundGiveNoWords) {
  OptionalError error;
  auto recognizer = makeSpeechRecognizer(error);
  ASSERT_TRUE(recognizer) << error->message;
  std::string silence =
      files_.make("silence.wav", {"-f", "lavfi", "-i", "anullsrc=r=16000:cl=mono:d=2"});
  ASSERT_FALSE(silence.empty());
  EXPECT_TRUE(transcribe(*recognizer, silence).empty());

  std::string mute = files_.video("mute.mp4", "160x120", 1.0, /*audio=*/false);
  ASSERT_FALSE(mute.empty());
  auto decoded =
      makeAudioPcmDecoder()->decode(mute, 16000, [](const int16_t*, size_t) { return true; });
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->kind, ErrorKind::Media);
}

TEST(PocketSphinxRecognizerOpenTest, AMissingModelIsAFileErrorNamingThePackage) {
  OptionalError error;
  EXPECT_FALSE(PocketSphinxRecognizer::open("/nonexistent/model", error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->message.find("pocketsphinx-en-us"), std::string::npos);
}

}  // namespace
}  // namespace nembra
