// Keeps the stack of presented screens: a screen is presented over the topmost one, and
// dismissing a screen dismisses it with every screen presented over it, topmost first. Each
// screen gets its view from the host's UiAdapter.
//
// Threading: main queue only; completions run on the main queue after the change, never on the
// caller's stack. The window's events reach screens because the window adapter polls SDL from a
// repeating task on the same main queue: the host only has to keep pumping MainQueue.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/ui/screen.h"
#include "platform/ui/ui_adapter.h"

namespace nembra {

class MainQueue;

class ScreenPresenter {
 public:
  // |adapter| and |mainQueue| must outlive the presenter.
  ScreenPresenter(UiAdapter& adapter, MainQueue& mainQueue);
  ~ScreenPresenter();

  ScreenPresenter(const ScreenPresenter&) = delete;
  ScreenPresenter& operator=(const ScreenPresenter&) = delete;

  void present(std::shared_ptr<Screen> screen, std::function<void()> completion = {});
  // Nothing happens (and |completion| still runs) when |screen| is not presented.
  void dismiss(Screen& screen, std::function<void()> completion = {});
  void dismissAll(std::function<void()> completion = {});

  Screen* topmost() const;
  size_t depth() const { return stack_.size(); }
  UiAdapter& adapter() { return adapter_; }

  // Runs whenever the stack becomes empty.
  void setOnEmpty(std::function<void()> onEmpty) { onEmpty_ = std::move(onEmpty); }

 private:
  struct Entry {
    std::shared_ptr<Screen> screen;
    std::unique_ptr<ScreenView> view;
  };

  void finish(std::function<void()> completion);

  UiAdapter& adapter_;
  MainQueue& mainQueue_;
  std::vector<Entry> stack_;
  std::function<void()> onEmpty_;
  // Posted completions check it: the presenter may be gone when they run.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
