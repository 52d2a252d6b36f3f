#include "service/audio_transcriber.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/dispatch/thread_name.h"

namespace nembra {

AudioTranscriber::AudioTranscriber(MediaLibrary& library, Log log, RecognizerFactory makeRecognizer,
                                   DecoderFactory makeDecoder)
    : library_(library),
      log_(std::move(log)),
      makeRecognizer_(std::move(makeRecognizer)),
      makeDecoder_(std::move(makeDecoder)) {}

AudioTranscriber::~AudioTranscriber() { stop(); }

void AudioTranscriber::start() {
  std::lock_guard lock(mutex_);
  if (worker_.joinable()) return;
  stopping_ = false;
  worker_ = std::thread([this] { run(); });
}

void AudioTranscriber::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    queue_.clear();
  }
  wake_.notify_all();
  if (worker_.joinable()) worker_.join();
}

void AudioTranscriber::enqueue(const std::string& application, MediaKind kind,
                               const StreamRecord& stream) {
  if (kind != MediaKind::Video || !stream.hasAudio) return;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    queue_.push_back(Job{application, stream.media, stream.token});
  }
  wake_.notify_one();
}

nlohmann::json AudioTranscriber::toJson(const std::vector<RecognizedWord>& words) {
  nlohmann::json texts = nlohmann::json::array();
  nlohmann::json times = nlohmann::json::array();
  for (const auto& word : words) {
    texts.push_back(word.text);
    times.push_back({{"start", word.startMs}, {"end", word.endMs}});
  }
  return {{"words", std::move(texts)}, {"times", std::move(times)}};
}

void AudioTranscriber::run() {
  setCurrentThreadName("com.nembra.service.transcribe");
  // Recognition takes whole cores for seconds; requests come first.
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), 10);
  while (true) {
    Job job;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      job = std::move(queue_.front());
      queue_.pop_front();
    }
    transcribe(job);
  }
}

void AudioTranscriber::transcribe(const Job& job) {
  const std::string what = "video " + job.media + " stream " + job.stream;
  auto fail = [&](const std::string& reason) {
    log_("no transcription of " + what + ": " + reason);
  };
  if (!recognizer_) {
    OptionalError error;
    recognizer_ = makeRecognizer_(error);
    if (!recognizer_) return fail(error ? error->message : "no speech recognizer");
  }
  if (!decoder_) decoder_ = makeDecoder_();
  if (auto error = recognizer_->begin()) return fail(error->message);

  OptionalError fed;
  std::string path =
      library_.directory().streamFile(job.application, MediaKind::Video, job.media, job.stream);
  auto decoded = decoder_->decode(path, SpeechRecognizer::kSampleRate,
                                  [&](const int16_t* samples, size_t count) {
                                    {
                                      std::lock_guard lock(mutex_);
                                      if (stopping_) return false;
                                    }
                                    fed = recognizer_->feed(samples, count);
                                    return !fed;
                                  });
  if (fed) return fail(fed->message);
  if (decoded) {
    if (decoded->kind == ErrorKind::Cancelled) return;  // the service is stopping
    return fail(decoded->message);
  }
  std::vector<RecognizedWord> words;
  if (auto error = recognizer_->finish(words)) return fail(error->message);
  if (auto error = library_.storeTranscription(job.application, MediaKind::Video, job.media,
                                               job.stream, toJson(words))) {
    return fail(error->message);
  }
  log_("transcribed " + what + ": " + std::to_string(words.size()) + " words");
}

}  // namespace nembra
