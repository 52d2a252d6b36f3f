// Writes raw pictures and PCM from a MediaSource into a media file of its own: an MPEG-4 audio
// file of Apple Lossless for the audio recorder, a QuickTime movie of H.264 and AAC for the
// screen recorder. The encoders and the container are the media plug-in's (MediaBackend).
//
// Threading: the append calls may come from two threads (pictures from one, sound from
// another); the writer serialises them. finish() must be called once, after the last append.
#pragma once

#include <cstdint>
#include <string>

#include "nembra/error.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

struct MediaFileWriterSettings {
  std::string path;
  // FFmpeg's muxer name: "ipod" (an .m4a file) or "mov".
  std::string container = "mov";
  // Pictures: 0 x 0 for none. H.264 (libx264) at this size and frame rate.
  int width = 0;
  int height = 0;
  int frameRate = 30;
  // Sound: "alac", "aac" or "" for none, at this rate and channel count.
  std::string audioCodec;
  int sampleRate = 44100;
  int channels = 2;
  int64_t audioBitRate = 0;  // 0: the codec's own choice
};

class MediaFileWriter {
 public:
  virtual ~MediaFileWriter() = default;

  // A picture shown |seconds| after the start of the file; one no later than the previous
  // picture is dropped. The file's pictures come at a constant frame rate: one too early for
  // the next slot is dropped, and a late one also fills the slots left empty before it.
  virtual OptionalError appendVideo(const RawMediaFrame& frame, double seconds) = 0;
  // A block of PCM following the previous one without a gap, whatever the block's own time:
  // the file's sound is the concatenation of the blocks appended.
  virtual OptionalError appendAudio(const RawMediaFrame& frame) = 0;
  // Encodes what is buffered, writes the index and closes the file.
  virtual OptionalError finish() = 0;

  virtual int64_t videoFramesWritten() const = 0;
  // At the file's sample rate, counted as appended.
  virtual int64_t audioSamplesWritten() const = 0;
  // The loudness of the last block appended, as an RMS in dBFS (-160 for silence).
  virtual float lastAudioLevel() const = 0;
};

}  // namespace nembra
