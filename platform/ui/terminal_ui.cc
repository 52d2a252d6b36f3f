#include "platform/ui/terminal_ui.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

#include "nembra/main_queue.h"
#include "platform/dispatch/thread_name.h"

namespace nembra {
namespace {

// The terminal's settings before raw mode, restored on the way out.
termios savedSettings;

bool enterRawMode(int fd) {
  if (fd < 0 || !::isatty(fd) || ::tcgetattr(fd, &savedSettings) != 0) return false;
  termios raw = savedSettings;
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
  raw.c_cc[VMIN] = 1;
  raw.c_cc[VTIME] = 0;
  return ::tcsetattr(fd, TCSANOW, &raw) == 0;
}

}  // namespace

TerminalUi::TerminalUi(MainQueue& mainQueue, int input, FILE* output)
    : mainQueue_(mainQueue), input_(input), output_(output), rawMode_(enterRawMode(input)) {
  if (input_ >= 0) reader_ = std::thread([this] { readKeys(); });
}

TerminalUi::~TerminalUi() {
  *alive_ = false;
  stopReading_ = true;
  if (reader_.joinable()) reader_.join();
  if (rawMode_) ::tcsetattr(input_, TCSANOW, &savedSettings);
  for (TerminalScreenView* view : views_) view->setListener(nullptr);
}

std::unique_ptr<ScreenView> TerminalUi::makeView(const std::string& screenName) {
  auto view = std::make_unique<TerminalScreenView>(
      screenName, [this] { scheduleDraw(); },
      [this](TerminalScreenView* gone) {
        views_.erase(std::remove(views_.begin(), views_.end(), gone), views_.end());
        scheduleDraw();
      });
  views_.push_back(view.get());
  scheduleDraw();
  return view;
}

void TerminalUi::keyDown(const std::string& key) {
  if (key == "ctrl-c") {
    if (quit_) quit_();
    return;
  }
  if (!views_.empty()) views_.back()->keyDown(key);
}

void TerminalUi::scheduleDraw() {
  if (drawPending_) return;
  drawPending_ = true;
  // Coalesces the many changes a screen makes in one task into one redraw.
  mainQueue_.async([this, alive = alive_] {
    if (!*alive) return;
    drawPending_ = false;
    draw();
  });
}

void TerminalUi::draw() {
  std::vector<std::string> lines;
  if (!views_.empty()) lines = views_.back()->render();
  if (lines == drawn_) return;
  drawn_ = lines;
  std::string text;
  // Redraw in place on a terminal; a pipe gets each new state appended.
  if (::isatty(::fileno(output_))) text += "\x1b[H\x1b[2J";
  for (const std::string& line : lines) text += line + (rawMode_ ? "\r\n" : "\n");
  if (!::isatty(::fileno(output_))) text += "\n";
  std::fwrite(text.data(), 1, text.size(), output_);
  std::fflush(output_);
}

void TerminalUi::readKeys() {
  setCurrentThreadName("com.nembra.terminal");
  std::string pending;
  while (!stopReading_) {
    pollfd fd{input_, POLLIN, 0};
    // Wakes up now and then to notice stopReading_.
    if (::poll(&fd, 1, 100) <= 0) continue;
    char buffer[16];
    const ssize_t n = ::read(input_, buffer, sizeof buffer);
    if (n <= 0) return;  // end of input: no more keys
    pending.append(buffer, static_cast<size_t>(n));
    // A lone escape may be the start of an arrow key whose rest is still on its way.
    if (pending == "\x1b" && ::poll(&fd, 1, 50) > 0) continue;
    while (!pending.empty()) {
      std::string key;
      size_t used = 1;
      const char c = pending[0];
      // Arrows come as CSI ("\x1b[A") or, in the terminal's application mode, SS3 ("\x1bOA").
      if (c == '\x1b' && pending.size() >= 3 && (pending[1] == '[' || pending[1] == 'O')) {
        used = 3;
        switch (pending[2]) {
          case 'A':
            key = "up";
            break;
          case 'B':
            key = "down";
            break;
          case 'C':
            key = "right";
            break;
          case 'D':
            key = "left";
            break;
          default:
            break;
        }
      } else if (c == '\x1b' && pending.size() == 2 && (pending[1] == '[' || pending[1] == 'O')) {
        break;  // the rest of an arrow key has not arrived
      } else if (c == '\x1b') {
        key = "escape";
      } else if (c == ' ') {
        key = "space";
      } else if (c == '\r' || c == '\n') {
        key = "enter";
      } else if (c == '\x03') {
        key = "ctrl-c";
      } else if (c == '\x7f') {
        key = "backspace";
      } else if (c >= 32 && c < 127) {
        key = std::string(1, c);
      }
      pending.erase(0, used);
      if (key.empty()) continue;
      mainQueue_.async([this, alive = alive_, key] {
        if (*alive) keyDown(key);
      });
    }
  }
}

}  // namespace nembra
