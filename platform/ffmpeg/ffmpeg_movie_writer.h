// MovieWriter over libx264, FFmpeg's AAC encoder and its MP4 muxer (see movie_writer.h).
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/media/media_encoder_samples.h"
#include "platform/media/movie_writer.h"

struct AVFormatContext;
struct AVPacket;

namespace nembra {

class MediaEncoderX264;
class MediaEncoderAAC;

// Threading: see MovieWriter.
class FfmpegMovieWriter final : public MovieWriter {
 public:
  // Opens the encoders and the part file; nothing when either fails (|error| says why).
  static std::unique_ptr<FfmpegMovieWriter> create(const std::string& path,
                                                   const MovieWriterSettings& settings,
                                                   OptionalError& error);
  ~FfmpegMovieWriter() override;

  OptionalError appendVideo(const RawMediaFrame& frame, double pts) override;
  OptionalError appendAudio(const RawMediaFrame& frame, double pts) override;
  OptionalError finish() override;
  const std::string& path() const override { return path_; }
  double writtenDuration() const override { return writtenDuration_; }

 private:
  FfmpegMovieWriter(std::string path, const MovieWriterSettings& settings);
  OptionalError writeVideo(std::vector<EncodedVideoSample>& samples);
  OptionalError writeAudio(std::vector<EncodedAudioSample>& samples);
  OptionalError startFile(const EncodedVideoSample& first);
  OptionalError writePacket(int stream, const std::vector<uint8_t>& data, int64_t pts, bool key);
  void closeFile();

  const std::string path_;
  const MovieWriterSettings settings_;
  std::unique_ptr<MediaEncoderX264> video_;
  std::unique_ptr<MediaEncoderAAC> audio_;
  AVFormatContext* output_ = nullptr;
  AVPacket* packet_ = nullptr;
  bool headerWritten_ = false;
  bool finished_ = false;
  std::optional<double> start_;  // capture time of the first picture
  // The caller's stamp and the frame's own stamp of the first PCM appended.
  std::optional<std::pair<double, double>> audioStart_;
  // Where the caller's next PCM is expected, and how far its stamps have jumped so far.
  std::optional<double> audioNextStamp_;
  double audioShift_ = 0;
  std::array<uint8_t, 2> asc_{};
  // AAC produced before the file's header could be written (it waits for the parameter sets).
  std::deque<EncodedAudioSample> heldAudio_;
  int64_t lastVideoPts_ = -1;
  int64_t lastAudioPts_ = -1;
  double writtenDuration_ = 0;
};

// Turns the fragmented recording at |partPath| into an ordinary MP4 at |path| (index at the
// front) and removes the part file. Reads as far as the fragments go: a last fragment cut short
// by a crash ends the copy without failing it. Fails only when nothing could be read.
OptionalError ffmpegFinishFragmentedMovie(const std::string& partPath, const std::string& path);

}  // namespace nembra
