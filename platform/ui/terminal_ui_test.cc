#include "platform/ui/terminal_ui.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "nembra/main_queue.h"
#include "platform/ui/screen.h"
#include "platform/ui/screen_presenter.h"

namespace nembra {
namespace {

// A screen with the controls a player screen has, recording what reaches it.
class ControlsScreen final : public Screen {
 public:
  explicit ControlsScreen(std::string name) : name_(std::move(name)) {}
  std::string name() const override { return name_; }

  void buttonPressed(const std::string& button) override { events.push_back("button " + button); }
  void keyPressed(const std::string& key) override { events.push_back("key " + key); }
  void rowPicked(const std::string& list, int row) override {
    events.push_back("row " + list + " " + std::to_string(row));
  }

  ScreenView& shownView() { return view(); }
  std::vector<std::string> events;

 protected:
  void viewDidLoad() override {
    view().setTitle("Player");
    view().setLabel("time", "00:03 / 01:00");
    view().setButton("play", {"play-white", "Play", true, false});
    view().setButton("pause", {"pause-white", "", true, false});
    view().setButton("cancel", {"cancel-white", "Cancel", false, false});
    view().setButton("secret", {"x", "Hidden", true, true});
    view().setButton("close", {"close-white", "Close", true, false});
    view().setButton("previous", {"previous-white", "Previous", true, false});
    view().setButton("next", {"next-white", "Next", true, false});
    view().setButton("ok", {"ok-white", "OK", true, false});
    view().bindKey("space", "play");
    view().bindKey("p", "pause");
    view().bindKey("c", "cancel");
    view().bindKey("q", "close");
    view().bindKey("escape", "close");
    view().bindKey("left", "previous");
    view().bindKey("right", "next");
    view().bindKey("enter", "ok");
    view().bindKey("s", "secret");
    view().setSlider("progress", {0.5, 0, 1, true, false});
  }

