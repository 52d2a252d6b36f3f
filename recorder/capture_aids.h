// The recorder's capture aids together, as one observer of the camera: the light meter and the
// sound-level meter (each reading also to the sensor delegate's luxMeter and audioMeter), and,
// when face detection is on, the face outlines (each face also to faceDetected). A camera feed's
// screen adds it to the feed (CaptureFrameObserver); the camera recorder adds it to its capture
// (CaptureSampleObserver). The owner hands attach() or showMeters() its screen's view and draws
// drawFaces over each preview picture.
//
// Threading: construct, attach, showMeters and enableFaceDetection on the main queue; the
// observer calls on the capture thread. Meter views and delegates are updated on the main queue.
// Held by shared_ptr (posted updates hold it weakly).
#pragma once

#include <atomic>
#include <memory>

#include "nembra/error.h"
#include "nembra/still_image.h"
#include "recorder/audio_level_view.h"
#include "recorder/camera_feed.h"
#include "recorder/capture_session.h"
#include "recorder/face_detector_pump.h"
#include "recorder/face_outline_view.h"
#include "recorder/lux_meter_view.h"

namespace nembra {

class Nembra;
class ScreenView;
class TaskQueue;

class CaptureAids final : public CaptureFrameObserver,
                          public CaptureSampleObserver,
                          public std::enable_shared_from_this<CaptureAids> {
 public:
  // |application| (for the sensor delegate) and |mainQueue| must outlive the aids.
  CaptureAids(Nembra& application, TaskQueue& mainQueue);

  // The view the meters draw into; nullptr before the view goes.
  void attach(ScreenView* view);
  // Like attach, but a meter that is off is hidden on |view| and no longer drawn; its readings
  // still reach the sensor delegate.
  void showMeters(ScreenView* view, bool light, bool sound);
  // Starts following faces with |detector|; |toLayer| maps capture pixels to the preview's.
  void enableFaceDetection(std::unique_ptr<FaceDetector> detector,
                           FaceDetectorPump::ToLayer toLayer = {});

  LuxMeterView& luxMeterView() { return luxMeter_; }
  AudioLevelView& audioLevelView() { return audioLevel_; }
  FaceOutlineView& faceOutlineView() { return faceOutline_; }

  // The configuration's faceOutlineDrawable, decoded, drawn over each face instead of the
  // outline; null goes back to the outline. An image that does not decode is an error and
  // changes nothing.
  OptionalError setFaceOutlineDrawable(const std::shared_ptr<const StillImage>& image);

  // Outlines the faces on a preview picture (the preview layer's overlay).
  void drawFaces(VideoFrame& picture) const { faceOutline_.drawRect(picture); }
  // Whether drawFaces would change a picture: the outline is shown and holds a face.
  bool hasFacesToDraw() const {
    return !faceOutline_.hidden() && !faceOutline_.faceRects().empty();
  }

  void onVideoFrame(const SharedVideoFrame& frame) override;
  void onAudioSamples(const int16_t* samples, size_t count, int channels) override;

  // The recorder's samples: a video sample is measured on its preview picture (samples without
  // one are skipped), an audio sample on its 16-bit PCM.
  void captureVideoFrame(const CaptureSample& sample) override;
  void captureAudioFrame(const CaptureSample& sample) override;

  bool facesFollowed() const { return faces_.load() != nullptr; }

 private:
  Nembra& application_;
  TaskQueue& mainQueue_;
  LuxMeterView luxMeter_;      // main queue
  AudioLevelView audioLevel_;  // main queue
  FaceOutlineView faceOutline_;
  // Set on the main queue, possibly while frames flow.
  std::atomic<std::shared_ptr<FaceDetectorPump>> faces_;
};

}  // namespace nembra
