#include "platform/ui/screen_presenter.h"

#include "nembra/main_queue.h"

namespace nembra {

ScreenPresenter::ScreenPresenter(UiAdapter& adapter, MainQueue& mainQueue)
    : adapter_(adapter), mainQueue_(mainQueue) {}

ScreenPresenter::~ScreenPresenter() {
  *alive_ = false;
  while (!stack_.empty()) {
    stack_.back().screen->detach();
    stack_.pop_back();
  }
}

void ScreenPresenter::present(std::shared_ptr<Screen> screen, std::function<void()> completion) {
  if (!screen || screen->presented()) {
    finish(std::move(completion));
    return;
  }
  Entry entry{screen, adapter_.makeView(screen->name())};
  ScreenView& view = *entry.view;
  stack_.push_back(std::move(entry));
  screen->attach(view, *this);
  finish(std::move(completion));
}

void ScreenPresenter::dismiss(Screen& screen, std::function<void()> completion) {
  size_t index = 0;
  while (index < stack_.size() && stack_[index].screen.get() != &screen) ++index;
  if (index == stack_.size()) {
    finish(std::move(completion));
    return;
  }
  while (stack_.size() > index) {
    // Keep the screen alive through its own detach: it may be the caller.
    Entry entry = std::move(stack_.back());
    stack_.pop_back();
    entry.screen->detach();
    entry.view.reset();
    mainQueue_.async([screen = std::move(entry.screen)] {});
  }
  finish(std::move(completion));
  if (stack_.empty() && onEmpty_) {
    mainQueue_.async([alive = alive_, this] {
      if (*alive && stack_.empty() && onEmpty_) onEmpty_();
    });
  }
}

void ScreenPresenter::dismissAll(std::function<void()> completion) {
  if (stack_.empty()) {
    finish(std::move(completion));
    return;
  }
  dismiss(*stack_.front().screen, std::move(completion));
}

Screen* ScreenPresenter::topmost() const {
  return stack_.empty() ? nullptr : stack_.back().screen.get();
}

void ScreenPresenter::finish(std::function<void()> completion) {
  if (!completion) return;
  mainQueue_.async([alive = alive_, completion = std::move(completion)] {
    if (*alive) completion();
  });
}

}  // namespace nembra
