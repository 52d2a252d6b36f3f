// Reads arbitrary bytes as a transcription ({"words": [...], "times": [...]}) and renders it, and
// as WebVTT text. Every cue read back runs forwards, and each word given as plain text with times
// in order comes back as its own cue, with its times to the millisecond.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "nembra/json.h"
#include "playback/web_vtt.h"

namespace {

void checkCues(const std::vector<nembra::WebVttCue>& cues) {
  for (const nembra::WebVttCue& cue : cues) {
    if (!(cue.start <= cue.end)) std::abort();
    auto shown = nembra::WebVtt::cueAt(cues, cue.start);
    if (cue.start < cue.end && !shown) std::abort();
  }
}

// The word's times in milliseconds when the cue must come back exactly: plain integers in order
// and within what the cue lines show.
bool plainTimes(const nembra::Json& time, int64_t& start, int64_t& end) {
  if (!time.is_object()) return false;
  auto field = [&](const char* key, int64_t& out) {
    auto found = time.find(key);
    if (found == time.end() || !found->is_number_integer()) return false;
    if (found->is_number_unsigned() && found->get<uint64_t>() > 360000000u) return false;
    out = found->get<int64_t>();
    return out >= 0 && out < 360000000;
  };
  return field("start", start) && field("end", end) && start <= end;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkCues(nembra::WebVtt::parse(text));

  const nembra::Json transcription = nembra::Json::parse(text, nullptr, false);
  if (!transcription.is_object()) return 0;
  const nembra::Json words = transcription.value("words", nembra::Json());
  const nembra::Json times = transcription.value("times", nembra::Json());
  const std::string rendered = nembra::WebVtt::render(words, times);
  if (rendered.rfind("WEBVTT\n\n", 0) != 0) std::abort();
  const std::vector<nembra::WebVttCue> cues = nembra::WebVtt::parse(rendered);
  checkCues(cues);
  if (!words.is_array() || !times.is_array()) return 0;

  // Every word with a time object renders a cue; the round trip holds while all of them are
  // one-line texts with plain times.
  size_t rendered_words = 0;
  for (size_t i = 0; i < words.size() && i < times.size(); ++i) {
    int64_t start = 0, end = 0;
    if (!times[i].is_object()) continue;
    const bool plain = words[i].is_string() && plainTimes(times[i], start, end) &&
                       words[i].get<std::string>().find_first_of("\r\n") == std::string::npos &&
                       !words[i].get<std::string>().empty();
    if (!plain) return 0;
    if (rendered_words >= cues.size()) std::abort();
    const nembra::WebVttCue& cue = cues[rendered_words++];
    if (cue.text != words[i].get<std::string>() || std::fabs(cue.start - start / 1000.0) > 1e-6 ||
        std::fabs(cue.end - end / 1000.0) > 1e-6) {
      std::abort();
    }
  }
  if (rendered_words != cues.size()) std::abort();
  return 0;
}
