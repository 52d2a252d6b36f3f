#include "platform/ui/headless_ui.h"

#include <algorithm>

namespace nembra {

struct HeadlessUi::Registry {
  std::vector<HeadlessScreenView*> views;
};

// Unregisters itself when the presenter destroys it.
class HeadlessUi::TrackedView final : public ScreenView {
 public:
  TrackedView(std::shared_ptr<Registry> registry, const std::string& name)
      : registry_(std::move(registry)), view_(name) {
    registry_->views.push_back(&view_);
  }
  ~TrackedView() override {
    auto& views = registry_->views;
    views.erase(std::remove(views.begin(), views.end(), &view_), views.end());
  }

  void setListener(ScreenViewListener* l) override { view_.setListener(l); }
  void setTitle(const std::string& t) override { view_.setTitle(t); }
  void setLabel(const std::string& n, const std::string& t) override { view_.setLabel(n, t); }
  void setButton(const std::string& n, const ButtonState& s) override { view_.setButton(n, s); }
  void bindKey(const std::string& k, const std::string& b) override { view_.bindKey(k, b); }
  void setSlider(const std::string& n, const SliderState& s) override { view_.setSlider(n, s); }
  void setList(const std::string& n, const ListState& s) override { view_.setList(n, s); }
  void setPicture(SharedPicture p, size_t f, const PictureViewport& v) override {
    view_.setPicture(std::move(p), f, v);
  }
  VideoSurface* videoSurface() override { return view_.videoSurface(); }
  void showAlert(const AlertState& a, AlertAnswer answer) override {
    view_.showAlert(a, std::move(answer));
  }
  void dismissAlert() override { view_.dismissAlert(); }
  void pictureAreaSize(int& w, int& h) const override { view_.pictureAreaSize(w, h); }

 private:
  std::shared_ptr<Registry> registry_;
  HeadlessScreenView view_;
};

HeadlessUi::HeadlessUi() : registry_(std::make_shared<Registry>()) {}
HeadlessUi::~HeadlessUi() = default;

std::unique_ptr<ScreenView> HeadlessUi::makeView(const std::string& screenName) {
  return std::make_unique<TrackedView>(registry_, screenName);
}

std::vector<HeadlessScreenView*> HeadlessUi::views() const { return registry_->views; }

HeadlessScreenView* HeadlessUi::topView() const {
  return registry_->views.empty() ? nullptr : registry_->views.back();
}

void HeadlessUi::quit() {
  if (quit_) quit_();
}

}  // namespace nembra
