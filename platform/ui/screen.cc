#include "platform/ui/screen.h"

#include "platform/ui/screen_presenter.h"

namespace nembra {

void Screen::attach(ScreenView& view, ScreenPresenter& presenter) {
  view_ = &view;
  presenter_ = &presenter;
  view.setListener(this);
  viewDidLoad();
}

void Screen::detach() {
  if (!view_) return;
  viewWillDisappear();
  view_->setListener(nullptr);
  view_ = nullptr;
}

void Screen::dismiss(std::function<void()> completion) {
  if (!presenter_) return;
  presenter_->dismiss(*this, std::move(completion));
}

}  // namespace nembra
