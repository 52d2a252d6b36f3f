// A clip whose pictures say their own number (the luma of picture n is 16 + 2 × (n mod 100),
// flat), and the reading back of those numbers from any file cut or re-encoded from it, so a
// test can tell exactly which source pictures a file holds. Made and read with the ffmpeg
// program. Header-only, for tests.
#pragma once

#include <cmath>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/media/testing/media_test_files.h"

namespace nembra::testing {

inline constexpr int kNumberedClipWidth = 160;
inline constexpr int kNumberedClipHeight = 120;

// |seconds| at |fps| pictures per second, H.264 with B-frames and a key frame every 2 seconds,
// with a sine tone. "" when ffmpeg failed.
inline std::string makeNumberedClip(MediaTestFiles& files, const std::string& name, int seconds,
                                    int fps) {
  const std::string size =
      std::to_string(kNumberedClipWidth) + "x" + std::to_string(kNumberedClipHeight);
  return files.make(
      name, {"-f", "lavfi", "-i",
             "nullsrc=s=" + size + ":r=" + std::to_string(fps) + ":d=" + std::to_string(seconds) +
                 ",format=yuv420p,geq=lum='16+mod(N\\,100)*2':cb=128:cr=128",
             "-f", "lavfi", "-i", "sine=frequency=440:duration=" + std::to_string(seconds), "-c:v",
             "libx264", "-preset", "ultrafast", "-bf", "2", "-g", std::to_string(2 * fps), "-c:a",
             "aac", "-shortest"});
}

// The picture numbers (mod 100) of every picture of |path|, in order; empty when it cannot be
// decoded.
inline std::vector<int> readPictureNumbers(MediaTestFiles& files, const std::string& path) {
  const std::string raw = files.make("numbers.yuv", {"-i", path, "-an", "-vf",
                                                     "scale=" + std::to_string(kNumberedClipWidth) +
                                                         ":" + std::to_string(kNumberedClipHeight),
                                                     "-pix_fmt", "yuv420p", "-f", "rawvideo"});
  std::vector<int> numbers;
  if (raw.empty()) return numbers;
  std::ifstream in(raw, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t luma = static_cast<size_t>(kNumberedClipWidth) * kNumberedClipHeight;
  const size_t frame = luma * 3 / 2;
  for (size_t at = 0; at + frame <= bytes.size(); at += frame) {
    double sum = 0;
    for (size_t i = 0; i < luma; ++i) sum += static_cast<unsigned char>(bytes[at + i]);
    numbers.push_back(static_cast<int>(std::lround((sum / luma - 16) / 2)));
  }
  return numbers;
}

}  // namespace nembra::testing
