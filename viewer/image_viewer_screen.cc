#include "viewer/image_viewer_screen.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "nembra/main_queue.h"
#include "platform/dispatch/timer.h"

namespace nembra {
namespace {

constexpr double kZoomStep = 1.25;
constexpr double kMaxScale = 16;
constexpr double kPanStep = 60;  // screen pixels per arrow key
// Zoomed-in pictures are decoded up to this size, whatever the source.
constexpr int kSharpLimit = 4096;
constexpr int kMinArea = 320;

std::string describe(const ImageLoadResult& result) {
  const Picture& p = *result.picture;
  char text[200];
  std::snprintf(text, sizeof text, "%d x %d %s", p.sourceWidth, p.sourceHeight, p.format.c_str());
  std::string out = text;
  if (p.animated()) out += ", " + std::to_string(p.frames.size()) + " frames";
  if (result.source == "network" && result.bytesPerSecond > 0) {
    std::snprintf(text, sizeof text, ", %.1f kB at %.1f MB/s", result.bytes / 1000.0,
                  result.bytesPerSecond / 1e6);
    out += text;
  }
  return out;
}

}  // namespace

ImageViewerScreen::ImageViewerScreen(std::vector<std::string> uris,
                                     std::shared_ptr<RemoteImageLoader> loader,
                                     MainQueue& mainQueue)
    : uris_(std::move(uris)), loader_(std::move(loader)), mainQueue_(mainQueue) {}

ImageViewerScreen::~ImageViewerScreen() {
  if (ticket_) ticket_->cancel();
  if (sharperTicket_) sharperTicket_->cancel();
}

void ImageViewerScreen::viewDidLoad() {
  view().pictureAreaSize(areaWidth_, areaHeight_);
  const bool many = uris_.size() > 1;
  view().setButton("previous", {"previous-white", "Previous", true, !many});
  view().setButton("zoom-out", {"zoom-out-white", "Zoom out", true, false});
  view().setButton("fit", {"fit-white", "Fit", true, false});
  view().setButton("zoom-in", {"zoom-in-white", "Zoom in", true, false});
  view().setButton("next", {"next-white", "Next", true, !many});
  view().setButton("close", {"close-white", "Close", true, false});
  view().bindKey("left", "previous");
  view().bindKey("right", "next");
  view().bindKey("-", "zoom-out");
  view().bindKey("0", "fit");
  view().bindKey("f", "fit");
  view().bindKey("+", "zoom-in");
  view().bindKey("=", "zoom-in");
  view().bindKey("q", "close");
  view().bindKey("escape", "close");
  if (uris_.empty()) {
    view().setLabel("status", "no image to show");
    updateButtons();
    return;
  }
  show(0);
}

void ImageViewerScreen::viewWillDisappear() {
  frameTimer_.reset();
  if (ticket_) ticket_->cancel();
  if (sharperTicket_) sharperTicket_->cancel();
}

PictureLimits ImageViewerScreen::screenLimits() const {
  PictureLimits limits;
  limits.maxWidth = std::max(kMinArea, areaWidth_);
  limits.maxHeight = std::max(kMinArea, areaHeight_);
  return limits;
}

void ImageViewerScreen::show(size_t index) {
  index_ = index;
  ++generation_;
  if (ticket_) ticket_->cancel();
  if (sharperTicket_) sharperTicket_->cancel();
  frameTimer_.reset();
  picture_.reset();
  sharp_ = false;
  preview_ = false;
  frame_ = 0;
  viewport_ = PictureViewport{};
  view().setPicture(nullptr, 0, viewport_);
  view().setTitle(uris_[index]);
  view().setLabel("position", std::to_string(index + 1) + " / " + std::to_string(uris_.size()));
  view().setLabel("status", "loading");
  updateButtons();
  load(screenLimits(), false);
}

void ImageViewerScreen::load(const PictureLimits& limits, bool sharper) {
  const uint64_t generation = generation_;
  auto& ticket = sharper ? sharperTicket_ : ticket_;
  if (ticket) ticket->cancel();
  // The loader answers on the main queue; the ticket is cancelled before this screen goes.
  ticket = loader_->load(
      uris_[index_], limits,
      [this, generation, sharper](const ImageLoadResult& result, const OptionalError& error) {
        loaded(generation, sharper, result, error);
      });
}

void ImageViewerScreen::loaded(uint64_t generation, bool sharper, const ImageLoadResult& result,
                               const OptionalError& error) {
  if (generation != generation_ || !presented()) return;
  if (error) {
    if (sharper) return;  // the picture on screen stays; only the sharper copy failed
    view().setLabel("status", error->message);
    return;
  }
  if (sharp_ && !sharper) return;  // never replace the large decode with a smaller one
  const bool animationContinues =
      picture_ && result.picture->frames.size() == picture_->frames.size();
  picture_ = result.picture;
  preview_ = result.preview;
  if (sharper) sharp_ = true;
  if (!animationContinues) frame_ = 0;
  if (!sharper) {
    view().setLabel("status", result.preview ? "loading the full image" : describe(result));
  }
  redraw();
  scheduleFrame();
}

void ImageViewerScreen::scheduleFrame() {
  frameTimer_.reset();
  if (!picture_ || !picture_->animated()) return;
  const double delay = std::max(0.02, picture_->frames[frame_].duration);
  frameTimer_ =
      Timer::oneShot(mainQueue_, std::chrono::milliseconds(static_cast<int>(delay * 1000)), [this] {
        if (!picture_ || !presented()) return;
        frame_ = (frame_ + 1) % picture_->frames.size();
        redraw();
        scheduleFrame();
      });
}

void ImageViewerScreen::redraw() { view().setPicture(picture_, frame_, viewport_); }

void ImageViewerScreen::updateButtons() {
  const bool many = uris_.size() > 1;
  view().setButton("previous", {"previous-white", "Previous", many && index_ > 0, !many});
  view().setButton("next", {"next-white", "Next", many && index_ + 1 < uris_.size(), !many});
}

double ImageViewerScreen::fitScale() const {
  if (!picture_ || picture_->sourceWidth <= 0 || picture_->sourceHeight <= 0) return 1;
  return std::min(double(std::max(1, areaWidth_)) / picture_->sourceWidth,
                  double(std::max(1, areaHeight_)) / picture_->sourceHeight);
}

void ImageViewerScreen::setScale(double scale) {
  if (!picture_) return;
  const double fit = fitScale();
  if (scale <= fit * 1.0001) {
    viewport_ = PictureViewport{};  // back to fit, centred
  } else {
    viewport_.scale = std::min(scale, kMaxScale);
    // More pixels than the screen-sized decode holds: fetch a sharper one.
    if (!sharp_ && viewport_.scale > fit * 1.01) {
      PictureLimits limits;
      limits.maxWidth = limits.maxHeight = kSharpLimit;
      if (!sharperTicket_ || sharperTicket_->cancelled()) load(limits, true);
    }
  }
  redraw();
}

void ImageViewerScreen::pan(double dx, double dy) {
  if (!picture_ || viewport_.scale <= 0) return;
  const double w = picture_->sourceWidth * viewport_.scale;
  const double h = picture_->sourceHeight * viewport_.scale;
  // The picture can be moved until its edge reaches the middle of the area.
  viewport_.centerX = std::clamp(viewport_.centerX - dx / w, 0.0, 1.0);
  viewport_.centerY = std::clamp(viewport_.centerY - dy / h, 0.0, 1.0);
  redraw();
}

void ImageViewerScreen::buttonPressed(const std::string& name) {
  const double current = viewport_.scale > 0 ? viewport_.scale : fitScale();
  if (name == "close") {
    dismiss();
  } else if (name == "next" && index_ + 1 < uris_.size()) {
    show(index_ + 1);
  } else if (name == "previous" && index_ > 0) {
    show(index_ - 1);
  } else if (name == "zoom-in") {
    setScale(current * kZoomStep);
  } else if (name == "zoom-out") {
    setScale(current / kZoomStep);
  } else if (name == "fit") {
    setScale(0);
  }
}

void ImageViewerScreen::keyPressed(const std::string& key) {
  if (key == "1") {
    setScale(1.0);
  } else if (key == "up") {
    pan(0, kPanStep);
  } else if (key == "down") {
    pan(0, -kPanStep);
  }
}

void ImageViewerScreen::zoomed(double factor) {
  const double current = viewport_.scale > 0 ? viewport_.scale : fitScale();
  setScale(current * factor);
}

void ImageViewerScreen::dragged(double dx, double dy) { pan(dx, dy); }

void ImageViewerScreen::resized(int width, int height) {
  areaWidth_ = width;
  areaHeight_ = height;
  if (presented() && picture_ && !sharp_ && !uris_.empty()) {
    // A window grown past the decode gets a decode that fills it.
    if (width > picture_->width && height > picture_->height &&
        picture_->width < picture_->sourceWidth) {
      load(screenLimits(), false);
    }
  }
}

}  // namespace nembra
