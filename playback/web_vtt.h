// WebVTT text for the player's subtitles: written from the service's transcription (one cue per
// word), and read back into cues the player screen shows as the video plays.
//
// Threading: pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "nembra/json.h"

namespace nembra {

struct WebVttCue {
  double start = 0;  // seconds
  double end = 0;
  std::string text;
};

class WebVtt {
 public:
  // "WEBVTT\n\n", then for each word "HH:MM:SS.mmm --> HH:MM:SS.mmm\n" and "word\n\n"; times[i]
  // holds "start" and "end" in milliseconds. Words without a time are left out.
  static std::string render(const Json& words, const Json& times);
  // The cues of a WebVTT text, in file order; malformed blocks are skipped.
  static std::vector<WebVttCue> parse(const std::string& text);
  // The text of the cue showing at |seconds|, if any.
  static std::optional<std::string> cueAt(const std::vector<WebVttCue>& cues, double seconds);
};

}  // namespace nembra
