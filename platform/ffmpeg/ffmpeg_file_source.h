// A media file whose H.264 video and AAC audio are sent as they are, without re-encoding.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "platform/media/media_source.h"

struct AVFormatContext;
struct AVPacket;

namespace nembra {

// Parameter sets come from the container (avcC, or in-band for Annex B files such as MPEG-TS),
// the AudioSpecificConfig from the codec configuration or the ADTS headers. Timestamps start at 0
// with the file's first packet. A file whose video is not H.264 or whose audio is not AAC is
// refused at open with an error that names the codec.
//
// Threading: see MediaSource.
class MediaSourceFile final : public MediaSource {
 public:
  static std::unique_ptr<MediaSourceFile> open(const std::string& path, OptionalError& error);
  ~MediaSourceFile() override;

  const MediaSourceInfo& info() const override { return info_; }
  bool read(MediaSourceItem& item, OptionalError& error) override;
  void interrupt() override { interrupted_.store(true); }

 private:
  MediaSourceFile() = default;
  OptionalError openPath(const std::string& path);
  // False when the packet carries nothing to send (an empty or unusable packet); |error| set
  // when the file is broken.
  bool convertVideo(const AVPacket& packet, EncodedVideoSample& sample, OptionalError& error);
  bool convertAudio(const AVPacket& packet, EncodedAudioSample& sample, OptionalError& error);
  double secondsOf(const AVPacket& packet) const;

  static int interruptCallback(void* opaque);

  MediaSourceInfo info_;
  std::string path_;
  AVFormatContext* input_ = nullptr;
  AVPacket* packet_ = nullptr;
  int videoStream_ = -1;
  int audioStream_ = -1;
  // avcC files carry length-prefixed units of this size; 0 means Annex B.
  int nalLengthSize_ = 0;
  std::vector<uint8_t> sps_;
  std::vector<uint8_t> pps_;
  std::array<uint8_t, 2> asc_{};
  bool ascKnown_ = false;
  double startTime_ = -1.0;  // seconds of the first packet; < 0 until seen
  bool finished_ = false;
  std::atomic<bool> interrupted_{false};
};

}  // namespace nembra