 private:
  std::string name_;
};

// The adapter reading keys from a pipe and drawing into a temporary file, as when the tool's
// input and output are redirected.
class TerminalUiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::pipe(keys_), 0);
    output_ = std::tmpfile();
    ASSERT_NE(output_, nullptr);
    ui_ = std::make_unique<TerminalUi>(queue_, keys_[0], output_);
    presenter_ = std::make_unique<ScreenPresenter>(*ui_, queue_);
  }
  void TearDown() override {
    presenter_.reset();
    ui_.reset();
    if (keys_[1] >= 0) ::close(keys_[1]);
    if (keys_[0] >= 0) ::close(keys_[0]);
    if (output_) std::fclose(output_);
  }

  void type(const std::string& bytes) {
    ASSERT_EQ(::write(keys_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // Pumps the main queue until |screen| has heard |count| events.
  bool heard(ControlsScreen& screen, size_t count) {
    return queue_.runUntil([&] { return screen.events.size() >= count; }, std::chrono::seconds(5));
  }
  // What was drawn since the last call.
  std::string drawn() {
    queue_.runUntilIdle();
    std::fflush(output_);
    const long end = std::ftell(output_);
    std::string text(static_cast<size_t>(end - read_), '\0');
    EXPECT_EQ(::pread(::fileno(output_), text.data(), text.size(), read_),
              static_cast<ssize_t>(text.size()));
    read_ = end;
    return text;
  }

  MainQueue queue_;
  int keys_[2] = {-1, -1};
  FILE* output_ = nullptr;
  long read_ = 0;
  std::unique_ptr<TerminalUi> ui_;
  std::unique_ptr<ScreenPresenter> presenter_;
};

const char kPlayerStatus[] =
    "== Player ==\n"
    "time: 00:03 / 01:00\n"
    "progress [###############---------------] 0.5\n"
    "[space] Play  [p] pause  [c] Cancel (off)  [escape/q] Close  [left] Previous  "
    "[right] Next  [enter] OK  \n"
    "\n";

TEST_F(TerminalUiTest, StatusAreaIsTheTopmostScreensAndFollowsTheStack) {
  auto player = std::make_shared<ControlsScreen>("player");
  presenter_->present(player);
  // Many changes in one task make one drawing; a pipe gets it appended, without escapes.
  EXPECT_EQ(drawn(), kPlayerStatus);

  player->shownView().setLabel("time", "00:04 / 01:00");
  player->shownView().setButton("cancel", {"cancel-white", "Cancel", true, false});
  const std::string update = drawn();
  EXPECT_NE(update.find("time: 00:04 / 01:00\n"), std::string::npos) << update;
  EXPECT_NE(update.find("[c] Cancel  "), std::string::npos) << update;
  EXPECT_EQ(update.find("(off)"), std::string::npos) << update;

  // Setting what is already shown draws nothing.
  player->shownView().setLabel("time", "00:04 / 01:00");
  EXPECT_EQ(drawn(), "");

  auto library = std::make_shared<ControlsScreen>("library");
  presenter_->present(library);
  library->shownView().setTitle("");
  library->shownView().setList("videos", {44, {"first.mp4", "second.mp4"}, 1});
  const std::string over = drawn();
  EXPECT_EQ(over.rfind("== library ==\n", 0), 0u) << over;  // an empty title shows the name
  EXPECT_NE(over.find("  first.mp4\n> second.mp4  (selected)\n"), std::string::npos) << over;

  presenter_->dismiss(*library);
  const std::string back = drawn();
  EXPECT_EQ(back.rfind("== Player ==\n", 0), 0u) << back;
}

TEST_F(TerminalUiTest, TypedKeysPressTheirButtonsOnTheTopmostScreen) {
  auto player = std::make_shared<ControlsScreen>("player");
  presenter_->present(player);
  // The arrow keys arrive as escape sequences, the second one split across two reads; "c" is
  // bound to a disabled button and "s" to a hidden one, so neither presses anything; "x" is
  // bound to nothing and goes to the screen as a key.
  type(" pcsx\x1b[C");
  ASSERT_TRUE(heard(*player, 4));
  type("\x1b[");
  type("D\rq\x1bOA");
  ASSERT_TRUE(heard(*player, 8));
  type("\x1b");
  ASSERT_TRUE(heard(*player, 9));
  EXPECT_EQ(player->events, (std::vector<std::string>{"button play", "button pause", "key x",
                                                      "button next", "button previous", "button ok",
                                                      "button close", "key up", "button close"}));

  // Keys go to the screen on top only.
  auto over = std::make_shared<ControlsScreen>("over");
  presenter_->present(over);
  type("p");
  ASSERT_TRUE(heard(*over, 1));
  EXPECT_EQ(over->events, std::vector<std::string>{"button pause"});
  EXPECT_EQ(player->events.size(), 9u);
}

TEST_F(TerminalUiTest, AlertsAreNumberedPromptsThatTakeTheKeysUntilAnswered) {
  auto player = std::make_shared<ControlsScreen>("player");
  presenter_->present(player);
  drawn();
  std::vector<int> answers;
  player->shownView().showAlert(
      {"Upload failed", "The network connection was lost.", {"Cancel", "Retry"}},
      [&](int button) { answers.push_back(button); });
  EXPECT_EQ(drawn(), std::string(kPlayerStatus, sizeof kPlayerStatus - 2) +
                         "\n!! Upload failed\n"
                         "   The network connection was lost.\n"
                         "   1) Cancel  2) Retry  - press a number\n\n");

  // A bound key and a number with no button do nothing while the alert is up.
  type(" 3");
  type("2");
  ASSERT_TRUE(queue_.runUntil([&] { return !answers.empty(); }, std::chrono::seconds(5)));
  EXPECT_EQ(answers, std::vector<int>{1});
  EXPECT_TRUE(player->events.empty());
  EXPECT_EQ(drawn(), kPlayerStatus);

  // Enter takes the last button; afterwards keys reach the screen again.
  player->shownView().showAlert({"Delete?", "", {"No", "Yes"}},
                                [&](int b) { answers.push_back(b); });
  type("\r ");
  ASSERT_TRUE(heard(*player, 1));
  EXPECT_EQ(answers, (std::vector<int>{1, 1}));
  EXPECT_EQ(player->events, std::vector<std::string>{"button play"});
}

TEST_F(TerminalUiTest, ListRowsArePickedWithTheArrowsAndEnter) {
  // A screen with only a list: no button takes enter.
  class ListScreen final : public Screen {
   public:
    std::string name() const override { return "picker"; }
    void rowPicked(const std::string& list, int row) override {
      picked.push_back(list + " " + std::to_string(row));
    }
    std::vector<std::string> picked;

   protected:
    void viewDidLoad() override { view().setList("files", {44, {"a", "b", "c"}, -1}); }
  };
  auto list = std::make_shared<ListScreen>();
  presenter_->present(list);
  type("\x1b[B\x1b[B\x1b[B\r\x1b[A\r");
  ASSERT_TRUE(queue_.runUntil([&] { return list->picked.size() == 2; }, std::chrono::seconds(5)));
  EXPECT_EQ(list->picked, (std::vector<std::string>{"files 2", "files 1"}));
}

TEST_F(TerminalUiTest, CtrlCAsksToQuit) {
  bool quit = false;
  ui_->setQuitHandler([&] { quit = true; });
  presenter_->present(std::make_shared<ControlsScreen>("player"));
  type("\x03");
  EXPECT_TRUE(queue_.runUntil([&] { return quit; }, std::chrono::seconds(5)));
}

// On a real terminal (a pseudo-terminal here) keys arrive one by one without enter, the screen
// is redrawn in place, and the terminal's settings come back when the adapter goes.
TEST(TerminalUiOnATerminalTest, RawModeWhileAliveRedrawsInPlaceAndRestoresTheSettings) {
  int master = -1;
  int slave = -1;
  ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  termios before{};
  ASSERT_EQ(::tcgetattr(slave, &before), 0);
  ASSERT_TRUE(before.c_lflag & ICANON);
  FILE* out = ::fdopen(::dup(slave), "w");
  ASSERT_NE(out, nullptr);
  MainQueue queue;
  {
    TerminalUi ui(queue, slave, out);
    ScreenPresenter presenter(ui, queue);
    auto player = std::make_shared<ControlsScreen>("player");
    presenter.present(player);
    queue.runUntilIdle();
    termios during{};
    ASSERT_EQ(::tcgetattr(slave, &during), 0);
    EXPECT_FALSE(during.c_lflag & (ICANON | ECHO));

    ASSERT_EQ(::write(master, "p", 1), 1);  // no newline
    EXPECT_TRUE(queue.runUntil([&] { return !player->events.empty(); }, std::chrono::seconds(5)));
    EXPECT_EQ(player->events, std::vector<std::string>{"button pause"});

    std::string screen;
    char buffer[4096];
    while (screen.find("OK  \r") == std::string::npos) {
      const ssize_t n = ::read(master, buffer, sizeof buffer);
      ASSERT_GT(n, 0);
      screen.append(buffer, static_cast<size_t>(n));
    }
    // Lines end in "\r\n" themselves: raw mode turns off the terminal's input processing only.
    EXPECT_EQ(screen.rfind("\x1b[H\x1b[2J== Player ==\r", 0), 0u);
    EXPECT_NE(screen.find("\ntime: 00:03 / 01:00\r"), std::string::npos);
  }
  termios after{};
  ASSERT_EQ(::tcgetattr(slave, &after), 0);
  EXPECT_TRUE(after.c_lflag & ICANON);
  EXPECT_TRUE(after.c_lflag & ECHO);
  std::fclose(out);
  ::close(slave);
  ::close(master);
}

}  // namespace
}  // namespace nembra
