// SpeechRecognizer over PocketSphinx. Long sound is cut into utterances of at most
// |maxUtteranceSeconds|, each cut made at the quietest 10 ms of the utterance's last quarter so
// a word is rarely split: the decoder's search grows with an utterance's length.
//
// Threading: as SpeechRecognizer.
#pragma once

#include <string>
#include <vector>

#include "platform/speech/speech_recognizer.h"

struct ps_decoder_s;
struct cmd_ln_s;

namespace nembra {

class PocketSphinxRecognizer final : public SpeechRecognizer {
 public:
  static constexpr int kMaxUtteranceSeconds = 20;

  // The model directory holds "en-us/" (acoustic model), "en-us.lm.bin" and
  // "cmudict-en-us.dict"; null with |error| set when they are missing or do not load.
  static std::unique_ptr<PocketSphinxRecognizer> open(
      const std::string& modelDirectory, OptionalError& error,
      int maxUtteranceSeconds = kMaxUtteranceSeconds);
  ~PocketSphinxRecognizer() override;

  OptionalError begin() override;
  OptionalError feed(const int16_t* samples, size_t count) override;
  OptionalError finish(std::vector<RecognizedWord>& words) override;

 private:
  PocketSphinxRecognizer(cmd_ln_s* config, ps_decoder_s* decoder, size_t maxUtterance);
  // Decodes the first |count| buffered samples as one utterance.
  OptionalError decodeUtterance(size_t count);

  cmd_ln_s* config_;
  ps_decoder_s* decoder_;
  const size_t maxUtterance_;  // samples
  std::vector<int16_t> pending_;
  int64_t pendingStart_ = 0;  // samples since begin() before pending_[0]
  std::vector<RecognizedWord> words_;
};

}  // namespace nembra
