// Writes down what is said in each video once it is ready: its sound is decoded to 16 kHz mono
// and recognised offline, and the words with their start and end times in milliseconds are
// kept as the stream's "audio_transcription": {"words": [...], "times": [{"start", "end"}]}.
//
// The work runs on one background thread, "com.nembra.service.transcribe", at a lower priority
// than requests, one stream at a time; a request that makes a stream ready only queues it. A
// file that does not decode, or a stream deleted meanwhile, leaves no transcription and a log
// line. stop() drops what is queued and cuts the stream in progress short.
//
// Threading: enqueue() from any thread; construct, start() and stop() from the owner's thread.
// The log is called from the background thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "platform/media/audio_pcm_decoder.h"
#include "platform/speech/speech_recognizer.h"
#include "service/media_library.h"

namespace nembra {

class AudioTranscriber {
 public:
  using Log = std::function<void(const std::string&)>;
  using RecognizerFactory = std::function<std::unique_ptr<SpeechRecognizer>(OptionalError&)>;
  using DecoderFactory = std::function<std::unique_ptr<AudioPcmDecoder>()>;

  AudioTranscriber(MediaLibrary& library, Log log,
                   RecognizerFactory makeRecognizer = makeSpeechRecognizer,
                   DecoderFactory makeDecoder = makeAudioPcmDecoder);
  ~AudioTranscriber();
  AudioTranscriber(const AudioTranscriber&) = delete;
  AudioTranscriber& operator=(const AudioTranscriber&) = delete;

  void start();
  void stop();

  // Queues the stream when it is a video's with sound; anything else is ignored.
  void enqueue(const std::string& application, MediaKind kind, const StreamRecord& stream);

  // The JSON kept for |words|.
  static nlohmann::json toJson(const std::vector<RecognizedWord>& words);

 private:
  struct Job {
    std::string application;
    std::string media;
    std::string stream;
  };

  void run();
  void transcribe(const Job& job);

  MediaLibrary& library_;
  Log log_;
  RecognizerFactory makeRecognizer_;
  DecoderFactory makeDecoder_;

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job> queue_;  // guarded by mutex_
  bool stopping_ = false;  // guarded by mutex_
  std::thread worker_;

  // Worker thread only: loaded on the first job, kept for the next.
  std::unique_ptr<SpeechRecognizer> recognizer_;
  std::unique_ptr<AudioPcmDecoder> decoder_;
};

}  // namespace nembra
