// The recorder's capture seam: a camera and a microphone that deliver samples on a capture
// thread of their own, and the observers (light meter, sound meter, face detector) that see
// every sample the recorder sees.
//
// Threading: configure/startRunning/stopRunning/changeCamera on the recorder's session queue.
// Samples and runtime errors reach the sink on the session's capture threads ("com.nembra.
// capture.video" and "com.nembra.capture.audio"), never after stopRunning() has returned.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "platform/media/media_source_raw_frame.h"
#include "platform/ui/video_frame.h"

namespace nembra {

// One captured picture or block of PCM.
struct CaptureSample {
  enum class Kind { Video, Audio };
  Kind kind = Kind::Video;
  // Seconds on the capture clock, shared by both kinds.
  double pts = 0;
  // Seconds the sample lasts (one frame period, or the PCM block's length).
  double duration = 0;
  // The media for the writer and the encoders; null from fakes.
  std::shared_ptr<const RawMediaFrame> frame;
  // Video: a small I420 copy for preview surfaces and observers, on at most 15 samples a second
  // (null on the others, and when none was asked for).
  SharedVideoFrame preview;
  // Audio: the samples as signed 16-bit, interleaved, and their channel count.
  std::vector<int16_t> pcm;
  int channels = 0;
};

// Sees every sample the capture delivers, on the capture thread, before the recorder writes it.
// What it does there must be quick; anything slow (face detection) belongs on a queue of its
// own. Samples dropped while paused are still observed (the meters keep moving).
class CaptureSampleObserver {
 public:
  virtual ~CaptureSampleObserver() = default;
  virtual void captureVideoFrame(const CaptureSample& sample) { (void)sample; }
  virtual void captureAudioFrame(const CaptureSample& sample) { (void)sample; }
};

struct CaptureSettings {
  // "lavfi" (the virtual camera), "lavfi:GRAPH" (a filter graph's pictures; one that ends is a
  // camera that goes away) or a V4L2 device path; empty: the first camera found.
  std::string camera;
  // "lavfi" (the virtual tone), "" (the default microphone), "pulse:NAME", "alsa:NAME" or
  // "none".
  std::string microphone;
  int facing = 0;  // FACING_BACK or FACING_FRONT
  int width = 0;   // asked of the camera; 0 lets it choose
  int height = 0;
  int frameRate = 30;
  // The widest preview picture handed out with each video sample (0: none).
  int previewWidth = 640;
};

class CaptureSampleSink {
 public:
  virtual ~CaptureSampleSink() = default;
  virtual void captureOutput(CaptureSample& sample) = 0;
  // The camera stopped delivering (unplugged, the device failed). The session has stopped.
  virtual void captureRuntimeError(const Error& error) = 0;
};

class CaptureSession {
 public:
  virtual ~CaptureSession() = default;

  // Opens the camera (failure is fatal: Error kind File for a permission refused, Media when
  // there is none) and the microphone (failure only logged: |microphoneError| says why).
  virtual OptionalError configure(const CaptureSettings& settings,
                                  OptionalError& microphoneError) = 0;
  virtual bool hasMicrophone() const = 0;
  // How many camera positions there are (the camera button is offered when more than one).
  virtual int cameraPositions() const = 0;
  virtual int facing() const = 0;

  // |sink| must outlive the running session.
  virtual void startRunning(CaptureSampleSink& sink) = 0;
  virtual void stopRunning() = 0;
  virtual bool isRunning() const = 0;
  // Switches to the other position; the old camera stays when the new one cannot be opened.
  virtual OptionalError changeCamera() = 0;
};

}  // namespace nembra
