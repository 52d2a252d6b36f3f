#include "recorder/capture_aids.h"

#include "nembra/application.h"
#include "platform/media/media_backend.h"
#include "platform/ui/screen_view.h"

namespace nembra {

CaptureAids::CaptureAids(Nembra& application, TaskQueue& mainQueue)
    : application_(application), mainQueue_(mainQueue) {}

void CaptureAids::attach(ScreenView* view) {
  luxMeter_.setImageView(view);
  audioLevel_.setView(view);
}

void CaptureAids::showMeters(ScreenView* view, bool light, bool sound) {
  luxMeter_.setImageView(light ? view : nullptr);
  audioLevel_.setView(sound ? view : nullptr);
  if (!view) return;
  if (!light) {
    ButtonState hidden;
    hidden.image = LuxMeterView::imageFor(luxMeter_.currentLuminousity());
    hidden.enabled = false;
    hidden.hidden = true;
    view->setButton(LuxMeterView::kButton, hidden);
  }
  if (!sound) {
    SliderState hidden;
    hidden.value = audioLevel_.currentAudioLevel();
    hidden.enabled = false;
    hidden.hidden = true;
    view->setSlider(AudioLevelView::kSlider, hidden);
  }
}

void CaptureAids::enableFaceDetection(std::unique_ptr<FaceDetector> detector,
                                      FaceDetectorPump::ToLayer toLayer) {
  std::weak_ptr<CaptureAids> weak = weak_from_this();
  faces_ = std::make_shared<FaceDetectorPump>(
      std::move(detector), faceOutline_, std::move(toLayer),
      [this, weak](int64_t faceId, const FaceRect& rect) {
        mainQueue_.async([this, weak, faceId, rect] {
          auto self = weak.lock();
          if (!self) return;
          auto delegate = application_.getSensorDelegate();
          if (delegate && delegate->faceDetected) {
            delegate->faceDetected(faceId, {rect.x, rect.y, rect.width, rect.height});
          }
        });
      });
}

OptionalError CaptureAids::setFaceOutlineDrawable(const std::shared_ptr<const StillImage>& image) {
  if (!image) {
    faceOutline_.setOutlineDrawable(nullptr);
    return std::nullopt;
  }
  PictureLimits limits;  // a face is never drawn larger than this
  limits.maxWidth = 512;
  limits.maxHeight = 512;
  auto picture = std::make_shared<Picture>();
  if (auto error =
          MediaBackend::shared().makeImageCodec()->decodePicture(image->data, limits, *picture)) {
    return error;
  }
  faceOutline_.setOutlineDrawable(std::move(picture));
  return std::nullopt;
}

void CaptureAids::onVideoFrame(const SharedVideoFrame& frame) {
  const double brightness = LuxMeterView::brightnessOfFrame(*frame);
  std::weak_ptr<CaptureAids> weak = weak_from_this();
  mainQueue_.async([this, weak, brightness] {
    auto self = weak.lock();
    if (!self) return;
    luxMeter_.setCurrentLuminousity(brightness);
    auto delegate = application_.getSensorDelegate();
    if (delegate && delegate->luxMeter) delegate->luxMeter(brightness);
  });
  if (auto faces = faces_.load()) faces->onVideoFrame(frame);
}

void CaptureAids::onAudioSamples(const int16_t* samples, size_t count, int channels) {
  (void)channels;  // every channel's samples count alike
  const double level = AudioLevelView::levelOf(samples, count);
  std::weak_ptr<CaptureAids> weak = weak_from_this();
  mainQueue_.async([this, weak, level] {
    auto self = weak.lock();
    if (!self) return;
    audioLevel_.setCurrentLevel(level);
    auto delegate = application_.getSensorDelegate();
    if (delegate && delegate->audioMeter) delegate->audioMeter(level);
  });
}

void CaptureAids::captureVideoFrame(const CaptureSample& sample) {
  if (sample.preview) onVideoFrame(sample.preview);
}

void CaptureAids::captureAudioFrame(const CaptureSample& sample) {
  if (!sample.pcm.empty()) onAudioSamples(sample.pcm.data(), sample.pcm.size(), sample.channels);
}

}  // namespace nembra
