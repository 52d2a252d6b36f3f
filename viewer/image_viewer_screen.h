// The image viewer: one or more pictures, full screen, with next and previous, zoom (fit, 1:1,
// wheel and keys), pan and close. Each picture is first decoded to the size of the screen's
// picture area (a lower-resolution one already in memory is shown while it loads); zooming in
// past the fit loads a larger decode in the background. Animated GIFs play.
//
// Buttons: "previous" (left), "zoom-out" (-), "fit" (0), "zoom-in" (+ or =), "next" (right),
// "close" (q or escape); "1" shows the picture 1:1; up and down pan. Labels: "position"
// ("2 / 5"), "status" (what is shown, or why it cannot be).
//
// Threading: main queue only.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "api/remote_image_loader.h"
#include "platform/ui/screen.h"

namespace nembra {

class MainQueue;
class Timer;

class ImageViewerScreen final : public Screen {
 public:
  ImageViewerScreen(std::vector<std::string> uris, std::shared_ptr<RemoteImageLoader> loader,
                    MainQueue& mainQueue);
  ~ImageViewerScreen() override;

  std::string name() const override { return "image-viewer"; }

  size_t index() const { return index_; }
  const PictureViewport& viewport() const { return viewport_; }
  // The picture handed to the view is the whole image (not a progressive preview) at the
  // size the screen asked for.
  bool fullPictureShown() const { return picture_ && !preview_; }

  void buttonPressed(const std::string& name) override;
  void keyPressed(const std::string& key) override;
  void zoomed(double factor) override;
  void dragged(double dx, double dy) override;
  void resized(int width, int height) override;

 protected:
  void viewDidLoad() override;
  void viewWillDisappear() override;

 private:
  void show(size_t index);
  void load(const PictureLimits& limits, bool sharper);
  void loaded(uint64_t generation, bool sharper, const ImageLoadResult& result,
              const OptionalError& error);
  void updateButtons();
  void setScale(double scale);
  void pan(double dx, double dy);
  void redraw();
  void scheduleFrame();
  double fitScale() const;
  PictureLimits screenLimits() const;

  const std::vector<std::string> uris_;
  std::shared_ptr<RemoteImageLoader> loader_;
  MainQueue& mainQueue_;
  size_t index_ = 0;
  uint64_t generation_ = 0;  // moves on with every picture shown; late results are dropped
  std::shared_ptr<RemoteImageLoader::Ticket> ticket_;
  std::shared_ptr<RemoteImageLoader::Ticket> sharperTicket_;
  SharedPicture picture_;
  bool preview_ = false;  // the picture is a progressive preview
  bool sharp_ = false;    // the picture is the large decode
  size_t frame_ = 0;
  std::unique_ptr<Timer> frameTimer_;
  PictureViewport viewport_;
  int areaWidth_ = 0;
  int areaHeight_ = 0;
};

}  // namespace nembra
