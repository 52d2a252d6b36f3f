// The sample tables of an MP4 or QuickTime file with H.264 video and AAC audio: where each access
// unit and AAC frame lies and when it is decoded. Opening reads the top-level box headers and the
// movie box once, and keeps one small entry per sample; media bytes are read only on request.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "nembra/error.h"

namespace nembra {

// Where the demuxer's bytes come from: a file read with pread, or bytes in memory (tests and the
// fuzzer need no files).
struct Mp4ByteSource {
  uint64_t size = 0;
  // Fills |out| with the bytes at |offset|; an error when they cannot all be read.
  std::function<OptionalError(uint64_t offset, std::span<uint8_t> out)> readAt;

  // A source over a copy of |bytes|.
  static Mp4ByteSource memory(std::span<const uint8_t> bytes);
};

struct Mp4VideoTrack {
  uint32_t codec = 0;  // avc1 or avc3
  int width = 0;
  int height = 0;
  double frameRate = 0.0;  // 0 when unknown
  int nalLengthSize = 4;   // 1 to 4
  // The first parameter sets of the avcC record; empty when the stream carries them in band only.
  std::vector<uint8_t> sps;
  std::vector<uint8_t> pps;
  // Frames stored out of presentation order (B-frames): the composition offsets differ.
  bool reordered = false;
};

struct Mp4AudioTrack {
  std::array<uint8_t, 2> asc{};  // the first two bytes of the AudioSpecificConfig
  int sampleRate = 0;
  int channels = 0;
};

struct Mp4Sample {
  uint64_t offset = 0;
  uint32_t size = 0;
  bool video = false;
  // A sync sample by the container's table (every sample without one). Edits are placed by
  // it; what goes out as a key frame is read from the bitstream instead (see MediaSourceMp4).
  bool keyFrame = false;
  // Decode time in seconds on the movie's timeline, edit list applied: samples before the start
  // of the presentation, such as AAC priming frames, have negative times.
  double time = 0.0;
};

// Refuses what it cannot pass through as it is, with an error of kind Media that says why:
// other codecs (naming the four-cc), fragmented files, edit lists of more than one media segment,
// tables that contradict each other, samples outside the file.
class Mp4Demuxer {
 public:
  static std::unique_ptr<Mp4Demuxer> open(Mp4ByteSource source, OptionalError& error);

  // The tracks a player would pick (enabled first, then the one with more data per second).
  const std::optional<Mp4VideoTrack>& video() const { return video_; }
  const std::optional<Mp4AudioTrack>& audio() const { return audio_; }
  double duration() const { return duration_; }  // seconds; 0 when unknown
  // The time delivered timestamps count from, as MediaSourceFile counts them: that of the first
  // sample at or after time 0 met by a reader going through the file in offset order (unless a
  // track runs more than a second ahead). Samples before it go out at 0.
  double startTime() const { return startTime_; }
  // Both tracks' samples in decode-time order; ties go to the lower file offset.
  const std::vector<Mp4Sample>& samples() const { return samples_; }

  // Points |bytes| at |sample|'s bytes, valid until the next call. A track's samples mostly
  // follow one another in the file, so each read takes up to kReadAhead bytes into one of two
  // reused windows: one read then serves many samples, whether the tracks are interleaved or
  // stored one after the other.
  OptionalError readSample(const Mp4Sample& sample, std::span<const uint8_t>& bytes);

  static constexpr uint64_t kReadAhead = 512 * 1024;

 private:
  explicit Mp4Demuxer(Mp4ByteSource source) : source_(std::move(source)) {}
  OptionalError load();

  Mp4ByteSource source_;
  std::optional<Mp4VideoTrack> video_;
  std::optional<Mp4AudioTrack> audio_;
  double duration_ = 0.0;
  double startTime_ = 0.0;
  std::vector<Mp4Sample> samples_;
  struct Window {
    uint64_t offset = 0;
    std::vector<uint8_t> bytes;
    uint64_t lastUse = 0;
  };
  std::array<Window, 2> windows_;
  uint64_t reads_ = 0;
};

}  // namespace nembra
