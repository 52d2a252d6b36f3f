// The headless adapter, for tests and services: every view it makes is a HeadlessScreenView
// that stays reachable through it, so a test can read what each screen shows and act on it.
//
// Threading: main queue only.
#pragma once

#include <vector>

#include "platform/ui/headless_screen_view.h"
#include "platform/ui/ui_adapter.h"

namespace nembra {

class HeadlessUi final : public UiAdapter {
 public:
  HeadlessUi();
  ~HeadlessUi() override;

  UiKind kind() const override { return UiKind::None; }
  std::unique_ptr<ScreenView> makeView(const std::string& screenName) override;
  void setQuitHandler(std::function<void()> handler) override { quit_ = std::move(handler); }

  // The views alive now, the first made first; null when none.
  std::vector<HeadlessScreenView*> views() const;
  HeadlessScreenView* topView() const;
  // As if the user asked to leave.
  void quit();

 private:
  class TrackedView;
  // Shared with the views so one that outlives the adapter can still unregister itself.
  struct Registry;
  std::shared_ptr<Registry> registry_;
  std::function<void()> quit_;
};

}  // namespace nembra
