// A screen's controller: its state and rules, drawn through a ScreenView it is given when
// presented. Subclasses override the listener callbacks they need and viewDidLoad to fill the
// view the first time.
//
// Threading: main queue only.
#pragma once

#include <functional>
#include <string>

#include "platform/ui/screen_view.h"

namespace nembra {

class ScreenPresenter;

class Screen : public ScreenViewListener {
 public:
  ~Screen() override = default;

  // A short stable name ("image-viewer"): the terminal's heading and the headless record's key.
  virtual std::string name() const = 0;

  // Called by the presenter once the view exists, then viewDidLoad runs.
  void attach(ScreenView& view, ScreenPresenter& presenter);
  // Called by the presenter just before the view is destroyed.
  void detach();

  bool presented() const { return view_ != nullptr; }

 protected:
  virtual void viewDidLoad() {}
  virtual void viewWillDisappear() {}

  // REQUIRES: presented().
  ScreenView& view() { return *view_; }
  // Dismisses this screen (and any presented over it); |completion| runs once it is gone.
  void dismiss(std::function<void()> completion = {});

 private:
  ScreenView* view_ = nullptr;
  ScreenPresenter* presenter_ = nullptr;
};

}  // namespace nembra
