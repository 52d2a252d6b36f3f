// Offline speech recognition: 16 kHz mono PCM in, the words heard with their times out.
//
// Threading: one recognizer is used by one thread at a time; several recognizers may run at
// once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "nembra/error.h"

namespace nembra {

struct RecognizedWord {
  std::string text;
  int64_t startMs = 0;  // from the start of the sound
  int64_t endMs = 0;
};

class SpeechRecognizer {
 public:
  static constexpr int kSampleRate = 16000;

  virtual ~SpeechRecognizer() = default;
  // Starts a new transcript; what was fed before is forgotten.
  virtual OptionalError begin() = 0;
  // Feeds the next samples, which follow the previous ones in time.
  virtual OptionalError feed(const int16_t* samples, size_t count) = 0;
  // Ends the transcript and gives its words in order, fillers and silences left out.
  virtual OptionalError finish(std::vector<RecognizedWord>& words) = 0;
};

// PocketSphinx with Debian's US English model; null with |error| set when the model is not
// installed (Debian: pocketsphinx-en-us).
std::unique_ptr<SpeechRecognizer> makeSpeechRecognizer(OptionalError& error);

}  // namespace nembra
