#include "platform/speech/pocketsphinx_recognizer.h"

#include <pocketsphinx.h>
#include <sphinxbase/err.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>

namespace nembra {
namespace {

constexpr int kSamplesPerFrame = SpeechRecognizer::kSampleRate / 100;  // PocketSphinx's 10 ms

bool exists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0;
}

// "<s>", "</s>", "<sil>", "[NOISE]", "++UH++": what the decoder hears that is not a word.
bool isFiller(const char* word) {
  return !word || word[0] == '\0' || word[0] == '<' || word[0] == '[' || word[0] == '+';
}

// "read(2)" is the dictionary's second pronunciation of "read".
std::string plainWord(const char* word) {
  std::string text(word);
  auto variant = text.find('(');
  if (variant != std::string::npos && !text.empty() && text.back() == ')') text.resize(variant);
  return text;
}

// The index, in [from, to), of the 10 ms frame with the least energy.
size_t quietestFrame(const std::vector<int16_t>& samples, size_t from, size_t to) {
  size_t best = to;
  int64_t bestEnergy = INT64_MAX;
  for (size_t at = from; at + kSamplesPerFrame <= to; at += kSamplesPerFrame) {
    int64_t energy = 0;
    for (size_t i = at; i < at + kSamplesPerFrame; ++i) energy += std::abs(int64_t{samples[i]});
    if (energy < bestEnergy) {
      bestEnergy = energy;
      best = at;
    }
  }
  return best;
}

}  // namespace

std::unique_ptr<PocketSphinxRecognizer> PocketSphinxRecognizer::open(
    const std::string& modelDirectory, OptionalError& error, int maxUtteranceSeconds) {
  const std::string hmm = modelDirectory + "/en-us/en-us";
  const std::string lm = modelDirectory + "/en-us/en-us.lm.bin";
  const std::string dict = modelDirectory + "/en-us/cmudict-en-us.dict";
  for (const auto& path : {hmm, lm, dict}) {
    if (!exists(path)) {
      error = Error::file("the speech model is missing " + path +
                          " (Debian: apt-get install pocketsphinx-en-us)");
      return nullptr;
    }
  }
  // The library keeps its log target in a global; it is set once, to nowhere, before any
  // decoder prints its start-up chatter.
  static std::once_flag quiet;
  std::call_once(quiet, [] { err_set_logfp(nullptr); });
  cmd_ln_t* config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.c_str(), "-lm", lm.c_str(),
                                 "-dict", dict.c_str(), nullptr);
  if (!config) {
    error = Error::media("the speech model's settings were refused");
    return nullptr;
  }
  ps_decoder_t* decoder = ps_init(config);
  if (!decoder) {
    cmd_ln_free_r(config);
    error = Error::media("the speech model in " + modelDirectory + " does not load");
    return nullptr;
  }
  size_t maxUtterance = size_t(std::max(1, maxUtteranceSeconds)) * kSampleRate;
  return std::unique_ptr<PocketSphinxRecognizer>(
      new PocketSphinxRecognizer(config, decoder, maxUtterance));
}

PocketSphinxRecognizer::PocketSphinxRecognizer(cmd_ln_s* config, ps_decoder_s* decoder,
                                               size_t maxUtterance)
    : config_(config), decoder_(decoder), maxUtterance_(maxUtterance) {}

PocketSphinxRecognizer::~PocketSphinxRecognizer() {
  ps_free(decoder_);
  cmd_ln_free_r(config_);
}

OptionalError PocketSphinxRecognizer::begin() {
  pending_.clear();
  pendingStart_ = 0;
  words_.clear();
  return std::nullopt;
}

OptionalError PocketSphinxRecognizer::feed(const int16_t* samples, size_t count) {
  pending_.insert(pending_.end(), samples, samples + count);
  while (pending_.size() >= maxUtterance_) {
    size_t cut = quietestFrame(pending_, maxUtterance_ - maxUtterance_ / 4, maxUtterance_);
    if (auto error = decodeUtterance(cut)) return error;
  }
  return std::nullopt;
}

OptionalError PocketSphinxRecognizer::finish(std::vector<RecognizedWord>& words) {
  if (!pending_.empty()) {
    if (auto error = decodeUtterance(pending_.size())) return error;
  }
  words = std::move(words_);
  words_.clear();
  return std::nullopt;
}

OptionalError PocketSphinxRecognizer::decodeUtterance(size_t count) {
  if (ps_start_utt(decoder_) < 0) return Error::media("the speech decoder did not start");
  if (ps_process_raw(decoder_, pending_.data(), count, FALSE, TRUE) < 0) {
    ps_end_utt(decoder_);
    return Error::media("the speech decoder refused the sound");
  }
  if (ps_end_utt(decoder_) < 0) return Error::media("the speech decoder did not finish");
  const int64_t offsetMs = pendingStart_ * 1000 / kSampleRate;
  for (ps_seg_t* seg = ps_seg_iter(decoder_); seg; seg = ps_seg_next(seg)) {
    const char* word = ps_seg_word(seg);
    if (isFiller(word)) continue;
    int startFrame = 0;
    int endFrame = 0;
    ps_seg_frames(seg, &startFrame, &endFrame);
    // A frame is 10 ms; the end frame is the word's last, so it ends 10 ms later.
    words_.push_back(RecognizedWord{plainWord(word), offsetMs + int64_t{startFrame} * 10,
                                    offsetMs + (int64_t{endFrame} + 1) * 10});
  }
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(count));
  pendingStart_ += static_cast<int64_t>(count);
  return std::nullopt;
}

std::unique_ptr<SpeechRecognizer> makeSpeechRecognizer(OptionalError& error) {
  const char* override = std::getenv("NEMBRA_SPEECH_MODEL_DIR");
  return PocketSphinxRecognizer::open(override && *override ? override : NEMBRA_SPEECH_MODEL_DIR,
                                      error);
}

}  // namespace nembra
