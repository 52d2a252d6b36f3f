// A decoded picture or block of PCM from a capture device or a test source, on its way to an
// encoder. The pixels or samples stay in FFmpeg's frame, which only the media plug-in looks
// inside: this side knows the frame's shape and how to give it back.
#pragma once

#include <memory>

struct AVFrame;

namespace nembra {

class RawMediaFrame {
 public:
  enum class Kind { Video, Audio };
  // Pixels for video, samples per channel and their rate for audio.
  struct Shape {
    int width = 0;
    int height = 0;
    int sampleCount = 0;
    int sampleRate = 0;
  };
  using Release = void (*)(AVFrame*);

  // Takes ownership of |frame|, which |release| frees (the plug-in's code: memory goes back
  // where it came from).
  RawMediaFrame(Kind kind, AVFrame* frame, Release release, Shape shape, double pts)
      : kind_(kind), frame_(frame, release), shape_(shape), pts_(pts) {}

  Kind kind() const { return kind_; }
  // Seconds from the start of the stream.
  double pts() const { return pts_; }
  int width() const { return shape_.width; }
  int height() const { return shape_.height; }
  int sampleCount() const { return shape_.sampleCount; }
  int sampleRate() const { return shape_.sampleRate; }
  // For the encoders of the media plug-in.
  const AVFrame* avFrame() const { return frame_.get(); }

 private:
  Kind kind_;
  std::unique_ptr<AVFrame, Release> frame_;
  Shape shape_;
  double pts_;
};

}  // namespace nembra
