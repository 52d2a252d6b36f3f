// The terminal adapter: draws the topmost screen's status area on standard output and reads keys
// from standard input (space, p, c, q, the arrows, enter, digits for alerts; Ctrl-C leaves).
// When standard input is a terminal it is put in raw mode while the adapter lives.
//
// Keys are read on the thread "com.nembra.terminal" and handed to the views on the main queue.
//
// Threading: main queue only, except the reader thread described above.
#pragma once

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "platform/ui/terminal_screen_view.h"
#include "platform/ui/ui_adapter.h"

namespace nembra {

class MainQueue;

class TerminalUi final : public UiAdapter {
 public:
  // |input| is read for keys (-1 for none); the status area goes to |output|.
  TerminalUi(MainQueue& mainQueue, int input = 0, FILE* output = stdout);
  ~TerminalUi() override;

  UiKind kind() const override { return UiKind::Terminal; }
  std::unique_ptr<ScreenView> makeView(const std::string& screenName) override;
  void setQuitHandler(std::function<void()> handler) override { quit_ = std::move(handler); }

  // A key as if typed ("space", "left", "q"), on the main queue.
  void keyDown(const std::string& key);

 private:
  void scheduleDraw();
  void draw();
  void readKeys();

  MainQueue& mainQueue_;
  const int input_;
  FILE* const output_;
  const bool rawMode_;
  std::vector<TerminalScreenView*> views_;
  std::function<void()> quit_;
  bool drawPending_ = false;
  std::vector<std::string> drawn_;
  std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
  std::atomic<bool> stopReading_{false};
  std::thread reader_;
};

}  // namespace nembra
