// A decoded picture or block of PCM from a capture device or a test source, on its way to an
// encoder. The pixels or samples stay in FFmpeg's frame; nothing outside platform/ looks inside.
#pragma once

struct AVFrame;

namespace nembra {

class RawMediaFrame {
 public:
  enum class Kind { Video, Audio };

  // Takes ownership of |frame|.
  RawMediaFrame(Kind kind, AVFrame* frame, double pts);
  ~RawMediaFrame();
  RawMediaFrame(RawMediaFrame&& other) noexcept;
  RawMediaFrame& operator=(RawMediaFrame&& other) noexcept;
  RawMediaFrame(const RawMediaFrame&) = delete;
  RawMediaFrame& operator=(const RawMediaFrame&) = delete;

  Kind kind() const { return kind_; }
  // Seconds from the start of the stream.
  double pts() const { return pts_; }
  // Pixels for video, samples per channel for audio.
  int width() const;
  int height() const;
  int sampleCount() const;
  int sampleRate() const;

  // For the encoders in platform/.
  const AVFrame* avFrame() const { return frame_; }

 private:
  Kind kind_;
  AVFrame* frame_;
  double pts_;
};

}  // namespace nembra
