// An MP4 or QuickTime file whose H.264 video and AAC audio are sent as they are, read without
// FFmpeg: loading FFmpeg's libraries costs a publishing process more than the whole publish.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "platform/media/media_encoder_h264_units.h"
#include "platform/media/media_source.h"
#include "platform/media/mp4/mp4_demuxer.h"

namespace nembra {

// Delivers what MediaSourceFile delivers for the same file, sample for sample: access units with
// 4-byte lengths whatever the file's NAL length size, parameter sets taken out of them, key
// frames as the bitstream marks them, decode times counted as MediaSourceFile counts them. The
// two tracks come merged in decode-time order.
//
// open() refuses with an error of kind Media whatever this reader does not handle (another
// codec, named by its four-cc; a fragmented file; another container; a URL), so that the caller
// can hand the file to MediaSourceFile instead. A missing or unreadable file is a File error.
//
// Threading: see MediaSource.
class MediaSourceMp4 final : public MediaSource {
 public:
  static std::unique_ptr<MediaSourceMp4> open(const std::string& path, OptionalError& error);
  // Reads from |source| instead of a file; |name| stands for the path in the description and in
  // messages.
  static std::unique_ptr<MediaSourceMp4> open(Mp4ByteSource source, const std::string& name,
                                              OptionalError& error);
  ~MediaSourceMp4() override;

  const MediaSourceInfo& info() const override { return info_; }
  bool read(MediaSourceItem& item, OptionalError& error) override;
  void interrupt() override { interrupted_.store(true); }

 private:
  MediaSourceMp4() = default;
  OptionalError start(Mp4ByteSource source);
  // False when the sample carries nothing to send; |error| set when the file is broken.
  bool convertVideo(std::span<const uint8_t> bytes, EncodedVideoSample& sample,
                    OptionalError& error);
  bool convertAudio(std::span<const uint8_t> bytes, EncodedAudioSample& sample,
                    OptionalError& error);

  MediaSourceInfo info_;
  std::string path_;
  int fd_ = -1;
  std::unique_ptr<Mp4Demuxer> demuxer_;
  size_t next_ = 0;                   // index of the next sample to read
  std::vector<h264::NalUnit> units_;  // the current access unit's units, reused
  std::vector<uint8_t> scratch_;      // SEI payloads without emulation prevention, reused
  int nalLengthSize_ = 4;
  std::vector<uint8_t> sps_;
  std::vector<uint8_t> pps_;
  std::array<uint8_t, 2> asc_{};
  bool finished_ = false;
  std::atomic<bool> interrupted_{false};
};

}  // namespace nembra
